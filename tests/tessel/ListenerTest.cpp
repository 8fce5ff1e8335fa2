// Attribute listeners (removal and deletion during emission) and ListenerHolder.
#include "Tessel/AttributeT.h"
#include "Tessel/ListenerHolder.h"
#include "Tessel/Node.h"

#include "Basalt/BinaryData.h"

#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <thread>
#include <vector>

using namespace Tessel;

namespace {
constexpr auto L2 = Attribute::LayerRemote;
}

TEST(AttributeListeners, EmissionUsesTheTableAsItWasAndSkipsRemovedListeners) {
    AttributeT<int> a;
    std::vector<int> calls;
    long second = -1, third = -1, late = -1;
    a.addListener(
        [&] {
            calls.push_back(1);
            // Removing a listener whose turn has not come stops it in this emission; a
            // listener added now first runs in the next one.
            a.removeListener(third);
            if (late < 0)
                late = a.addListener([&] { calls.push_back(4); }, Attribute::RoleChange);
        },
        Attribute::RoleChange);
    second = a.addListener(
        [&] {
            calls.push_back(2);
            EXPECT_TRUE(a.removeListener(second)); // removes itself
        },
        Attribute::RoleChange);
    third = a.addListener([&] { calls.push_back(3); }, Attribute::RoleChange);

    a.setValue(1, L2);
    EXPECT_EQ(calls, (std::vector<int>{1, 2}));
    calls.clear();
    a.setValue(2, L2);
    EXPECT_EQ(calls, (std::vector<int>{1, 4}));

    // A lone listener is kept without a table; the same rules hold when it adds a second
    // one and removes itself from inside its own call.
    AttributeT<int> b;
    calls.clear();
    long lone = -1;
    lone = b.addListener(
        [&] {
            calls.push_back(1);
            b.addListener([&] { calls.push_back(2); }, Attribute::RoleChange);
            EXPECT_TRUE(b.removeListener(lone));
        },
        Attribute::RoleChange);
    b.setValue(1, L2);
    EXPECT_EQ(calls, (std::vector<int>{1}));
    EXPECT_EQ(b.listenerCount(), 1);
    b.setValue(2, L2);
    EXPECT_EQ(calls, (std::vector<int>{1, 2}));
}

TEST(AttributeListeners, AListenerMayDeleteItsAttribute) {
    auto* a = new AttributeT<int>;
    int deletions = 0;
    bool laterCalled = false;
    a->addListener([&] { ++deletions; }, Attribute::RoleDelete);
    a->addListener([&] { delete a; }, Attribute::RoleChange);
    a->addListener([&] { laterCalled = true; }, Attribute::RoleChange);
    a->setValue(1, L2); // the emission stops with the attribute (no use after free)
    EXPECT_EQ(deletions, 1);
    EXPECT_FALSE(laterCalled);

    // The same with its only listener.
    auto* b = new AttributeT<int>;
    b->addListener([&] { delete b; }, Attribute::RoleChange);
    b->setValue(1, L2);
}

TEST(ListenerHolder, RemovesItsRegistrationsPerAttributeAndWhenDestroyed) {
    Node node;
    auto* a = new AttributeT<int>(&node, "a");
    auto* b = new AttributeT<int>(&node, "b");
    int aChanges = 0, bChanges = 0, events = 0;
    const int nodeListenersBefore = node.listenerCount();
    {
        ListenerHolder holder;
        EXPECT_EQ(holder.add(
                      nullptr, [] {}, Attribute::RoleChange),
                  -1);
        const long first = holder.add(
            a, [&] { ++aChanges; }, Attribute::RoleChange);
        const long second = holder.add(
            a, [&] { ++aChanges; }, Attribute::RoleChange);
        EXPECT_NE(first, second);
        holder.add(
            b, [&] { ++bChanges; }, Attribute::RoleChange);
        holder.addBd(
            &node, "ping", [&](Basalt::BinaryData&) { ++events; }, Node::Direct);
        EXPECT_TRUE(holder.holds(a));
        EXPECT_TRUE(holder.holds(&node));

        a->setValue(1, L2);
        b->setValue(1, L2);
        node.eventSend("ping");
        EXPECT_EQ(aChanges, 2);
        EXPECT_EQ(bChanges, 1);
        EXPECT_EQ(events, 1);

        holder.removeListeners(a);
        EXPECT_FALSE(holder.holds(a));
        EXPECT_EQ(a->listenerCount(), 0); // its deletion watch is gone too
        a->setValue(2, L2);
        EXPECT_EQ(aChanges, 2);
        holder.removeListeners(a); // nothing left: no effect
    }
    b->setValue(2, L2);
    node.eventSend("ping");
    EXPECT_EQ(bChanges, 1);
    EXPECT_EQ(events, 1);
    EXPECT_EQ(b->listenerCount(), 0);
    EXPECT_EQ(node.eventListenerCount(), 0);
    EXPECT_EQ(node.listenerCount(), nodeListenersBefore);
}

