// NodeWatcher: event streams of a watched tree, deferred additions, removals, and
// listeners that change the tree or the listener table while they are called.
#include "SessionHarness.h"

#include "Dovel/sync/AttributeCache.h"
#include "Dovel/sync/NodeWatcher.h"

#include "Basalt/SymbolRegistry.h"
#include "Tessel/AttributeAlias.h"
#include "Tessel/AttributeT.h"
#include "Tessel/Node.h"

#include <gtest/gtest.h>

#include <algorithm>

using namespace SessionHarness;
using Dovel::AttributeCache;
using Tessel::AttributeT;
using Tessel::Node;

namespace {

// A root with a watcher on it; the watcher goes before the tree.
struct Watched {
    Node root;
    Basalt::SymbolRegistry registry;
    AttributeCache cache;
    NodeWatcher watcher{registry, cache};
    Recorder recorder;

    Watched() { watcher.addListener(recorder.callback()); }
    unsigned int sym(const char* path) { return registry.lookup(QByteArray(path)); }
};

} // namespace

TEST(NodeWatcher, StartsInPreOrder) {
    Watched w;
    auto* a = new Node(&w.root, "a");
    auto* b = new AttributeT<float>(a, "b");
    new AttributeT<float>(&w.root, "c");

    w.watcher.startWatching(w.root, true);
    const std::vector<Event> expected = {
        ev(NodeWatcher::NodeAdded, w.sym("")), ev(NodeWatcher::NodeAdded, w.sym("a")),
        ev(NodeWatcher::AttributeAdded, w.sym("a/b")), ev(NodeWatcher::AttributeAdded, w.sym("c"))};
    EXPECT_EQ(w.recorder.take(), expected);
    EXPECT_EQ(w.cache.find(w.sym("a/b")), b);
    EXPECT_TRUE(w.cache.isNode(w.sym("a")));
}

TEST(NodeWatcher, DefersAdditionsUntilUpdateOrFirstChange) {
    Watched w;
    w.watcher.startWatching(w.root, false);
    EXPECT_TRUE(w.recorder.take().empty()); // notify false: silent start

    new AttributeT<float>(&w.root, "c");
    EXPECT_TRUE(w.recorder.events.empty());
    EXPECT_TRUE(w.watcher.isPendingUpdate(w.sym("c")));
    w.watcher.update();
    EXPECT_EQ(w.recorder.take(), std::vector<Event>{ev(NodeWatcher::AttributeAdded, w.sym("c"))});
    EXPECT_FALSE(w.watcher.isPendingUpdate(w.sym("c")));

    // A change before update reports the addition first, then the change, once.
    auto* d = new AttributeT<float>(&w.root, "d");
    d->setValue(1.0f, L3);
    const std::vector<Event> addedThenChanged = {ev(NodeWatcher::AttributeAdded, w.sym("d")),
                                                 ev(NodeWatcher::AttributeChanged, w.sym("d"))};
    EXPECT_EQ(w.recorder.take(), addedThenChanged);
    w.watcher.update();
    EXPECT_TRUE(w.recorder.take().empty());
    d->setValue(2.0f, L3); // the temporary listener is gone: one event, not two
    EXPECT_EQ(w.recorder.take(), std::vector<Event>{ev(NodeWatcher::AttributeChanged, w.sym("d"))});
}

