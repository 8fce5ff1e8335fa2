// The receivers against hand-written bundles from the peer: removals, unknown symbols,
// paths through value attributes, stale updates, events.
#include "SessionHarness.h"

#include "bundle/BundleTestUtil.h"

#include "Dovel/Limits.h"

#include "Basalt/Trace.h"
#include "Tessel/AttributeAlias.h"
#include "Tessel/AttributeT.h"

#include <QRegExp>

#include <gtest/gtest.h>

using BundleTest::Bytes;
using BundleTest::packet;
using Dovel::Bundle;
using Dovel::RemoteNode;
using SessionHarness::pump;
using SessionHarness::Session;
using Tessel::Attribute;
using Tessel::AttributeT;
using Tessel::Node;

namespace {

using SessionHarness::L2;
// The numbers under which the left session's messages reach the right one.
using namespace SessionHarness::MessageTypes;

// A left and a right tree in session; the right side receives the hand-written bundles.
struct Pair {
    RemoteNode left{nullptr, "left"};
    RemoteNode right{nullptr, "right"};
    std::unique_ptr<Session> a;
    std::unique_ptr<Session> b;
    uint32_t sequence = 100;

    void start(bool rightIsMaster = false) {
        a = std::make_unique<Session>(left, !rightIsMaster, true);
        b = std::make_unique<Session>(right, rightIsMaster, true);
        pump(*a, *b);
    }
    uint32_t leftSymbol(const QByteArray& path) { return left.symbolRegistry().lookup(path); }
    void toRight(uint32_t type, const Bytes& payload, uint32_t acknowledged = 0) {
        b->input({Bundle(packet(type, sequence++, acknowledged, payload.data()))});
    }
    Attribute* rightAt(const QByteArray& path) { return SessionHarness::at(right, path); }
};

} // namespace

TEST(Receivers, RemovalDestroysPeerCreatedAttributesOnlyAndReadsLateUpdatesPast) {
    Pair p;
    p.left.addDeepAttribute("p/x", new AttributeT<int>(nullptr, "", 1));
    p.left.addDeepAttribute("p/z", new AttributeT<int>(nullptr, "", 2));
    auto* localY = new AttributeT<int>(nullptr, "", 3);
    p.right.addDeepAttribute("q/y", localY);
    p.start();
    ASSERT_TRUE(p.rightAt("p/x"));
    ASSERT_TRUE(p.left.attribute("q"));

    // The left side drops its own p/x and its copy of q/y.
    delete p.left.attribute("p")->attribute("x");
    delete p.left.attribute("q")->attribute("y");
    p.b->input(p.a->output());
    EXPECT_EQ(p.rightAt("p/x"), nullptr);
    EXPECT_EQ(p.rightAt("q/y"), localY) << "an attribute of local origin stays";
    EXPECT_TRUE(p.b->output().empty()) << "the removal went back";

    // Updates that were under way for both are read past; the rest is applied.
    Basalt::TraceCapture log;
    const uint32_t x = p.leftSymbol("p/x"), y = p.leftSymbol("q/y"), z = p.leftSymbol("p/z");
    p.toRight(UpdateType, Bytes().word(x).word(10).word(y).word(30).word(z).word(20));
    EXPECT_EQ(p.rightAt("p/z")->asInt(), 20);
    EXPECT_EQ(localY->value(), 3);
    EXPECT_EQ(log.count("Session::input"), 0) << log.dump().toStdString();

    p.toRight(RemoveType, Bytes().word(x).word(7777)); // already gone, never known
    EXPECT_EQ(p.rightAt("q/y"), localY);
    EXPECT_EQ(log.count("Session::input"), 0);

    // Re-added on the left: announced again, created again, values flow again.
    p.left.addDeepAttribute("p/x", new AttributeT<int>(nullptr, "", 5));
    pump(*p.a, *p.b);
    ASSERT_TRUE(p.rightAt("p/x"));
    EXPECT_EQ(p.rightAt("p/x")->asInt(), 5);

    // The nodes made for the peer's attribute go with it once they are empty; a node
    // of this side's stays.
    p.left.addDeepAttribute("deep/a/b/c", new AttributeT<int>(nullptr, "", 1));
    p.left.addDeepAttribute("q/w", new AttributeT<int>(nullptr, "", 1));
    pump(*p.a, *p.b);
    ASSERT_TRUE(p.rightAt("deep/a/b/c") && p.rightAt("q/w"));
    delete p.left.attribute("deep")->attribute("a")->attribute("b")->attribute("c");
    delete p.left.attribute("q")->attribute("w");
    pump(*p.a, *p.b);
    EXPECT_EQ(p.right.attribute("deep"), nullptr);
    EXPECT_EQ(p.rightAt("q/y"), localY);
}