TEST(ListenerHolder, ForgetsAttributesDestroyedBeforeIt) {
    // Under AddressSanitizer a holder that touched a destroyed attribute would fail here.
    ListenerHolder holder;
    auto* lone = new AttributeT<float>;
    auto* parent = new Node;
    auto* child = new AttributeT<int>(parent, "child");
    int calls = 0;
    holder.add(
        lone, [&] { ++calls; }, Attribute::RoleChange | Attribute::RoleDelete);
    holder.add(
        child, [&] { ++calls; }, Attribute::RoleDelete);
    holder.addBd(
        parent, "attribute-removed", [&](Basalt::BinaryData&) { ++calls; }, Node::Direct);
    delete lone;
    EXPECT_EQ(calls, 1); // its own deletion listener still ran
    EXPECT_FALSE(holder.holds(lone));
    holder.removeListeners(lone); // a dangling pointer that is not held is not touched

    delete parent; // the child dies with it: both fire, then both are forgotten
    EXPECT_EQ(calls, 3);
    EXPECT_FALSE(holder.holds(parent));
    EXPECT_FALSE(holder.holds(child));

    // Its ids may be removed on the attribute itself: the holder forgets an attribute
    // it has nothing left on, and keeps a node that still carries its event listeners.
    auto* single = new AttributeT<int>;
    auto* node = new Node;
    const long only = holder.add(
        single, [&] { ++calls; }, Attribute::RoleChange);
    const long change = holder.add(
        node, [&] { ++calls; }, Attribute::RoleChange);
    holder.addBd(
        node, "ping", [&](Basalt::BinaryData&) { ++calls; }, Node::Direct);
    EXPECT_TRUE(single->removeListener(only));
    EXPECT_FALSE(holder.holds(single));
    EXPECT_TRUE(node->removeListener(change));
    EXPECT_TRUE(holder.holds(node));
    delete single;
    delete node;
    EXPECT_FALSE(holder.holds(node));
    EXPECT_EQ(calls, 3);

    // Event listener ids may be removed on the node (from any thread): they never run
    // again, and the holder keeps the node until the node tells it of its end.
    auto* pinged = new Node;
    const long ping = holder.addBd(
        pinged, "ping", [&](Basalt::BinaryData&) { ++calls; }, Node::Direct);
    EXPECT_TRUE(pinged->eventRemoveListener(ping));
    EXPECT_FALSE(pinged->eventRemoveListener(ping));
    EXPECT_EQ(pinged->eventListenerCount(), 0);
    pinged->eventSend("ping");
    EXPECT_EQ(calls, 3);
    EXPECT_TRUE(holder.holds(pinged));
    delete pinged;
    EXPECT_FALSE(holder.holds(pinged));
    holder.removeAll();

    // A holder that dies while its node is being torn down (here from a child's deletion
    // listener) is not touched afterwards, not even when one of its ids is removed.
    auto* parentNode = new Node;
    auto* child2 = new AttributeT<int>(parentNode, "child");
    auto* doomed = new ListenerHolder;
    const long doomedId = doomed->addBd(
        parentNode, "ping", [](Basalt::BinaryData&) {}, Node::Direct);
    child2->addListener(
        [&] {
            delete doomed;
            parentNode->eventRemoveListener(doomedId);
        },
        Attribute::RoleDelete);
    delete parentNode;
}

TEST(ListenerHolder, AnEventListenerRemovingItselfOnAnotherThreadLeavesTheHolderAlone) {
    // Under ThreadSanitizer a holder touched from the sending thread would fail here.
    Node node;
    ListenerHolder holder;
    std::atomic<long> id{-1};
    id = holder.addBd(
        &node, "ping", [&](Basalt::BinaryData&) { node.eventRemoveListener(id.load()); },
        Node::Direct);
    std::thread sender([&] { node.eventSend("ping"); });
    std::vector<std::unique_ptr<AttributeT<int>>> others;
    for (int i = 0; i < 200; ++i) {
        others.push_back(std::make_unique<AttributeT<int>>());
        holder.add(
            others.back().get(), [] {}, Attribute::RoleChange);
        EXPECT_TRUE(holder.holds(&node));
    }
    sender.join();
    EXPECT_EQ(node.eventListenerCount(), 0);
    holder.removeAll();
}

TEST(ListenerHolder, RefusesAnAttributeThatIsBeingDestroyed) {
    ListenerHolder holder;
    auto* doomed = new AttributeT<int>;
    long late = 0, lateEvent = 0;
    doomed->addListener(
        [&] {
            late = holder.add(
                doomed, [] {}, Attribute::RoleChange);
        },
        Attribute::RoleDelete);
    delete doomed;
    EXPECT_EQ(late, -1);
    EXPECT_FALSE(holder.holds(doomed));

    auto* node = new Node;
    node->addListener(
        [&] {
            lateEvent = holder.addBd(
                node, "ping", [](Basalt::BinaryData&) {}, Node::Direct);
        },
        Attribute::RoleDelete);
    delete node;
    EXPECT_EQ(lateEvent, -1);
    EXPECT_FALSE(holder.holds(node));
}
