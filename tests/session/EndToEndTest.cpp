// A server and a client over loopback TCP, each side with its own RemoteNode and its own
// tree thread: changes, additions and removals both ways, and an observer that reconnects
// across a server restart and resyncs to the new server tree.
#include "SessionHarness.h"
#include "transport/TransportTestUtil.h"

#include <gtest/gtest.h>

#include <tuple>

using namespace SessionHarness;
using Dovel::SessionClient;
using Dovel::SessionServer;
using Tessel::AttributeT;

namespace {

// A server tree with a few float values under "scene".
void addScene(Side& side, int count) {
    side.run([&] {
        for (int i = 0; i < count; ++i) {
            auto* a = new AttributeT<float>();
            a->setValue(float(i) + 0.5f, L2);
            side.node.addDeepAttribute("scene/v" + QByteArray::number(i), a);
        }
    });
}

} // namespace

TEST(EndToEnd, ChangesAdditionsAndRemovalsTravelBothWays) {
    Side master("master");
    Side mirror("mirror");
    addScene(master, 3);
    SessionServer server(master.node, &master.driver);
    ASSERT_TRUE(server.listen(0, "127.0.0.1"));
    SessionClient client(mirror.node, &mirror.driver);
    client.connectToHost("127.0.0.1", server.port());
    ASSERT_TRUE(waitSame(master, mirror));

    setFloat(master, "scene/v1", 42.0f);
    EXPECT_TRUE(waitUntil([&] { return floatAt(mirror, "scene/v1") == 42.0f; }));
    setFloat(mirror, "scene/v2", -7.0f);
    EXPECT_TRUE(waitUntil([&] { return floatAt(master, "scene/v2") == -7.0f; }));

    // Added on the server, then on the client.
    master.run([&] {
        master.node.addDeepAttribute("extra/fromServer",
                                     new AttributeT<QString>(nullptr, "", "from server"));
    });
    ASSERT_TRUE(waitUntil([&] { return hasPath(mirror, "extra/fromServer"); }));
    mirror.run([&] {
        mirror.node.addDeepAttribute("extra/fromClient", new AttributeT<int32_t>(nullptr, "", 17));
    });
    ASSERT_TRUE(waitUntil([&] { return hasPath(master, "extra/fromClient"); }));
    ASSERT_TRUE(waitSame(master, mirror));

    // Each side removes what it added; the peer's copy goes too.
    const auto removeAndWait = [&](Side& side, Side& peer, const QByteArray& path) {
        side.run([&] { delete at(side.node, path); });
        EXPECT_TRUE(waitUntil([&] { return !hasPath(peer, path); }));
    };
    removeAndWait(master, mirror, "extra/fromServer");
    removeAndWait(mirror, master, "extra/fromClient");
    EXPECT_TRUE(waitSame(master, mirror));
}

TEST(EndToEnd, AnObserverNeverWritesAndEachSessionMakesItTheServersCopy) {
    Side master("master");
    Side observer("observer");
    addScene(master, 4);
    master.run([&] { master.node.addDeepAttribute("group/x", new AttributeT<float>()); });
    // Kept apart on each side ("id" attributes are not shared): the observer's survives
    // every new session.
    for (Side* side : {&master, &observer})
        side->run([&] {
            side->node.addDeepAttribute("scene/id", new AttributeT<int32_t>(nullptr, "", 7));
        });
    auto server = std::make_unique<SessionServer>(master.node, &master.driver);
    ASSERT_TRUE(server->listen(0, "127.0.0.1"));
    const int port = server->port();
    SessionClient::Options options;
    options.mirrorOnly = true;
    SessionClient client(observer.node, &observer.driver, options);
    client.connectToHost("127.0.0.1", port);
    ASSERT_TRUE(waitSame(master, observer));

    // What changes on the observer's side stays there: it sends nothing after the
    // handshake. (The server's next change arriving shows its output passes have run.)
    const uint64_t sentBefore = client.stats().bundlesSent.load();
    setFloat(observer, "scene/v0", -1.0f);
    observer.run([&] {
        auto* a = new AttributeT<float>();
        a->setValue(7.0f, L2);
        observer.node.addDeepAttribute("scene/mine", a);
    });
    setFloat(master, "scene/v3", 30.0f);
    ASSERT_TRUE(waitUntil([&] { return floatAt(observer, "scene/v3") == 30.0f; }));
    EXPECT_EQ(floatAt(master, "scene/v0"), 0.5f);
    EXPECT_EQ(client.stats().bundlesSent.load(), sentBefore);

    // A new server tree: a value gone, one of another type, a value where a node was and
    // a node where a value was. The observer's copy becomes it, its own addition goes,
    // and the server gets nothing back.
    server.reset();
    TransportTest::HeldPort held(port, true); // ours until the next server takes it
    ASSERT_EQ(held.port(), port);
    EXPECT_TRUE(waitUntil([&] { return !client.isConnected(); }));
    master.run([&] {
        Tessel::Node* scene = Tessel::asNode(master.node.attribute("scene"));
        ASSERT_TRUE(scene);
        scene->deleteAttribute(scene->attribute("v1"));
        scene->deleteAttribute(scene->attribute("v2"));
        scene->deleteAttribute(scene->attribute("v3"));
        new AttributeT<QString>(scene, "v2", QStringLiteral("text"));
        auto* inner = new Tessel::Node(scene, "v3");
        new AttributeT<float>(inner, "deep", 3.5f);
        master.node.deleteAttribute(master.node.attribute("group"));
        new AttributeT<float>(&master.node, "group", 1.5f);
    });
    server = std::make_unique<SessionServer>(master.node, &master.driver);
    ASSERT_TRUE(server->listen(port, "127.0.0.1"));
    ASSERT_TRUE(waitUntil([&] { return client.stats().sessionsStarted.load() == 2; }, 15000));
    ASSERT_TRUE(waitUntil([&] { return client.stats().batchesApplied.load() >= 2; }));
    ASSERT_TRUE(waitSame(master, observer));
    EXPECT_EQ(attributeCount(master), 5);
}