TEST(Receivers, WhatAListenerDeletesWhenItsArrivalIsReportedTakesNoLaterValues) {
    Pair p;
    p.left.addDeepAttribute("p/x", new AttributeT<int>(nullptr, "", 1));
    p.left.addDeepAttribute("p/z", new AttributeT<int>(nullptr, "", 2));
    p.left.addDeepAttribute("n/x", new AttributeT<int>(nullptr, "", 3));
    p.left.addDeepAttribute("n/y", new AttributeT<int>(nullptr, "", 4));
    p.left.addDeepAttribute("g/h/v", new AttributeT<int>(nullptr, "", 5));
    // Siblings and cousins one after the other: the receiver goes on from the nodes the
    // last path shares with the next, unless they are gone (d/a/c is, with d/a).
    const char* const kept[] = {"r/a/b/x", "r/a/b/v/u", "r/a/c/y", "r/e/z", "t"};
    for (const char* path : {"d/a/b/x", "d/a/b/v/u", "d/a/c/y", "d/e/z"})
        p.left.addDeepAttribute(path, new AttributeT<int>(nullptr, "", 6));
    for (const char* path : kept)
        p.left.addDeepAttribute(path, new AttributeT<int>(nullptr, "", 6));
    // The right side's application drops p/x as soon as it hears of it, the node n the
    // first time it hears of it (with n/x, the attribute that brought it), and g, the
    // node above, when it hears of g/h: the receiver must not go on from either.
    bool nodeDropped = false;
    p.right.addAttributeChangeListener([&](const Dovel::NodeWatcher::Event& event) {
        const Basalt::SymbolRegistry& symbols = p.right.symbolRegistry();
        if (event.type == Dovel::NodeWatcher::AttributeAdded &&
            event.symbol == symbols.lookup(QByteArray("p/x")))
            delete p.rightAt("p/x");
        if (!nodeDropped && event.type == Dovel::NodeWatcher::NodeAdded &&
            event.symbol == symbols.lookup(QByteArray("n"))) {
            nodeDropped = true;
            delete p.rightAt("n");
        }
        if (event.type == Dovel::NodeWatcher::NodeAdded &&
            event.symbol == symbols.lookup(QByteArray("g/h")))
            delete p.rightAt("g");
        if (event.type == Dovel::NodeWatcher::AttributeAdded &&
            event.symbol == symbols.lookup(QByteArray("d/a/c/y")))
            delete p.rightAt("d/a");
    });
    p.start();
    ASSERT_TRUE(nodeDropped);
    EXPECT_EQ(p.rightAt("p/x"), nullptr);
    EXPECT_EQ(p.rightAt("n/x"), nullptr);
    EXPECT_EQ(p.rightAt("g"), nullptr);
    ASSERT_TRUE(p.rightAt("p/z"));
    ASSERT_TRUE(p.rightAt("n/y")); // the next entry made the node again
    EXPECT_EQ(p.rightAt("n/y")->asInt(), 4);
    EXPECT_EQ(p.rightAt("d/a"), nullptr);
    ASSERT_TRUE(p.rightAt("d/e/z"));
    EXPECT_EQ(p.rightAt("d/e/z")->host(), p.rightAt("d/e"));
    for (const char* path : kept) {
        const Attribute* const made = p.rightAt(path);
        ASSERT_TRUE(made) << path;
        EXPECT_EQ(made->asInt(), 6);
        // Where the path says: each node's host is the node of the path before it.
        const QByteArray whole(path);
        const int slash = whole.lastIndexOf('/');
        EXPECT_EQ(made->host(), slash < 0 ? &p.right : p.rightAt(whole.left(slash))) << path;
    }

    // Later values for the deleted ones are read past (a deserializer bound to a deleted
    // attribute would write into freed memory); the entries after them still apply.
    Bytes updates;
    for (const char* path : {"p/x", "p/z", "n/x", "n/y", "g/h/v"})
        updates.word(p.leftSymbol(path)).word(p.leftSymbol(path) * 10);
    p.toRight(UpdateType, updates);
    EXPECT_EQ(p.rightAt("p/x"), nullptr);
    EXPECT_EQ(p.rightAt("n/x"), nullptr);
    EXPECT_EQ(uint32_t(p.rightAt("p/z")->asInt()), p.leftSymbol("p/z") * 10);
    EXPECT_EQ(uint32_t(p.rightAt("n/y")->asInt()), p.leftSymbol("n/y") * 10);
}

