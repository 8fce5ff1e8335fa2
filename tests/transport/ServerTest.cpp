// The listening server: starting, refusing, retiring ended connections once, closing
// connections only when stopped, joining what is left on destruction, and stopping
// while it waits to listen again.
#include "TransportTestUtil.h"

#include "Basalt/BGThread.h"

using namespace TransportTest;

TEST(Server, RunTwiceChangesNothingAndARefusingFactoryLeavesNoInstances) {
    TestServer server;
    ASSERT_TRUE(server.runOnLoopback());
    const int port = server.port();
    ASSERT_NE(port, 0);
    server.run(QStringLiteral("127.0.0.2"), unusedPort());
    EXPECT_EQ(server.port(), port);
    EXPECT_EQ(server.host(), QStringLiteral("127.0.0.1"));
    auto peer = RawPeer::connect(port);
    ASSERT_TRUE(peer);
    EXPECT_EQ(clientLogin(*peer), QByteArray("ok"));

    server.refuse = true;
    for (int i = 0; i < 3; ++i) {
        auto refused = RawPeer::connect(port);
        ASSERT_TRUE(refused);
        EXPECT_TRUE(refused->waitClosed()); // the refused socket is closed at once
    }
    EXPECT_EQ(server.instances().size(), 1);
    EXPECT_EQ(server.removedTotal(), 0);
}

TEST(Server, EndedConnectionIsRetiredExactlyOnce) {
    TestServer server;
    ASSERT_TRUE(server.runOnLoopback());
    auto client = makeTestConnection(nullptr, false);
    client->connectToHost(QStringLiteral("127.0.0.1"), server.port());
    ASSERT_TRUE(waitUntil([&] { return server.first() && server.first()->isConnected(); }));
    std::shared_ptr<TestConnection> accepted = server.first();
    const Dovel::ConnectionThread* key = accepted.get();
    const std::weak_ptr<TestConnection> watch = accepted;
    accepted.reset();

    client->stop();
    ASSERT_TRUE(waitUntil([&] { return server.removedCount(key) == 1; }));
    EXPECT_TRUE(server.instances().isEmpty());
    ASSERT_TRUE(Basalt::BGThread::instance()->waitIdle(2000));
    EXPECT_EQ(server.removedCount(key), 1);
    EXPECT_EQ(server.connectedCount(key), 1);
    EXPECT_EQ(server.disconnectedCount(key), 1);
    // Nothing else holds it: the server's listeners do not keep a connection alive.
    EXPECT_TRUE(watch.expired());
}

TEST(Server, CloseConnectionsActsOnlyOnAStoppedServer) {
    TestServer server;
    ASSERT_TRUE(server.runOnLoopback());
    auto client = makeTestConnection(nullptr, false);
    client->connectToHost(QStringLiteral("127.0.0.1"), server.port());
    ASSERT_TRUE(waitUntil([&] { return server.first() && server.first()->isConnected(); }));
    const std::shared_ptr<TestConnection> accepted = server.first();

    server.closeConnections(); // running: nothing happens
    EXPECT_EQ(server.instances().size(), 1);
    client->queue(QStringLiteral("still here\n"));
    ASSERT_TRUE(waitUntil([&] { return hooks(accepted).lines() == QStringList{"still here"}; }));

    // Stopped without closing: no more listening, but the connection lives on.
    server.stop(false);
    ASSERT_TRUE(server.waitEnd(2000));
    EXPECT_FALSE(server.isListening());
    EXPECT_FALSE(RawPeer::connect(server.port()));
    client->queue(QStringLiteral("and here\n"));
    ASSERT_TRUE(waitUntil([&] { return hooks(accepted).lines().size() == 2; }));

    server.closeConnections();
    EXPECT_TRUE(server.instances().isEmpty());
    EXPECT_FALSE(accepted->isRunning());
    EXPECT_TRUE(waitUntil([&] { return hooks(client).disconnectedCount.load() == 1; }));
    client->stop();
}

TEST(Server, DestructorStopsAndJoinsLiveConnections) {
    auto server = std::make_unique<TestServer>();
    ASSERT_TRUE(server->runOnLoopback());
    auto first = makeTestConnection(nullptr, false);
    auto second = makeTestConnection(nullptr, false);
    first->setKeepRetrying(false);
    second->setKeepRetrying(false);
    first->connectToHost(QStringLiteral("127.0.0.1"), server->port());
    second->connectToHost(QStringLiteral("127.0.0.1"), server->port());
    ASSERT_TRUE(waitUntil([&] { return first->isConnected() && second->isConnected(); }));
    ASSERT_TRUE(waitUntil([&] { return server->instances().size() == 2; }));
    const auto accepted = server->instances();

    server.reset();
    for (const auto& c : accepted)
        EXPECT_FALSE(c->isRunning());
    EXPECT_TRUE(waitUntil([&] { return !first->isRunning() && !second->isRunning(); }));
    EXPECT_EQ(hooks(first).disconnectedCount.load(), 1);
    EXPECT_EQ(hooks(second).disconnectedCount.load(), 1);
}

TEST(Server, StopEndsTheListeningRetryPause) {
    RawListener occupant; // the port is taken: listening fails and waits to retry
    TestServer server;
    server.run(QStringLiteral("127.0.0.1"), occupant.port());
    EXPECT_FALSE(server.waitListening(20000)); // returns once an attempt has failed
    server.stop(true);
    EXPECT_TRUE(server.waitEnd(2500)); // half the pause between listening attempts
}
