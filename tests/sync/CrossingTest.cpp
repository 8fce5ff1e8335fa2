// Messages that cross in flight between two sessions: a side that receives a new
// attribute answers with a bare announcement of it (no value), which binds its own
// symbol on the peer. Neither a value the peer wrote meanwhile nor a removal the peer
// made meanwhile may be lost to that answer.
#include "SessionHarness.h"

#include "Dovel/sync/RemoteNode.h"

#include "Tessel/AttributeT.h"

#include <gtest/gtest.h>

using Dovel::Bundle;
using Dovel::RemoteNode;
using SessionHarness::pump;
using SessionHarness::Session;
using Tessel::Attribute;
using Tessel::AttributeT;

namespace {

using SessionHarness::L2;

TEST(Crossing, AValueWrittenBeforeTheMastersBareAnswerArrivedIsKept) {
    RemoteNode masterNode(nullptr, "m");
    RemoteNode otherNode(nullptr, "o");
    Session m(masterNode, true, true);
    Session o(otherNode, false, true);
    pump(m, o);

    auto* x = new AttributeT<int>(nullptr, "", 1);
    otherNode.addDeepAttribute("a/x", x);
    m.input(o.output());                           // the master creates a/x ...
    const std::vector<Bundle> answer = m.output(); // ... and answers with a bare announcement
    ASSERT_FALSE(answer.empty());
    x->set(2, L2);
    m.input(o.output()); // written before the answer arrived: not stale, nothing newer was sent
    o.input(answer);
    pump(m, o);

    AttributeT<int>* mx = SessionHarness::typed<int>(masterNode, "a/x");
    ASSERT_TRUE(mx);
    EXPECT_EQ(mx->value(), 2);
    EXPECT_EQ(x->value(), 2);
}

TEST(Crossing, ARemovalThatOvertookThePeersBareAnswerStays) {
    for (bool ownerIsMaster : {true, false}) {
        SCOPED_TRACE(ownerIsMaster ? "owner is the master" : "owner is not the master");
        RemoteNode ownerNode(nullptr, "owner");
        RemoteNode peerNode(nullptr, "peer");
        Session owner(ownerNode, ownerIsMaster, true);
        Session peer(peerNode, !ownerIsMaster, true);
        pump(owner, peer);

        auto* x = new AttributeT<int>(nullptr, "", 1);
        ownerNode.addDeepAttribute("a/x", x);
        peer.input(owner.output());                       // the peer creates a/x ...
        const std::vector<Bundle> answer = peer.output(); // ... and answers bare
        ASSERT_FALSE(answer.empty());
        delete x; // the owner removes it before the answer comes
        const std::vector<Bundle> removal = owner.output();
        ASSERT_FALSE(removal.empty());
        owner.input(answer); // must not bring a/x back
        peer.input(removal);
        pump(owner, peer);

        EXPECT_FALSE(SessionHarness::typed<int>(ownerNode, "a/x"));
        EXPECT_FALSE(SessionHarness::typed<int>(peerNode, "a/x"));

        // The path is not spoilt: a new attribute there travels as any other.
        auto* again = new AttributeT<int>(nullptr, "", 3);
        ownerNode.addDeepAttribute("a/x", again);
        pump(owner, peer);
        AttributeT<int>* mirrored = SessionHarness::typed<int>(peerNode, "a/x");
        ASSERT_TRUE(mirrored);
        EXPECT_EQ(mirrored->value(), 3);
    }
}

TEST(Crossing, TheSideThatReceivedARemovalMayAddTheAttributeAgain) {
    for (bool removerIsMaster : {true, false}) {
        SCOPED_TRACE(removerIsMaster ? "remover is the master" : "remover is not the master");
        RemoteNode removerNode(nullptr, "remover");
        RemoteNode otherNode(nullptr, "other");
        Session remover(removerNode, removerIsMaster, true);
        Session other(otherNode, !removerIsMaster, true);
        pump(remover, other);
        auto* x = new AttributeT<int>(nullptr, "", 1);
        removerNode.addDeepAttribute("a/x", x);
        pump(remover, other);
        ASSERT_TRUE(SessionHarness::typed<int>(otherNode, "a/x"));
        delete x;
        pump(remover, other);
        ASSERT_FALSE(SessionHarness::typed<int>(otherNode, "a/x"));

        // The other side adds it again, then changes it: both reach the remover.
        auto* again = new AttributeT<int>(nullptr, "", 5);
        otherNode.addDeepAttribute("a/x", again);
        pump(remover, other);
        AttributeT<int>* back = SessionHarness::typed<int>(removerNode, "a/x");
        ASSERT_TRUE(back);
        EXPECT_EQ(back->value(), 5);
        again->set(6, L2);
        pump(remover, other);
        EXPECT_EQ(back->value(), 6);
    }
}

} // namespace