TEST(Receivers, ANodeTheApplicationTurnsIntoAnAliasIsReachedThroughIt) {
    Pair p;
    p.right.addDeepAttribute("q/a/c/k", new AttributeT<int>(nullptr, "", 1));
    p.start();
    p.toRight(SymbolsType, Bytes().word(520).str("d/a/c/y").word(521).str("d/a/z"));
    p.toRight(NewType, Bytes().word(520).word(9).word(4).word(1).word(7));
    ASSERT_TRUE(p.rightAt("d/a/c/y"));
    // Between two bundles the application puts an alias of q where d was: what was
    // found last at d/a/c is now q's node, shown there through the alias.
    delete p.rightAt("d");
    new Tessel::AttributeAlias(&p.right, "d", p.rightAt("q"));
    p.right.processPendingAdditions();
    p.toRight(NewType, Bytes().word(521).word(9).word(4).word(1).word(8));
    ASSERT_TRUE(p.rightAt("q/a/z"));
    EXPECT_EQ(p.rightAt("q/a/z")->asInt(), 8);
    // The peer's path is bound to this side's symbol of that path, not to the one of the
    // node the alias shows there.
    const Dovel::DovelSessionAttribute* const record = p.b->storage.findByReadSymbol(521);
    ASSERT_TRUE(record);
    EXPECT_EQ(p.right.symbolRegistry().lookup(record->localSymbol), QByteArray("d/a/z"));
    p.toRight(UpdateType, Bytes().word(521).word(9));
    EXPECT_EQ(p.rightAt("q/a/z")->asInt(), 9);
}

TEST(Receivers, UnknownSymbolsSkipAnEntryAbandonAnUpdateOrWarn) {
    Pair p;
    p.left.addDeepAttribute("p/z", new AttributeT<int>(nullptr, "", 2));
    p.start();
    Basalt::TraceCapture log;
    p.toRight(SymbolsType,
              Bytes().word(500).str("fresh/v").word(501).str("note").word(502).str("p/z/deeper"));

    // AttributeNew: the unknown entry is skipped with its value (a string here).
    Bytes news; // symbol, type code, value size, value count, value
    news.word(9999).word(35).word(0).word(1).str("lost");
    news.word(500).word(9).word(4).word(1).word(6).word(502).word(9).word(4).word(1).word(8);
    p.toRight(NewType, news);
    ASSERT_TRUE(p.rightAt("fresh/v"));
    EXPECT_EQ(p.rightAt("fresh/v")->asInt(), 6);
    EXPECT_EQ(p.rightAt("p/z")->asInt(), 2); // a path through a value changes nothing
    EXPECT_EQ(p.rightAt("p/z/deeper"), nullptr);

    // AttributeUpdate: an unbound symbol abandons the rest of the bundle.
    p.toRight(UpdateType, Bytes().word(500).word(60).word(9999).word(1).word(500).word(61));
    EXPECT_EQ(p.rightAt("fresh/v")->asInt(), 60);

    // OneWayEvent: an unknown name is a warning; the next event still arrives.
    int notes = 0;
    p.right.eventAddListenerBd(
        "note", [&](Basalt::BinaryData& data) { notes += data.size(); }, Node::Direct);
    p.toRight(EventType,
              Bytes().word(9999).word(1).hex("ff000000").word(501).word(3).hex("01020300"));
    EXPECT_EQ(notes, 3);
    // An event that claims more bytes than the bundle holds throws from the reader.
    p.toRight(EventType, Bytes().word(501).word(1000).word(0));
    EXPECT_EQ(log.count("Session::input"), 1);
    EXPECT_EQ(notes, 3);

    // An int announced as of variable size: its value takes four bytes, not the count
    // its first word would give, so whatever looks ahead by the announced sizes goes out
    // of step with the entries applied. Each path still gets one symbol of its own.
    p.toRight(SymbolsType,
              Bytes().word(510).str("s/i").word(511).str("s/x").word(512).str("s/y").word(513).str(
                  "s/w"));
    Bytes stray;
    stray.word(510).word(9).word(0).word(1).word(16);
    for (uint32_t symbol : {511u, 512u, 513u})
        stray.word(symbol).word(9).word(4).word(0);
    p.toRight(NewType, stray);
    const Basalt::SymbolRegistry& names = p.right.symbolRegistry();
    for (const char* path : {"s/i", "s/x", "s/y", "s/w"}) {
        ASSERT_TRUE(p.rightAt(path)) << path;
        const uint32_t symbol = names.lookup(QByteArray(path));
        EXPECT_NE(symbol, 0u) << path;
        EXPECT_EQ(names.lookup(symbol), QByteArray(path));
        EXPECT_EQ(p.right.attributeCache().find(symbol), p.rightAt(path)) << path;
    }
    EXPECT_EQ(p.rightAt("s/i")->asInt(), 16);

    // A type this side does not know, of a fixed size beyond any bundle: its values are
    // read past as that size, which ends the bundle they came in.
    p.toRight(SymbolsType, Bytes().word(503).str("fresh/big"));
    p.toRight(NewType, Bytes().word(503).word(0x7777).word(0x20000004u).word(0));
    p.toRight(UpdateType, Bytes().word(503).word(1).word(500).word(62));
    EXPECT_EQ(log.count("Session::input"), 2);
    EXPECT_EQ(p.rightAt("fresh/v")->asInt(), 60);
    p.toRight(UpdateType, Bytes().word(500).word(63));
    EXPECT_EQ(p.rightAt("fresh/v")->asInt(), 63);
}

