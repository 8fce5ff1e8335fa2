// A client's life: retries until a server appears, reconnects after being dropped,
// moves to a new address, and stops promptly wherever it is blocked.
#include "TransportTestUtil.h"

#include "Basalt/Trace.h"

using namespace TransportTest;

TEST(Retry, ClientRetriesUntilServerAppearsAndReconnectsAfterDrop) {
    const int port = unusedPort();
    ASSERT_NE(port, 0);
    auto client = makeTestConnection(nullptr, false);
    client->connectToHost(QStringLiteral("127.0.0.1"), port);
    // The first attempt fails at once; the client then waits for its next try.
    ASSERT_TRUE(waitUntil([&] { return hooks(client).failedCount.load() >= 1; }));
    ASSERT_TRUE(waitUntil([&] { return !hooks(client).retryLefts().isEmpty(); }));
    for (double left : hooks(client).retryLefts()) {
        EXPECT_GE(left, 0.0);
        EXPECT_LE(left, 3.0);
    }

    TestServer server;
    server.run(QStringLiteral("127.0.0.1"), port);
    ASSERT_TRUE(server.waitListening(5000));
    ASSERT_TRUE(waitUntil([&] { return client->isConnected(); }, 8000));
    EXPECT_EQ(hooks(client).connectedCount.load(), 1);

    // The server drops the connection: the client notices and connects again.
    ASSERT_TRUE(waitUntil([&] { return server.first() != nullptr; }));
    server.first()->stop();
    ASSERT_TRUE(waitUntil([&] { return hooks(client).disconnectedCount.load() == 1; }));
    ASSERT_TRUE(waitUntil([&] { return hooks(client).connectedCount.load() == 2; }, 8000));
    EXPECT_TRUE(client->isConnected());
    EXPECT_TRUE(waitUntil([&] { return server.removedTotal() == 1; }));

    client->stop();
    EXPECT_TRUE(client->waitEnd(2000));
}

TEST(Retry, StopEndsABlockedReadPromptly) {
    RawListener listener;
    auto client = makeTestConnection(nullptr, false);
    client->connectToHost(QStringLiteral("127.0.0.1"), listener.port());
    auto peer = listener.accept();
    ASSERT_TRUE(peer);
    // The fake server says nothing: the client waits in line() for the greeting.
    EXPECT_TRUE(peer->quietFor(100));
    const auto start = std::chrono::steady_clock::now();
    client->stop();
    EXPECT_TRUE(client->waitEnd(2000));
    EXPECT_LT(secondsSince(start), 0.5);
    EXPECT_TRUE(peer->waitClosed());

    // The same once connected, blocked in the reading loop.
    auto again = makeTestConnection(nullptr, false);
    again->connectToHost(QStringLiteral("127.0.0.1"), listener.port());
    auto peer2 = listener.accept();
    ASSERT_TRUE(peer2);
    ASSERT_TRUE(serveLogin(*peer2, "Heliotrope 2.6.1", true));
    ASSERT_TRUE(waitUntil([&] { return again->isConnected(); }));
    const auto start2 = std::chrono::steady_clock::now();
    again->stop();
    EXPECT_TRUE(again->waitEnd(2000));
    EXPECT_LT(secondsSince(start2), 0.5);
    EXPECT_EQ(hooks(again).disconnectedCount.load(), 1);
}

TEST(Retry, StopAndConnectToHostEndAConnectThatIsNotAnswered) {
    // A listener whose one-place backlog is taken: the system answers no more
    // connection requests there, as a host behind a dropping firewall would not.
    Basalt::TCPServerSocket silent;
    ASSERT_EQ(silent.open("127.0.0.1", 0, 0), 0);
    Basalt::TCPSocket taken;
    ASSERT_EQ(taken.open("127.0.0.1", silent.port()), 0);

    auto client = makeTestConnection(nullptr, false);
    client->connectToHost(QStringLiteral("127.0.0.1"), silent.port());
    EXPECT_FALSE(waitUntil([&] { return hooks(client).failedCount.load() > 0; }, 300));
    // Moving to a listening address breaks off the attempt.
    RawListener listener;
    auto start = std::chrono::steady_clock::now();
    client->connectToHost(QStringLiteral("127.0.0.1"), listener.port());
    EXPECT_TRUE(listener.accept(5000));
    EXPECT_LT(secondsSince(start), 5.0);

    // And stop() ends an attempt under way.
    auto second = makeTestConnection(nullptr, false);
    second->connectToHost(QStringLiteral("127.0.0.1"), silent.port());
    EXPECT_FALSE(waitUntil([&] { return hooks(second).failedCount.load() > 0; }, 300));
    start = std::chrono::steady_clock::now();
    second->stop();
    EXPECT_TRUE(second->waitEnd(5000));
    EXPECT_LT(secondsSince(start), 5.0);
    client->stop();
}

TEST(Retry, StopAndConnectToHostEndTheRetryWaitPromptly) {
    auto client = makeTestConnection(nullptr, false);
    client->connectToHost(QStringLiteral("127.0.0.1"), unusedPort());
    ASSERT_TRUE(waitUntil([&] { return hooks(client).failedCount.load() == 1; }));

    // Moving to a listening address does not wait out the 3-second pause.
    RawListener listener;
    auto start = std::chrono::steady_clock::now();
    client->connectToHost(QStringLiteral("127.0.0.1"), listener.port());
    auto peer = listener.accept(2000);
    ASSERT_TRUE(peer);
    EXPECT_LT(secondsSince(start), 1.0);
    EXPECT_EQ(client->port(), listener.port());
    {
        // Hanging up refuses the login: the client then waits to retry.
        Basalt::TraceCapture trace;
        peer.reset();
        ASSERT_TRUE(waitUntil([&] { return trace.contains("Handshake failed"); }));
    }
    const int progressCalls = hooks(client).retryLefts().size();
    ASSERT_TRUE(waitUntil([&] { return hooks(client).retryLefts().size() > progressCalls; }));
    start = std::chrono::steady_clock::now();
    client->stop();
    EXPECT_TRUE(client->waitEnd(2000));
    EXPECT_LT(secondsSince(start), 0.5);

    // A stopped client starts again with connectToHost.
    client->connectToHost(QStringLiteral("127.0.0.1"), listener.port());
    auto peer2 = listener.accept(2000);
    ASSERT_TRUE(peer2);
    ASSERT_TRUE(serveLogin(*peer2, "Heliotrope 2.6.1", true));
    EXPECT_TRUE(waitUntil([&] { return client->isConnected(); }));
    client->stop();
    EXPECT_TRUE(client->waitEnd(2000));
}

TEST(Retry, ClientWithoutRetryGivesUpAfterOneAttempt) {
    auto client = makeTestConnection(nullptr, false);
    client->setKeepRetrying(false);
    client->connectToHost(QStringLiteral("127.0.0.1"), unusedPort());
    EXPECT_TRUE(waitUntil([&] { return !client->isRunning(); }));
    EXPECT_EQ(hooks(client).failedCount.load(), 1);
}
