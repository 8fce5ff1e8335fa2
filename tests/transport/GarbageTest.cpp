// Hostile or broken peers: random bytes, endless lines and oversized counts and lengths
// end that one connection cleanly, and the server carries on.
#include "TransportTestUtil.h"

#include "Dovel/Limits.h"

#include "Quant/RandomUniform.h"

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

TEST(Garbage, OversizedLinesCountsAndLengthsEndOnlyThatConnection) {
    Server s;
    ASSERT_TRUE(s.start());
    const QByteArray endless(Dovel::Limits::MaxLineBytes + 65536, 'a');
    // The limits themselves are LineReader's (LineReaderTest); these show that a
    // connection ends on them, whichever read tripped, before or after the login.
    enum Stage { Greeting, Login, LoggedIn };
    const struct {
        const char* name;
        Stage stage;
        QByteArray bytes;
    } cases[] = {
        {"endless line in place of the greeting", Greeting, endless},
        {"endless line after the version line", Login, "Heliotrope 2.6.1\n" + endless},
        {"endless line in the reading loop", LoggedIn, endless},
        {"huge map count", LoggedIn, "map 2000000000\n"},
        {"map block shorter than its length item", LoggedIn,
         "map 1\n" + QByteArray::fromHex("0100000004000000")},
        {"huge skip", LoggedIn, "skip 2000000000\n"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        auto peer = c.stage == LoggedIn ? s.loggedIn() : RawPeer::connect(s.server.port());
        ASSERT_TRUE(peer);
        if (c.stage == Login) {
            EXPECT_EQ(peer->readLine(), QByteArray("Heliotrope 2.6.1"));
            EXPECT_EQ(peer->readExact(64).size(), 64);
        }
        flood(*peer, c.bytes);
        EXPECT_TRUE(peer->waitClosed());
        if (c.stage == Login)
            EXPECT_EQ(peer->unread(), QByteArray()); // told nothing more
    }
    // A peer that leaves inside a block it announced.
    auto peer = s.loggedIn();
    ASSERT_TRUE(peer);
    peer->send("data 100\nonly a few");
    peer.reset();
    EXPECT_TRUE(waitUntil([&] { return s.server.instances().isEmpty(); }));
    EXPECT_TRUE(s.healthy());
}
