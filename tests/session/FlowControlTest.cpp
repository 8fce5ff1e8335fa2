// Flow control over loopback TCP: a client whose tree thread is behind stops reading
// instead of queuing what arrives, and keeps the server from timing it out meanwhile.
// (Folding for a slow reader is guarded in ControllerTest, dropping a peer that never
// reads in FramingTest.)
#include "SessionHarness.h"

#include "Dovel/Limits.h"
#include "Dovel/session/BundleController.h"
#include "Dovel/session/SessionConnection.h"

#include <gtest/gtest.h>

#include <future>

using namespace SessionHarness;
using Dovel::SessionClient;
using Dovel::SessionServer;
using Tessel::AttributeT;

namespace {

constexpr int Strings = 1000;
constexpr int StringBytes = 1000; // a round of changes is about 1 MB on the wire

// Sets every string of the server's tree to a value of `round`.
void changeAll(Side& side, int round) {
    side.run([&] {
        const QString text = QString(StringBytes - 8, QChar('a' + round % 26)) +
                             QStringLiteral("%1").arg(round, 8, 10, QLatin1Char('0'));
        for (int i = 0; i < Strings; ++i)
            typed<QString>(side.node, "s/v" + QByteArray::number(i))
                ->setValue(text, Tessel::Attribute::LayerRemote);
    });
}

} // namespace

TEST(FlowControl, AClientWhoseTreeThreadIsBehindStopsReadingAndStaysConnected) {
    Side master("master");
    Side slave("slave");
    master.run([&] {
        for (int i = 0; i < Strings; ++i)
            master.node.addDeepAttribute("s/v" + QByteArray::number(i), new AttributeT<QString>());
    });
    Basalt::TraceCapture log;
    SessionServer server(master.node, &master.driver);
    ASSERT_TRUE(server.listen(0, "127.0.0.1"));
    SessionClient client(slave.node, &slave.driver);
    client.connectToHost("127.0.0.1", server.port());
    ASSERT_TRUE(waitSame(master, slave));
    ASSERT_EQ(server.sessions().size(), 1);
    // Short time-outs on both sides: a side left without keep-alive would be dropped
    // a time-out into the hold (the held client pings every second to show it lives),
    // and the server's writer, stuck behind the held client, would give up as well.
    // Four seconds, so that a loaded machine's stall of a second or two drops nobody.
    server.sessions().front()->connection().setTimeoutSeconds(4.0);
    client.connection().setTimeoutSeconds(4.0);
    const std::shared_ptr<Dovel::BundleController> session = client.session().controller();
    ASSERT_TRUE(session);

    std::promise<void> release;
    std::shared_future<void> released = release.get_future().share();
    slave.driver.post([released] { released.wait(); });

    // The client reads until more than the limit waits for its tree thread, then holds.
    const Dovel::ReceiveBacklog& backlog = session->receiveBacklog();
    int round = 0;
    while (backlog.bytes() <= Dovel::Limits::MaxUnappliedBatchBytes && round < 1000)
        changeAll(master, ++round);
    ASSERT_TRUE(waitUntil([&] { return backlog.bytes() > Dovel::Limits::MaxUnappliedBatchBytes; }))
        << round << " rounds";
    const int64_t waiting = backlog.bytes();
    EXPECT_LE(waiting, Dovel::Limits::MaxUnappliedBatchBytes + 2 * Strings * StringBytes);

    // Held past twice the time-out on both sides: the held client has pinged eight
    // times (about once a second) and read nothing meanwhile.
    const uint32_t sentBefore = client.connection().txBytes();
    EXPECT_TRUE(waitUntil([&] { return client.connection().txBytes() >= sentBefore + 8 * 5; },
                          60000)); // "ping\n"
    EXPECT_EQ(backlog.bytes(), waiting);
    EXPECT_EQ(server.clientCount(), 1);
    EXPECT_TRUE(client.isConnected());

    release.set_value();
    EXPECT_TRUE(waitSame(master, slave, 30000));
    EXPECT_EQ(session->receiveBacklog().bytes(), 0);
    EXPECT_EQ(client.stats().sessionsStarted.load(), 1u);
    EXPECT_EQ(log.count("", Basalt::Trace::Warning), 0) << log.dump().toStdString();
}
