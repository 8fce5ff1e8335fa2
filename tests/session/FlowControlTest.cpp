// Flow control over loopback TCP: a client that logs in and then stops reading makes
// the server's writer back up; the server then folds its changes instead of queuing
// them, keeps the client connected, and sends again as soon as the client reads. The
// other way round, a client whose tree thread is behind stops reading instead of
// queuing what arrives, and keeps the server from timing it out meanwhile.
#include "SessionHarness.h"
#include "transport/TransportTestUtil.h"

#include "Dovel/Limits.h"
#include "Dovel/session/BundleController.h"
#include "Dovel/session/SessionConnection.h"
#include "Dovel/transport/WriterThread.h"

#include <gtest/gtest.h>

#include <future>

using namespace SessionTest;
using Dovel::SessionClient;
using Dovel::SessionServer;
using Tessel::AttributeT;

namespace {

constexpr int Strings = 1000;
constexpr int StringBytes = 1000; // a round of changes is about 1 MB on the wire

void addStrings(Side& side, int count = Strings) {
    side.run([&] {
        for (int i = 0; i < count; ++i)
            side.node.addDeepAttribute("s/v" + QByteArray::number(i), new AttributeT<QString>());
    });
}

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

TEST(FlowControl, AClientThatStopsReadingIsSentFoldedChangesOnceItReadsAgain) {
    Side master("master");
    addStrings(master);
    Basalt::TraceCapture log;
    SessionServer server(master.node, &master.driver);
    ASSERT_TRUE(server.listen(0, "127.0.0.1"));
    std::unique_ptr<TransportTest::RawPeer> client = TransportTest::RawPeer::connect(server.port());
    ASSERT_TRUE(client);
    ASSERT_EQ(TransportTest::clientLogin(*client), QByteArray("ok"));
    ASSERT_TRUE(waitUntil([&] { return server.clientCount() == 1; }));

    // The client reads nothing from here on: once the socket's buffers are full the
    // writer backs up and the server's passes fold.
    int round = 0;
    while (server.stats().passesHeld.load() < 10 && round < 1000)
        changeAll(master, ++round);
    ASSERT_GE(server.stats().passesHeld.load(), 10u) << round << " rounds";
    Dovel::WriterThread* writer = server.sessions().front()->connection().writerThread();
    // Held: what waits stays near the mark instead of growing by a round per pass.
    const int64_t waiting = writer->bufferedDataSize();
    for (int i = 0; i < 20; ++i)
        changeAll(master, ++round);
    EXPECT_LE(
        writer->bufferedDataSize(),
        std::max<int64_t>(waiting, Dovel::Limits::BackPressureBytes + 2 * Strings * StringBytes));
    const uint64_t batchesHeld = server.stats().batchesSent.load();

    // Reading again lets the writer drain; it wakes the tree thread and the folded
    // changes leave in a new batch.
    std::vector<char> sink(1 << 16);
    EXPECT_TRUE(waitUntil(
        [&] {
            while (client->socket().isPendingInput(0))
                if (client->socket().read(sink.data(), int(sink.size()), false) <= 0)
                    break;
            return server.stats().batchesSent.load() > batchesHeld &&
                   writer->bufferedDataSize() <= 0; // below zero: see WriterThread::childLoop
        },
        30000));
    EXPECT_EQ(server.clientCount(), 1);
    EXPECT_EQ(log.count("", Basalt::Trace::Warning), 0) << log.dump().toStdString();
}

TEST(FlowControl, AClientWhoseTreeThreadIsBehindStopsReadingAndStaysConnected) {
    Side master("master");
    Side slave("slave");
    addStrings(master);
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
    server.sessions().front()->connection().setTimeoutSeconds(2.0);
    client.connection().setTimeoutSeconds(2.0);
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

    // Held past twice the time-out on both sides: the held client has pinged four times
    // (about once a second) and read nothing meanwhile.
    const uint32_t sentBefore = client.connection().txBytes();
    EXPECT_TRUE(waitUntil([&] { return client.connection().txBytes() >= sentBefore + 4 * 5; },
                          30000)); // "ping\n"
    EXPECT_EQ(backlog.bytes(), waiting);
    EXPECT_EQ(server.clientCount(), 1);
    EXPECT_TRUE(client.isConnected());

    release.set_value();
    EXPECT_TRUE(waitSame(master, slave, 30000));
    EXPECT_EQ(session->receiveBacklog().bytes(), 0);
    EXPECT_EQ(client.stats().sessionsStarted.load(), 1u);
    EXPECT_EQ(log.count("", Basalt::Trace::Warning), 0) << log.dump().toStdString();
}

TEST(FlowControl, AClientThatNeitherReadsNorSendsIsDroppedWhileAnotherKeepsReceiving) {
    Side master("master");
    Side mirror("mirror");
    // A first copy of about 16 MB: more than the sockets between them hold.
    master.run([&] {
        const QString text(StringBytes, QChar('x'));
        for (int i = 0; i < 16 * Strings; ++i)
            master.node.addDeepAttribute("s/v" + QByteArray::number(i),
                                         new AttributeT<QString>(nullptr, "", text));
    });
    SessionServer::Options options;
    options.timeoutSeconds = 1.0;
    SessionServer server(master.node, &master.driver, options);
    ASSERT_TRUE(server.listen(0, "127.0.0.1"));
    auto stuck = TransportTest::RawPeer::connect(server.port());
    ASSERT_TRUE(stuck);
    ASSERT_EQ(TransportTest::clientLogin(*stuck), QByteArray("ok"));
    // It takes the start of the first copy, then neither reads nor sends anything.
    ASSERT_EQ(stuck->readExact(64 << 10).size(), 64 << 10);

    SessionClient client(mirror.node, &mirror.driver);
    client.connectToHost("127.0.0.1", server.port());
    EXPECT_TRUE(waitSame(master, mirror, 30000));
    // Dropped once it has taken nothing and said nothing for the time-out (with the
    // rest of its first copy unread in the sockets).
    EXPECT_TRUE(waitUntil([&] { return server.clientCount() == 1; }, 30000));
    EXPECT_TRUE(stuck->waitClosed(30000));
    EXPECT_TRUE(client.isConnected());
}
