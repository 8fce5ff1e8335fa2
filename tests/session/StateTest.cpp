// A client retries until a server listens, and stop() ends its session on both sides.
#include "SessionHarness.h"

#include "transport/TransportTestUtil.h"

#include <gtest/gtest.h>

using namespace SessionHarness;
using Dovel::SessionState;

TEST(SessionStateAndCounters, AClientRetriesUntilAServerListensAndReportsEachStep) {
    Side master("master");
    Side mirror("mirror");
    master.run([&] {
        auto* a = new Tessel::AttributeT<float>();
        a->setValue(1.0f, L2);
        master.node.addDeepAttribute("x", a);
    });
    TransportTest::HeldPort reserved(0, true); // refuses until the server listens beside it
    const int port = reserved.port();
    ASSERT_NE(port, 0);
    Dovel::SessionClient client(mirror.node, &mirror.driver);
    EXPECT_EQ(client.state(), SessionState::Idle);
    client.connectToHost("127.0.0.1", port);
    EXPECT_TRUE(waitUntil([&] {
        return client.state() == SessionState::Retrying &&
               client.stats().connectFailures.load() > 0;
    }));
    EXPECT_EQ(client.stats().sessionsStarted.load(), 0u);

    Dovel::SessionServer server(master.node, &master.driver);
    ASSERT_TRUE(server.listen(port, "127.0.0.1"));
    ASSERT_TRUE(waitUntil([&] { return client.isConnected(); }, 15000));
    ASSERT_TRUE(waitUntil([&] { return server.clientCount() == 1; }));
    ASSERT_TRUE(waitSame(master, mirror));
    EXPECT_EQ(client.stats().sessionsStarted.load(), 1u);
    EXPECT_EQ(server.stats().sessionsStarted.load(), 1u);

    client.stop();
    EXPECT_EQ(client.state(), SessionState::Idle);
    EXPECT_EQ(client.stats().sessionsEnded.load(), 1u);
    EXPECT_TRUE(waitUntil(
        [&] { return server.clientCount() == 0 && server.stats().sessionsEnded.load() == 1u; }));
    EXPECT_EQ(mirror.driver.controllerCount(), 0);
    EXPECT_TRUE(waitUntil([&] { return master.driver.controllerCount() == 0; }));
}
