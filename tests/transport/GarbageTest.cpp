// Hostile or broken peers: endless lines and oversized counts and lengths end that one
// connection cleanly, and the server carries on. (Random bytes are the fuzzers'.)
#include "TransportTestUtil.h"

#include "Dovel/Limits.h"

using namespace TransportTest;

namespace {

// Writes `bytes` until the server hangs up or all were sent.
void flood(RawPeer& peer, const QByteArray& bytes) {
    for (int offset = 0; offset < bytes.size(); offset += 65536)
        if (!peer.send(bytes.mid(offset, 65536)))
            return;
}

} // namespace

TEST(Garbage, OversizedLinesCountsAndLengthsEndOnlyThatConnection) {
    TestServer server;
    ASSERT_TRUE(server.runOnLoopback());
    // A peer that has logged in as a current client.
    const auto loggedIn = [&]() -> std::unique_ptr<RawPeer> {
        auto peer = RawPeer::connect(server.port());
        if (!peer || clientLogin(*peer) != "ok" || peer->readLine() != "ping initialized")
            return nullptr;
        return peer;
    };
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
        auto peer = c.stage == LoggedIn ? loggedIn() : RawPeer::connect(server.port());
        ASSERT_TRUE(peer);
        if (c.stage == Login) {
            EXPECT_EQ(peer->readLine(), QByteArray("Heliotrope 2.6.1"));
            EXPECT_EQ(peer->readExact(64).size(), 64);
        }
        flood(*peer, c.bytes);
        EXPECT_TRUE(peer->waitClosed());
        if (c.stage == Login) {
            EXPECT_EQ(peer->unread(), QByteArray()); // told nothing more
        }
    }
    // Each ended only its own connection: the server still logs a peer in.
    EXPECT_TRUE(waitUntil([&] { return server.instances().isEmpty(); }));
    EXPECT_TRUE(loggedIn());
}
