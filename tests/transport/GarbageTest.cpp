// Hostile or broken peers: random bytes, endless lines and oversized counts and lengths
// end that one connection cleanly, and the server carries on.
#include "TransportTestUtil.h"

#include "Dovel/Limits.h"

#include "Basalt/Trace.h"
#include "Quant/RandomUniform.h"

#include <QRegularExpression>

using namespace TransportTest;

namespace {

QByteArray randomBytes(int size, uint64_t seed) {
    Quant::RandomUniform random(seed);
    QByteArray out(size, '\0');
    for (int i = 0; i < size; ++i)
        out[i] = static_cast<char>(random.rand0X(255));
    return out;
}

// Writes `bytes` until the server hangs up or all were sent.
void flood(RawPeer& peer, const QByteArray& bytes) {
    for (int offset = 0; offset < bytes.size(); offset += 65536)
        if (!peer.send(bytes.mid(offset, 65536)))
            return;
}

struct Server {
    TestServer server;
    bool start() { return server.runOnLoopback(); }
    // A peer that has logged in as a current client.
    std::unique_ptr<RawPeer> loggedIn() {
        auto peer = RawPeer::connect(server.port());
        if (!peer || clientLogin(*peer) != "ok" || peer->readLine() != "ping initialized")
            return nullptr;
        return peer;
    }
    // The server is still healthy: a fresh peer logs in and is heard.
    bool healthy() {
        auto peer = loggedIn();
        if (!peer || !peer->send("alive\n"))
            return false;
        return waitUntil([&] {
            for (const auto& c : server.instances())
                if (hooks(c).lines().contains("alive"))
                    return true;
            return false;
        });
    }
};

} // namespace

TEST(Garbage, RandomBytesEndOnlyThatConnection) {
    Server s;
    ASSERT_TRUE(s.start());
    // Before the login: the first "line" is no greeting.
    for (uint64_t seed = 1; seed <= 3; ++seed) {
        auto peer = RawPeer::connect(s.server.port());
        ASSERT_TRUE(peer);
        flood(*peer, randomBytes(64 * 1024, seed));
        EXPECT_TRUE(peer->waitClosed());
    }
    // After the login: junk lines are reported and the connection goes on until the
    // peer leaves.
    auto peer = s.loggedIn();
    ASSERT_TRUE(peer);
    flood(*peer, randomBytes(256 * 1024, 42));
    peer.reset();
    EXPECT_TRUE(waitUntil([&] { return s.server.instances().isEmpty(); }));
    EXPECT_TRUE(s.healthy());
}

TEST(Garbage, EndlessLineIsCutAtTheLimit) {
    Basalt::TraceCapture trace;
    Server s;
    ASSERT_TRUE(s.start());
    const QByteArray endless(Dovel::Limits::MaxLineBytes + 65536, 'a');

    auto early = RawPeer::connect(s.server.port()); // in place of the greeting
    ASSERT_TRUE(early);
    flood(*early, endless);
    EXPECT_TRUE(early->waitClosed());

    // Inside the login, after the version line: the peer is told nothing more.
    auto inLogin = RawPeer::connect(s.server.port());
    ASSERT_TRUE(inLogin);
    EXPECT_EQ(inLogin->readLine(), QByteArray("Heliotrope 2.6.1"));
    EXPECT_EQ(inLogin->readExact(64).size(), 64);
    inLogin->send("Heliotrope 2.6.1\n");
    flood(*inLogin, endless);
    EXPECT_TRUE(inLogin->waitClosed());
    EXPECT_EQ(inLogin->unread(), QByteArray());

    auto late = s.loggedIn(); // in the reading loop
    ASSERT_TRUE(late);
    flood(*late, endless);
    EXPECT_TRUE(late->waitClosed());

    EXPECT_TRUE(waitUntil([&] { return s.server.instances().isEmpty(); }));
    // The size reported is what had arrived when the check tripped.
    const QRegularExpression cut(QStringLiteral("^LineReader::line # A line of \\d+ from "
                                                "127\\.0\\.0\\.1:\\d+ exceeds the limit of "
                                                "%1, disconnecting$")
                                     .arg(Dovel::Limits::MaxLineBytes));
    int cuts = 0;
    for (const Basalt::TraceLine& line : trace.lines())
        cuts += cut.match(line.text).hasMatch() ? 1 : 0;
    EXPECT_EQ(cuts, 3) << trace.dump().toStdString();
    EXPECT_TRUE(s.healthy());
}

TEST(Garbage, OversizedCountsAndLengthsDisconnect) {
    Basalt::TraceCapture trace;
    Server s;
    ASSERT_TRUE(s.start());
    struct Case {
        QByteArray bytes;
        QString log;
    };
    // The limits themselves are LineReader's (LineReaderTest); these show that a
    // connection ends on them, whichever read tripped.
    const Case cases[] = {
        {"map 2000000000\n", "LineReader::readMap # A map count of 2000000000"},
        {"map 1\n" + QByteArray::fromHex("0100000004000000"),
         "LineReader::readMap # error while reading data"},
        {"skip 2000000000\n", "LineReader::skip # A skip of 2000000000"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.bytes.toHex().constData());
        auto peer = s.loggedIn();
        ASSERT_TRUE(peer);
        peer->send(c.bytes);
        EXPECT_TRUE(peer->waitClosed());
        EXPECT_TRUE(waitUntil([&] { return trace.contains(c.log); })) << trace.dump().toStdString();
    }
    EXPECT_TRUE(waitUntil([&] { return s.server.instances().isEmpty(); }));
    EXPECT_TRUE(s.healthy());
}

TEST(Garbage, PeerLeavingInsideABlockEndsTheConnection) {
    Basalt::TraceCapture trace;
    Server s;
    ASSERT_TRUE(s.start());
    auto peer = s.loggedIn();
    ASSERT_TRUE(peer);
    ASSERT_TRUE(waitUntil([&] { return s.server.first() != nullptr; }));
    const std::shared_ptr<TestConnection> accepted = s.server.first();
    peer->send("data 5\nabc");
    peer->send("de\ndata 3\nxyz");
    ASSERT_TRUE(waitUntil([&] { return hooks(accepted).blocks().size() == 2; }));
    EXPECT_EQ(hooks(accepted).blocks(), (QList<QByteArray>{"abcde", "xyz"}));

    peer->send("data 100\nonly a few");
    peer.reset();
    ASSERT_TRUE(waitUntil([&] { return hooks(accepted).disconnectedCount.load() == 1; }));
    EXPECT_TRUE(trace.contains(
        QStringLiteral("LineReader::readData # Read error (127.0.0.1:%1 expected 100 "
                       "bytes, got 10 bytes")
            .arg(accepted->port())))
        << trace.dump().toStdString();
}
