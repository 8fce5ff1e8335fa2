// Work a connection does while its peer is quiet: idle() is called between lines only
// while the connection wants it, lines sent meanwhile still arrive whole, and the end of
// the peer ends the loop.
#include "TransportTestUtil.h"

#include <gtest/gtest.h>

namespace {

using namespace TransportTest;

TEST(Idle, AQuietPeerLetsTheConnectionWorkAndItsLinesStillArrive) {
    LoggedIn logged;
    ASSERT_TRUE(logged.start());
    TestConnection& connection = *logged.accepted;
    EXPECT_EQ(hooks(connection).idleCount.load(), 0); // not wanted: the loop only reads

    // Asked for between lines: a line brings the loop round to the question.
    hooks(connection).idleWanted.store(3);
    ASSERT_TRUE(logged.peer->send("wake\n"));
    ASSERT_TRUE(waitUntil([&] { return hooks(connection).idleCount.load() == 3; }));
    EXPECT_EQ(hooks(connection).idleWanted.load(), 0);

    // Wanted on and on: lines still arrive, then the peer's end ends the loop.
    hooks(connection).idleWanted.store(1 << 30);
    ASSERT_TRUE(logged.peer->send("first\nsecond\n"));
    ASSERT_TRUE(waitUntil([&] { return hooks(connection).lines().size() == 3; }));
    EXPECT_EQ(hooks(connection).lines(), (QStringList{"wake", "first", "second"}));
    const int before = hooks(connection).idleCount.load();
    ASSERT_TRUE(waitUntil([&] { return hooks(connection).idleCount.load() > before; }));
    logged.peer.reset();
    ASSERT_TRUE(waitUntil([&] { return hooks(connection).disconnectedCount.load() == 1; }));
}

} // namespace
