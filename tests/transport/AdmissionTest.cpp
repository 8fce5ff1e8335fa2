// Who a server lets in, against hand-played peers on loopback: a stalled login ended by
// the time-out (a client's own wait is the tool's "no answer" case), the allowed
// networks, the caps on clients, the logins under way and the back-off after failed logins.
#include "TransportTestUtil.h"

#include "Dovel/Limits.h"

using namespace TransportTest;

namespace {

// True when the server closed `peer` without sending a byte.
bool closedUngreeted(RawPeer& peer) {
    return peer.readLine(5000).isNull() && peer.waitClosed(5000);
}

} // namespace

TEST(Admission, AClientThatStallsItsLoginIsClosedAtTheTimeOut) {
    TestServer server;
    server.timeout.store(0.5);
    ASSERT_TRUE(server.runOnLoopback());
    // A client that reads the challenge and never answers.
    auto peer = RawPeer::connect(server.port());
    ASSERT_TRUE(peer);
    EXPECT_EQ(peer->readLine(), QByteArray("Heliotrope 2.6.1"));
    EXPECT_EQ(peer->readExact(64).size(), 64);
    EXPECT_TRUE(peer->waitClosed(20000));
    EXPECT_TRUE(waitUntil([&] { return server.instances().isEmpty(); }));
}

TEST(Admission, NetworksCapsAndLoginsUnderWay) {
    TestServer server;
    Dovel::AdmissionRules rules;
    QString error;
    ASSERT_TRUE(Dovel::NetworkList::parse("10.0.0.0/8, 192.168.1.7", rules.allowed, error));
    server.setAdmissionRules(rules);
    ASSERT_TRUE(server.runOnLoopback());
    auto outsider = RawPeer::connect(server.port());
    ASSERT_TRUE(outsider && closedUngreeted(*outsider));

    // One client per address: a second one is closed before its greeting.
    rules = Dovel::AdmissionRules();
    rules.maxClientsPerAddress = 1;
    server.setAdmissionRules(rules);
    auto first = RawPeer::connect(server.port());
    ASSERT_TRUE(first);
    ASSERT_EQ(clientLogin(*first), QByteArray("ok"));
    ASSERT_TRUE(waitUntil([&] { return server.admission().loggedInCount() == 1; }));
    auto second = RawPeer::connect(server.port());
    ASSERT_TRUE(second && closedUngreeted(*second));
    rules.maxClientsPerAddress = 64;
    rules.maxClients = 1;
    server.setAdmissionRules(rules);
    auto third = RawPeer::connect(server.port());
    ASSERT_TRUE(third && closedUngreeted(*third));

    // Idle logins fill the room for logins under way; the next one closes the oldest.
    rules.maxClients = 256;
    server.setAdmissionRules(rules);
    std::vector<std::unique_ptr<RawPeer>> idle;
    for (int i = 0; i < Dovel::Limits::MaxPendingLogins + 1; ++i) {
        idle.push_back(RawPeer::connect(server.port()));
        ASSERT_TRUE(idle.back());
        ASSERT_EQ(idle.back()->readLine(), QByteArray("Heliotrope 2.6.1"));
    }
    EXPECT_TRUE(idle.front()->waitClosed());
    EXPECT_EQ(server.admission().pendingCount(), Dovel::Limits::MaxPendingLogins);
    EXPECT_EQ(clientLogin(*idle.back(), "Heliotrope 2.6.1", "pavro", "Dovel2Sync", false),
              QByteArray("ok"));
    EXPECT_TRUE(waitUntil([&] { return server.admission().loggedInCount() == 2; }));
}

TEST(Admission, FailedLoginsDelayTheNextGreetingFromTheirAddress) {
    TestServer server;
    ASSERT_TRUE(server.runOnLoopback());
    auto peer = RawPeer::connect(server.port());
    ASSERT_TRUE(peer);
    const auto before = std::chrono::steady_clock::now();
    ASSERT_EQ(clientLogin(*peer, "Heliotrope 2.6.1", "pavro", "wrong key!"),
              QByteArray("Wrong username or password"));
    // The next login waits half a second from the failure before it is greeted (a lower
    // bound, which no load can break); a right one ends the wait for those after it.
    auto next = RawPeer::connect(server.port());
    ASSERT_TRUE(next);
    EXPECT_EQ(clientLogin(*next), QByteArray("ok"));
    EXPECT_GE(std::chrono::steady_clock::now() - before, std::chrono::milliseconds(450));
    auto after = RawPeer::connect(server.port());
    ASSERT_TRUE(after);
    EXPECT_EQ(clientLogin(*after), QByteArray("ok"));
}
