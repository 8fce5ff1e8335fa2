// The greeting, version and login exchange, between real ends and against peers that
// write the protocol bytes by hand.
#include "TransportTestUtil.h"

using namespace TransportTest;

TEST(Handshake, ClientAndServerExchangeLinesAfterLogin) {
    TestServer server;
    ASSERT_TRUE(server.runOnLoopback());
    auto client = makeTestConnection(nullptr, false);
    // Queued before any connection: kept and sent, in order, after the handshake.
    client->queue(QStringLiteral("first\n"));
    client->queue(QStringLiteral("second\n"));
    client->connectToHost(QStringLiteral("127.0.0.1"), server.port());

    ASSERT_TRUE(waitUntil([&] { return client->isConnected() && server.first(); }));
    const std::shared_ptr<TestConnection> accepted = server.first();
    ASSERT_TRUE(waitUntil([&] { return hooks(accepted).lines().size() == 2; }));
    EXPECT_EQ(hooks(accepted).lines(), (QStringList{"first", "second"}));

    accepted->queue(QStringLiteral("reply\n"));
    ASSERT_TRUE(waitUntil([&] { return hooks(client).lines().size() == 1; }));
    EXPECT_EQ(hooks(client).lines(), QStringList{"reply"});

    // Both ends announced 2.6.1; both pinged "initialized" and got the pong.
    EXPECT_TRUE(client->isDovel15Supported());
    // The pong is recorded just after ping counts as supported: wait for both.
    ASSERT_TRUE(waitUntil([&] {
        return client->isPingSupported() && accepted->isPingSupported() &&
               hooks(client).pongs().size() == 1 && hooks(accepted).pongs().size() == 1;
    }));
    EXPECT_EQ(hooks(client).pongs(), QList<QByteArray>{"initialized"});
    EXPECT_EQ(hooks(accepted).pongs(), QList<QByteArray>{"initialized"});
    client->stop();
    ASSERT_TRUE(client->waitEnd(30000));
    EXPECT_EQ(hooks(client).disconnectedCount.load(), 1);
}

TEST(Handshake, ClientSendsVersionLineOnlyToServersFrom191AndRefusesMajor3) {
    const struct {
        QByteArray greeting;
        bool versionLine;
        QString remote; // empty: the client hangs up without a word
    } cases[] = {
        {"Heliotrope 1.9.0", false, "1.9.0"},
        {"Heliotrope 1.9.1-beta", true, "1.9.1-beta"},
        {"Heliotrope 2.0.4-pellux", true, "2.0.4-pellux"},
        {"Heliotrope 3.0.0", false, ""},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.greeting.constData());
        RawListener listener;
        auto client = makeTestConnection(nullptr, false);
        client->connectToHost(QStringLiteral("127.0.0.1"), listener.port());
        auto peer = listener.accept();
        ASSERT_TRUE(peer);
        if (c.remote.isEmpty()) {
            peer->send(c.greeting + "\n" + fixedChallenge());
            EXPECT_TRUE(peer->waitClosed());
            EXPECT_EQ(peer->unread(), QByteArray());
            EXPECT_EQ(hooks(client).connectedCount.load(), 0);
        } else {
            ASSERT_TRUE(serveLogin(*peer, c.greeting, c.versionLine));
            ASSERT_TRUE(waitUntil([&] { return client->isConnected(); }));
            EXPECT_EQ(client->remoteVersion(), c.remote);
            EXPECT_EQ(peer->readLine(), QByteArray("ping initialized"));
        }
        client->stop();
        EXPECT_TRUE(client->waitEnd(30000));
    }
}

TEST(Handshake, ServerLogsInOldAndCurrentClientsAndAnswersWrongLogins) {
    TestServer server;
    ASSERT_TRUE(server.runOnLoopback());

    struct Case {
        const char* what;
        QByteArray versionLine;
        QByteArray user;
        QByteArray key;
        QString remote; // empty: refused
    };
    const Case cases[] = {
        // "pavro" straight after the challenge: a client of 1.9.0 that sends no version.
        {"client of 1.9.0", "", "pavro", "Dovel2Sync", "1.9.0"},
        {"wrong key", "Heliotrope 2.6.1", "pavro", "Dovel2Syng", ""},
        {"wrong user", "Heliotrope 2.6.1", "admin", "Dovel2Sync", ""},
        {"not a greeting", "Hello there", "pavro", "Dovel2Sync", ""},
        {"major version 3", "Heliotrope 3.1.0", "pavro", "Dovel2Sync", ""},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        auto peer = RawPeer::connect(server.port());
        ASSERT_TRUE(peer);
        const QByteArray answer = clientLogin(*peer, c.versionLine, c.user, c.key);
        if (c.remote.isEmpty()) {
            EXPECT_EQ(answer, QByteArray("Wrong username or password"));
            EXPECT_TRUE(peer->waitClosed());
            continue;
        }
        EXPECT_EQ(answer, QByteArray("ok"));
        ASSERT_TRUE(waitUntil([&] { return server.first() && server.first()->isConnected(); }));
        EXPECT_EQ(server.first()->remoteVersion(), c.remote);
        EXPECT_EQ(server.first()->loginUserName(), QStringLiteral("pavro"));
        EXPECT_FALSE(server.first()->isDovel15Supported());
        EXPECT_EQ(peer->readLine(), QByteArray("ping initialized"));
        peer.reset();
        ASSERT_TRUE(waitUntil([&] { return server.removedTotal.load() == 1; }));
    }
    // Connections that never connected are retired all the same.
    EXPECT_TRUE(waitUntil([&] { return server.removedTotal.load() == 5; }));
    EXPECT_TRUE(server.instances().isEmpty());
}
