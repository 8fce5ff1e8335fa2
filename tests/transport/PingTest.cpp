// Keep-alive: ping lines answered at once with the same payload, pong bookkeeping, the
// features a peer's version enables, and a silent peer dropped after the time-out.
#include "TransportTestUtil.h"

#include "Basalt/TimeStamp.h"

#include <QFile>

using namespace TransportTest;

TEST(Ping, AnsweredWithPongCarryingTheSameBytes) {
    LoggedIn link;
    ASSERT_TRUE(link.start());
    RawPeer* peer = link.peer.get();
    const std::shared_ptr<TestConnection> accepted = link.accepted;
    EXPECT_FALSE(accepted->isPingSupported()); // the peer has not answered yet

    peer->send("ping\n");
    EXPECT_EQ(peer->readLine(), QByteArray("pong"));
    // Not even valid UTF-8: echoed byte for byte.
    const QByteArray raw("\xff\xfe\x01\x7f raw \x80", 11);
    peer->send("ping " + raw + "\n");
    EXPECT_EQ(peer->readLine().toHex(), ("pong " + raw).toHex());

    // Near misses are ordinary lines.
    peer->send("pingx\nping \n");
    peer->send("pong initialized\npong\n");
    ASSERT_TRUE(waitUntil([&] { return hooks(accepted).pongs().size() == 2; }));
    EXPECT_EQ(hooks(accepted).pongs(), (QList<QByteArray>{"initialized", ""}));
    EXPECT_TRUE(accepted->isPingSupported());
    EXPECT_EQ(hooks(accepted).lines(), (QStringList{"pingx", "ping "}));
}

TEST(Ping, APeerThatPingsWithoutReadingIsHeldBackAndAnsweredInOrder) {
    // More than the loopback sockets can hold on both sides, from the system's ceilings.
    const auto ceiling = [](const char* file) {
        QFile f(file);
        const QList<QByteArray> values =
            f.open(QIODevice::ReadOnly) ? f.readAll().simplified().split(' ') : QList<QByteArray>();
        return values.size() == 3 ? values[2].toInt() : (8 << 20);
    };
    const int beyond =
        ceiling("/proc/sys/net/ipv4/tcp_rmem") + ceiling("/proc/sys/net/ipv4/tcp_wmem") + (8 << 20);
    LoggedIn link;
    ASSERT_TRUE(link.start());
    // The writer stays inside this item while the peer reads nothing.
    link.accepted->writeBufferData(QByteArray(beyond, 'x'), "big");

    // Pings meanwhile: their answers wait for the writer only up to a limit; then the
    // connection reads no more, and TCP holds the peer back.
    QByteArray pings;
    QList<QByteArray> payloads;
    while (pings.size() < beyond) {
        payloads.append(QByteArray::number(payloads.size()).leftJustified(1000, '.'));
        pings += "ping " + payloads.back() + '\n';
    }
    const int sent = link.peer->sendUntilStalled(pings, 2.0);
    EXPECT_LT(sent, pings.size());

    // Once the peer reads: the item whole, then an answer to every ping taken, in order.
    EXPECT_EQ(link.peer->readExact(beyond, 60000).count('x'), beyond);
    const int answered = pings.left(sent).count('\n');
    EXPECT_GT(answered, 0);
    for (int i = 0; i < answered; ++i)
        ASSERT_EQ(nextLine(*link.peer), "pong " + payloads[i]) << i;
}

TEST(Ping, VersionsThatSupportDovel15) {
    auto c = std::make_shared<Dovel::ConnectionThread>(nullptr, false);
    struct Case {
        int major, minor, patch;
        const char* suffix;
        bool supported;
        const char* text;
    };
    const Case cases[] = {
        {2, 0, 4, "pellux", true, "2.0.4-pellux"},
        {2, 0, 4, "rc1-pellux-b", true, "2.0.4-rc1-pellux-b"},
        {2, 0, 4, "", false, "2.0.4"},
        {2, 0, 4, "Pellux", false, "2.0.4-Pellux"},
        {2, 0, 3, "pellux", false, "2.0.3-pellux"},
        {2, 1, 9, "", false, "2.1.9"},
        {2, 2, 0, "", true, "2.2.0"},
        {2, 2, 0, "anything", true, "2.2.0-anything"},
        {1, 9, 1, "pellux", false, "1.9.1-pellux"},
    };
    for (const Case& k : cases) {
        c->setRemoteVersion(k.major, k.minor, k.patch, QString::fromLatin1(k.suffix));
        EXPECT_EQ(c->isDovel15Supported(), k.supported) << k.text;
        EXPECT_EQ(c->remoteVersion(), QString::fromLatin1(k.text));
    }
}

TEST(Ping, SilentPeerIsDroppedAfterTheTimeoutWhateverTheWallClockDoes) {
    // Pings and the time-out run on the monotonic clock: a wall clock stepped back an
    // hour must not stop them, nor one stepped forward end the connection before it
    // has pinged.
    for (const int64_t step : {int64_t(0), int64_t(-3600) * 1000000, int64_t(3600) * 1000000}) {
        SCOPED_TRACE(step);
        RawListener listener;
        auto client = makeTestConnection(nullptr, false);
        client->writerThread()->setPingIntervalSeconds(0.2);
        client->connectToHost(QStringLiteral("127.0.0.1"), listener.port());
        auto peer = listener.accept();
        ASSERT_TRUE(peer);
        ASSERT_TRUE(serveLogin(*peer, "Heliotrope 2.6.1", true));
        ASSERT_EQ(peer->readLine(), QByteArray("ping initialized"));
        // Answering once makes the client use ping; then the peer falls silent.
        peer->send("pong initialized\n");
        ASSERT_TRUE(waitUntil([&] { return client->isPingSupported(); }));
        // The short time-out only now: a slow login on a loaded machine must not end it.
        client->setTimeoutSeconds(1.0);
        Basalt::TimeStamp::shiftClockForTesting(step);

        EXPECT_EQ(peer->readLine(2000), QByteArray("ping"));
        EXPECT_TRUE(peer->waitClosed(5000));
        Basalt::TimeStamp::shiftClockForTesting(-step);
        EXPECT_TRUE(waitUntil([&] { return hooks(client).disconnectedCount.load() == 1; }));
        client->stop();
        EXPECT_TRUE(client->waitEnd(30000));
    }
}