TEST(NodeWatcher, AddCompleteWatchesAtOnceAndKeepsTheOrderOfWhatWasQueued) {
    Watched w;
    w.watcher.startWatching(w.root, false);
    // Watched from inside its addition, like any other: a listener registered after the
    // watcher's already sees the report.
    auto* n = new Node();
    ASSERT_TRUE(w.watcher.addComplete(w.root, "n", n));
    w.recorder.take();
    auto* a = new AttributeT<float>();
    std::vector<Event> seenInside;
    const long probe = n->eventAddListenerBd(
        "attribute-added", [&](Basalt::BinaryData&) { seenInside = w.recorder.events; },
        Node::Direct);
    ASSERT_TRUE(w.watcher.addComplete(*n, "a", a));
    n->eventRemoveListener(probe);
    EXPECT_EQ(seenInside, std::vector<Event>{ev(NodeWatcher::AttributeAdded, w.sym("n/a"))});
    EXPECT_EQ(w.recorder.take(), seenInside);
    EXPECT_EQ(w.cache.find(w.sym("n/a")), a);
    EXPECT_EQ(w.watcher.pendingCount(), 0);
    a->setValue(1.0f, L3);
    EXPECT_EQ(w.recorder.take(),
              std::vector<Event>{ev(NodeWatcher::AttributeChanged, w.sym("n/a"))});

    // An addition still queued is reported first.
    new AttributeT<float>(n, "b");
    auto* c = new AttributeT<float>();
    ASSERT_TRUE(w.watcher.addComplete(*n, "c", c));
    const std::vector<Event> bThenC = {ev(NodeWatcher::AttributeAdded, w.sym("n/b")),
                                       ev(NodeWatcher::AttributeAdded, w.sym("n/c"))};
    EXPECT_EQ(w.recorder.take(), bThenC);
    c->setValue(2.0f, L3); // one listener on it: one report
    EXPECT_EQ(w.recorder.take(),
              std::vector<Event>{ev(NodeWatcher::AttributeChanged, w.sym("n/c"))});

    // Under a parent still queued, the update that ends the call reports the attribute,
    // and a listener may delete it there: the call answers 0 without touching it.
    auto* queued = new Node(&w.root, "queued");
    const long drop = w.watcher.addListener([&](const Event& event) {
        if (event.type == NodeWatcher::AttributeAdded && event.symbol == w.sym("queued/x"))
            delete queued->attribute("x");
    });
    unsigned int watchedAs = 1;
    EXPECT_TRUE(
        w.watcher.addComplete(*queued, "x", new AttributeT<float>(), "queued/x", 0, &watchedAs));
    EXPECT_EQ(watchedAs, 0u);
    EXPECT_EQ(queued->attribute("x"), nullptr);
    w.watcher.removeListener(drop);

    // The path may view bytes that last only for the call: an alias keeps a copy, the
    // path its target's subtree is watched at when it comes.
    QByteArray bytes("link");
    QByteArray view;
    view.setRawData(bytes.constData(), uint(bytes.size()));
    auto* link = new Tessel::AttributeAlias();
    ASSERT_TRUE(w.watcher.addComplete(w.root, "link", link, view));
    view.clear();
    bytes.fill('#');
    auto* sub = new Node(new Node(&w.root, "real"), "sub");
    w.watcher.update();
    link->setTarget(sub->host());
    w.recorder.take();
    new AttributeT<float>(sub, "z");
    w.watcher.update();
    const std::vector<Event> added = w.recorder.take();
    EXPECT_NE(
        std::find(added.begin(), added.end(), ev(NodeWatcher::AttributeAdded, w.sym("link/sub/z"))),
        added.end());
    EXPECT_EQ(w.sym("####/sub/z"), 0u);

    // So does the registry, which names what a watcher whose root another one observes
    // hears of through the root's event.
    Node* inner = new Node(&w.root, "inner");
    w.watcher.update();
    Basalt::SymbolRegistry innerRegistry;
    AttributeCache innerCache;
    NodeWatcher innerWatcher{innerRegistry, innerCache};
    innerWatcher.startWatching(*inner, false);
    QByteArray nBytes("n");
    view.setRawData(nBytes.constData(), uint(nBytes.size()));
    watchedAs = 0;
    ASSERT_TRUE(innerWatcher.addComplete(*inner, "n", new Node(), view, 0, &watchedAs));
    view.clear();
    nBytes.fill('#');
    EXPECT_EQ(innerRegistry.lookup(watchedAs), QByteArray("n"));
    EXPECT_EQ(innerRegistry.lookup(QByteArray("n")), watchedAs);
}