TEST(Receivers, PathsWithAnEmptyComponentOrTooDeepAreSkippedWithTheirValues) {
    Pair p;
    p.start();
    const QByteArray bad[] = {"/lead", "trail/", "a//b", "/"};
    Bytes symbols;
    Bytes news; // symbol, type code (9: int32), value size, value count, value
    for (uint32_t i = 0; i < 4; ++i) {
        symbols.word(600 + i).str(bad[i]);
        news.word(600 + i).word(9).word(4).word(1).word(70 + i);
    }
    // As deep as a created path may be, and one deeper.
    QByteArray deepest = "d";
    for (int i = 1; i < Dovel::Limits::MaxPeerPathDepth; ++i)
        deepest += "/d";
    const QByteArray tooDeep = "e/" + deepest;
    symbols.word(608).str(deepest).word(609).str(tooDeep);
    news.word(609).word(9).word(4).word(1).word(79).word(608).word(9).word(4).word(1).word(78);
    symbols.word(610).str("a/b");
    news.word(610).word(9).word(4).word(1).word(80);
    p.toRight(SymbolsType, symbols);
    p.toRight(NewType, news);
    EXPECT_EQ(p.right.attribute(""), nullptr);
    EXPECT_EQ(p.rightAt("trail"), nullptr);
    ASSERT_TRUE(p.rightAt("a/b"));
    EXPECT_EQ(p.rightAt("a/b")->asInt(), 80);
    EXPECT_EQ(p.rightAt("a")->attribute(""), nullptr);
    EXPECT_EQ(p.rightAt("e"), nullptr); // no node of it was made
    ASSERT_TRUE(p.rightAt(deepest));
    EXPECT_EQ(p.rightAt(deepest)->asInt(), 78);
}

TEST(Receivers, TheMasterReadsStaleUpdatesPastAndKeepsReading) {
    Pair p;
    auto* text = new AttributeT<QString>(nullptr, "", "start");
    auto* count = new AttributeT<int>(nullptr, "", 0);
    p.right.addDeepAttribute("t", text);
    p.right.addDeepAttribute("c", count);
    p.start(true);
    const uint32_t t = p.leftSymbol("t"), c = p.leftSymbol("c");
    ASSERT_NE(t, 0u);

    text->set(QStringLiteral("master's"), L2);
    const std::vector<Bundle> sent = p.b->output();
    ASSERT_EQ(sent.size(), 1u);
    const uint32_t sentSequence = sent[0].sequenceNumber();

    // Written before the peer saw "master's": skipped; the count after it still applies.
    p.toRight(UpdateType, Bytes().word(t).str("stale").word(c).word(4), sentSequence - 1);
    EXPECT_EQ(text->value(), "master's");
    EXPECT_EQ(count->value(), 4);
    // Written after: applied.
    p.toRight(UpdateType, Bytes().word(t).str("newer"), sentSequence);
    EXPECT_EQ(text->asString(), "newer");
}

TEST(Receivers, ALocalOnlyAttributeRemovedHereNoLongerTakesThePeersValues) {
    // The peer does not share the rule that keeps obj/secret local here, so it announces
    // and updates its own; removing ours must unbind it from the peer's values.
    Pair p;
    p.right.setSyncFlags(QRegExp(".*/secret"), Dovel::SyncFlags::Local);
    auto* leftSecret = new AttributeT<int>(nullptr, "", 1);
    p.left.addDeepAttribute("obj/secret", leftSecret);
    p.right.addDeepAttribute("obj/secret", new AttributeT<int>(nullptr, "", 2));
    p.start();
    EXPECT_EQ(p.rightAt("obj/secret")->asInt(), 1) << "the peer's announcement carried its value";
    delete p.right.attribute("obj")->attribute("secret");
    Basalt::TraceCapture log;
    leftSecret->set(5, L2);
    pump(*p.a, *p.b);
    EXPECT_EQ(p.rightAt("obj/secret"), nullptr);
    EXPECT_EQ(log.count("Session::input"), 0) << log.dump().toStdString();
}
