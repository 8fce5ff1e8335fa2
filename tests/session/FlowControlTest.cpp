// Flow control over loopback TCP: a client whose tree thread falls behind stops
// reading, the server's writer backs up, and the server folds its changes instead of
// queuing them; once the client catches up it holds the newest values, in the same
// session.
#include "SessionTestUtil.h"

#include "Basalt/Trace.h"

#include <gtest/gtest.h>

#include <chrono>
#include <condition_variable>
#include <mutex>

using namespace SessionTest;
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

TEST(FlowControl, AStalledClientIsSentFoldedChangesAndCatchesUpInTheSameSession) {
    Side master("master");
    Side mirror("mirror");
    master.run([&] {
        for (int i = 0; i < Strings; ++i)
            master.node.addDeepAttribute("s/v" + QByteArray::number(i), new AttributeT<QString>());
    });
    Basalt::TraceCapture log;
    SessionServer server(master.node, &master.driver);
    ASSERT_TRUE(server.listen(0, "127.0.0.1"));
    SessionClient client(mirror.node, &mirror.driver);
    client.connectToHost("127.0.0.1", server.port());
    ASSERT_TRUE(waitSame(master, mirror));

    // The client's tree thread stops applying; its reader stops once its queue is
    // full, and then the server's writer fills up.
    std::mutex mutex;
    std::condition_variable condition;
    bool released = false;
    mirror.driver.post([&] {
        std::unique_lock<std::mutex> lock(mutex);
        condition.wait(lock, [&] { return released; });
    });
    int round = 0;
    const auto start = std::chrono::steady_clock::now();
    while (server.stats().passesHeld.load() < 10 &&
           std::chrono::steady_clock::now() - start < std::chrono::seconds(60))
        changeAll(master, ++round);
    EXPECT_GE(server.stats().passesHeld.load(), 10u) << round << " rounds";
    {
        std::lock_guard<std::mutex> lock(mutex);
        released = true;
    }
    condition.notify_all();

    changeAll(master, ++round);
    ASSERT_TRUE(waitSame(master, mirror, 60000));
    // Folded: far fewer bytes than every round's strings.
    EXPECT_LT(server.stats().bytesSent.load(), uint64_t(round) * Strings * StringBytes);
    EXPECT_EQ(client.stats().sessionsStarted.load(), 1u);
    EXPECT_EQ(server.clientCount(), 1);
    EXPECT_EQ(log.count("", Basalt::Trace::Warning), 0) << log.dump().toStdString();
}