TEST(NodeWatcher, AListenerMayDeleteWhatItIsToldWasAdded) {
    Watched w;
    w.watcher.startWatching(w.root, false);
    // Deletes whatever is reported added under "doomed".
    w.watcher.addListener([&w](const Event& event) {
        if (event.type != NodeWatcher::AttributeAdded && event.type != NodeWatcher::NodeAdded)
            return;
        Tessel::Attribute* doomed = w.root.attribute("doomed");
        if (doomed && event.symbol == w.sym("doomed"))
            delete doomed;
    });

    // Reported by update(): a node with a child, which goes along.
    auto* node = new Node(&w.root, "doomed");
    new AttributeT<float>(node, "x");
    w.watcher.update();
    EXPECT_EQ(w.root.attribute("doomed"), nullptr);
    EXPECT_EQ(w.watcher.pendingCount(), 0);

    // Reported by its first change, before any update.
    auto* value = new AttributeT<float>(&w.root, "doomed");
    value->setValue(1.0f, L3);
    EXPECT_EQ(w.root.attribute("doomed"), nullptr);
    EXPECT_EQ(w.watcher.pendingCount(), 0);
    w.watcher.update();

    const std::vector<Event> seen = w.recorder.take();
    EXPECT_EQ(std::count(seen.begin(), seen.end(), ev(NodeWatcher::NodeAdded, w.sym("doomed"))), 1);
    EXPECT_EQ(
        std::count(seen.begin(), seen.end(), ev(NodeWatcher::AttributeAdded, w.sym("doomed"))), 1);
}

TEST(NodeWatcher, AddedThenRemovedBeforeUpdateIsABalancedPair) {
    Watched w;
    w.watcher.startWatching(w.root, false);
    auto* e = new AttributeT<float>(&w.root, "e");
    const unsigned int symbol = w.sym("e");
    delete e;
    const std::vector<Event> pair = {ev(NodeWatcher::AttributeAdded, symbol),
                                     ev(NodeWatcher::AttributeRemoved, symbol)};
    EXPECT_EQ(w.recorder.take(), pair);
    EXPECT_EQ(w.watcher.pendingCount(), 0);
    w.watcher.update();
    EXPECT_TRUE(w.recorder.events.empty());
    EXPECT_EQ(w.cache.find(symbol), nullptr);

    // The same for a node, taken out (not deleted) before update.
    auto* n = new Node(&w.root, "n");
    new AttributeT<int>(n, "x");
    ASSERT_TRUE(w.root.removeAttribute(n));
    const std::vector<Event> nodePair = {ev(NodeWatcher::NodeAdded, w.sym("n")),
                                         ev(NodeWatcher::NodeRemoved, w.sym("n"))};
    EXPECT_EQ(w.recorder.take(), nodePair);
    delete n;
    w.watcher.update();
    EXPECT_TRUE(w.recorder.events.empty());
}

TEST(NodeWatcher, RemovesSubtreesInPostOrderAndEmptiesTheCache) {
    Watched w;
    auto* n = new Node(&w.root, "n");
    new AttributeT<float>(n, "x");
    auto* m = new Node(n, "m");
    auto* y = new AttributeT<float>(m, "y");
    w.watcher.startWatching(w.root, true);
    w.recorder.take();
    const unsigned int sn = w.sym("n"), sx = w.sym("n/x"), sm = w.sym("n/m"), sy = w.sym("n/m/y");

    delete n;
    const std::vector<Event> expected = {
        ev(NodeWatcher::AttributeRemoved, sx), ev(NodeWatcher::AttributeRemoved, sy),
        ev(NodeWatcher::NodeRemoved, sm), ev(NodeWatcher::NodeRemoved, sn)};
    EXPECT_EQ(w.recorder.take(), expected);
    for (unsigned int s : {sn, sx, sm, sy}) {
        EXPECT_EQ(w.cache.find(s), nullptr) << s;
        EXPECT_FALSE(w.cache.isNode(s)) << s;
    }
    EXPECT_EQ(w.cache.size(), 1); // the root alone
    (void)y;
}

TEST(NodeWatcher, ListenersMayChangeTheTableWhileCalled) {
    Watched w;
    auto* a = new AttributeT<float>(&w.root, "a");
    w.watcher.startWatching(w.root, false);
    int second = 0;
    long self = -1;
    self = w.watcher.addListener([&](const Event&) {
        w.watcher.removeListener(self);
        w.watcher.addListener([&](const Event&) { ++second; });
    });
    a->setValue(1.0f, L3);
    EXPECT_EQ(second, 0); // added during the emission: first called by the next one
    a->setValue(2.0f, L3);
    EXPECT_EQ(second, 1);
    EXPECT_EQ(w.recorder.events.size(), 2u);
}
