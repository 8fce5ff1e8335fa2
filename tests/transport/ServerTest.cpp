// The listening server's lifetime rules: an ended connection retired once and not kept
// alive, live ones joined on destruction, and a stop that ends the wait to listen again.
#include "TransportTestUtil.h"

#include "Basalt/BGThread.h"

using namespace TransportTest;

TEST(Server, EndedConnectionIsRetiredExactlyOnce) {
    TestServer server;
    ASSERT_TRUE(server.runOnLoopback());
    auto client = makeTestConnection(nullptr, false);
    client->connectToHost(QStringLiteral("127.0.0.1"), server.port());
    ASSERT_TRUE(waitUntil([&] { return server.first() && server.first()->isConnected(); }));
    std::shared_ptr<TestConnection> accepted = server.first();
    const std::weak_ptr<TestConnection> watch = accepted;
    accepted.reset();

    client->stop();
    ASSERT_TRUE(waitUntil([&] { return server.removedTotal.load() == 1; }));
    EXPECT_TRUE(server.instances().isEmpty());
    ASSERT_TRUE(Basalt::BGThread::instance()->waitIdle(30000));
    EXPECT_EQ(server.removedTotal.load(), 1);
    EXPECT_EQ(server.connectedTotal.load(), 1);
    EXPECT_EQ(server.disconnectedTotal.load(), 1);
    // Nothing else holds it: the server's listeners do not keep a connection alive.
    EXPECT_TRUE(watch.expired());
}

TEST(Server, DestructorStopsAndJoinsLiveConnections) {
    auto server = std::make_unique<TestServer>();
    ASSERT_TRUE(server->runOnLoopback());
    auto client = makeTestConnection(nullptr, false);
    client->setKeepRetrying(false);
    client->connectToHost(QStringLiteral("127.0.0.1"), server->port());
    ASSERT_TRUE(waitUntil([&] { return client->isConnected() && server->first(); }));
    const auto accepted = server->first();

    server.reset();
    EXPECT_FALSE(accepted->isRunning());
    EXPECT_TRUE(waitUntil([&] { return !client->isRunning(); }));
    EXPECT_EQ(hooks(client).disconnectedCount.load(), 1);
}

TEST(Server, StopEndsTheListeningRetryPause) {
    RawListener occupant; // the port is taken: listening fails and waits to retry
    TestServer server;
    server.run(QStringLiteral("127.0.0.1"), occupant.port());
    EXPECT_FALSE(server.waitListening(20000)); // returns once an attempt has failed
    server.stop(true);
    EXPECT_TRUE(server.waitEnd(2500)); // half the pause between listening attempts
}
