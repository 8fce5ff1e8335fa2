// A client's life: retries until a server appears, reconnects after being dropped, and
// stops wherever it is blocked well before what it waits on would end by itself: within
// the retry pause where the time-out is a minute, within half of it where the client
// waits out the pause.
#include "TransportTestUtil.h"

#include "Dovel/transport/ReconnectPolicy.h"

using namespace TransportTest;

namespace {

constexpr int Pause = int(Dovel::ReconnectPolicy::RetrySeconds * 1000);
constexpr int HalfPause = Pause / 2;

} // namespace

TEST(Retry, ClientRetriesUntilServerAppearsAndReconnectsAfterDrop) {
    HeldPort reserved(0, true); // refuses until the server listens beside it
    const int port = reserved.port();
    ASSERT_NE(port, 0);
    auto client = makeTestConnection(nullptr, false);
    client->connectToHost(QStringLiteral("127.0.0.1"), port);
    // The first attempt fails at once; the client then waits for its next try.
    ASSERT_TRUE(waitUntil([&] { return hooks(client).failedCount.load() >= 1; }));
    ASSERT_TRUE(waitUntil([&] { return hooks(client).retryPauses.load() > 0; }));

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
    EXPECT_TRUE(waitUntil([&] { return server.removedTotal.load() == 1; }));
    client->stop();
    EXPECT_TRUE(client->waitEnd(Pause));

    // Without retrying, one failed attempt ends the client.
    auto once = makeTestConnection(nullptr, false);
    once->setKeepRetrying(false);
    const HeldPort nobody;
    once->connectToHost(QStringLiteral("127.0.0.1"), nobody.port());
    EXPECT_TRUE(waitUntil([&] { return !once->isRunning(); }));
    EXPECT_EQ(hooks(once).failedCount.load(), 1);
}

TEST(Retry, StopEndsABlockedReadConnectOrRetryPause) {
    RawListener listener;
    // A listener whose one-place backlog is taken (Linux queues one more than the
    // backlog): where the system drops further connection requests the client waits in
    // connect, where it refuses them in the retry pause; stop ends either.
    Basalt::TCPServerSocket full;
    ASSERT_EQ(full.open("127.0.0.1", 0, 0), 0);
    Basalt::TCPSocket taken[2];
    for (Basalt::TCPSocket& socket : taken)
        ASSERT_EQ(socket.open("127.0.0.1", full.port()), 0);
    const HeldPort nobody;
    ASSERT_NE(nobody.port(), 0);
    enum Where { Greeting, ReadingLoop, Connect, RetryPause };
    for (Where where : {Greeting, ReadingLoop, Connect, RetryPause}) {
        SCOPED_TRACE(where);
        auto client = makeTestConnection(nullptr, false);
        client->setTimeoutSeconds(60.0);
        std::unique_ptr<RawPeer> peer;
        if (where == Greeting || where == ReadingLoop) {
            client->connectToHost(QStringLiteral("127.0.0.1"), listener.port());
            peer = listener.accept();
            ASSERT_TRUE(peer); // the fake server says nothing: the client waits to be greeted
            if (where == ReadingLoop) {
                ASSERT_TRUE(serveLogin(*peer, "Heliotrope 2.6.1", true));
                ASSERT_TRUE(waitUntil([&] { return client->isConnected(); }));
            }
        } else if (where == Connect) {
            client->connectToHost(QStringLiteral("127.0.0.1"), full.port());
        } else {
            client->connectToHost(QStringLiteral("127.0.0.1"), nobody.port());
            ASSERT_TRUE(waitUntil([&] { return hooks(client).retryPauses.load() > 0; }));
        }
        client->stop();
        EXPECT_TRUE(client->waitEnd(where == RetryPause ? HalfPause : Pause));
        EXPECT_EQ(hooks(client).disconnectedCount.load(), where == ReadingLoop ? 1 : 0);
        if (peer) {
            EXPECT_TRUE(peer->waitClosed());
        }
    }
}
