// Trace lines: formatted whole, never cut, never interleaved across threads, and repeats
// of one kind counted instead of flooding standard error.
#include "Basalt/Trace.h"

#include "WaitUtil.h"

#include <gtest/gtest.h>

#include <QFile>
#include <QTemporaryFile>

#include <unistd.h>

#include <cstdio>
#include <thread>
#include <vector>

using Basalt::Trace;
using Basalt::TraceCapture;

namespace {

// Restores the stderr threshold that a test changed.
struct ThresholdScope {
    Trace::Level saved = Trace::threshold();
    ~ThresholdScope() { Trace::setThreshold(saved); }
};

// Sends file descriptor 2 to a temporary file while it lives.
class StderrToFile {
public:
    StderrToFile() {
        file.open();
        std::fflush(stderr);
        saved = ::dup(2);
        ::dup2(file.handle(), 2);
    }
    ~StderrToFile() { restore(); }
    QByteArray take() {
        restore();
        QFile in(file.fileName());
        in.open(QIODevice::ReadOnly);
        return in.readAll();
    }

private:
    void restore() {
        if (saved < 0)
            return;
        std::fflush(stderr);
        ::dup2(saved, 2);
        ::close(saved);
        saved = -1;
    }
    QTemporaryFile file;
    int saved = -1;
};

} // namespace

TEST(Trace, CaptureSeesEveryLevelFormattedAsOneLine) {
    ThresholdScope scope;
    Trace::setThreshold(Trace::Off);
    TraceCapture capture;
    Trace::debug("Probe::debug # %d %s", 1, "one");
    Trace::info("Probe::info # %05.1f", 2.5);
    Trace::warning("Probe::warning # %c%%", 'x');
    Trace::error("Probe::error # trailing line end\n");
    const QList<Basalt::TraceLine> lines = capture.lines();
    ASSERT_EQ(lines.size(), 4) << capture.dump().toStdString();
    EXPECT_EQ(lines[0].level, Trace::Debug);
    EXPECT_EQ(lines[0].text, QStringLiteral("Probe::debug # 1 one"));
    EXPECT_EQ(lines[1].level, Trace::Info);
    EXPECT_EQ(lines[1].text, QStringLiteral("Probe::info # 002.5"));
    EXPECT_EQ(lines[2].text, QStringLiteral("Probe::warning # x%"));
    EXPECT_EQ(lines[3].level, Trace::Error);
    EXPECT_EQ(lines[3].text, QStringLiteral("Probe::error # trailing line end"));

    EXPECT_EQ(capture.count("Probe::", Trace::Info), 1);
    EXPECT_TRUE(capture.dump().contains("[error] Probe::error # trailing line end"));

    // Long lines are not cut.
    const QByteArray longText(5000, 'L');
    Trace::info("%s|end", longText.constData());
    EXPECT_EQ(capture.lines().last().text, QString::fromLatin1(longText + "|end"));
}

TEST(Trace, LinesFromManyThreadsStayWhole) {
    TraceCapture capture;
    const int threads = 4, perThread = 300;
    std::vector<std::thread> workers;
    for (int t = 0; t < threads; ++t)
        workers.emplace_back([t] {
            for (int i = 0; i < perThread; ++i)
                Trace::debug("Worker::run # thread %d line %d", t, i);
        });
    for (auto& w : workers)
        w.join();
    const QList<Basalt::TraceLine> lines = capture.lines();
    ASSERT_EQ(lines.size(), threads * perThread);
    std::vector<int> next(threads, 0);
    for (const Basalt::TraceLine& line : lines) {
        const QStringList words = line.text.split(' ');
        ASSERT_EQ(words.size(), 6) << line.text.toStdString();
        const int t = words[3].toInt();
        // Each thread's lines arrive whole and in its own order.
        EXPECT_EQ(words[5].toInt(), next[size_t(t)]++);
    }
}

TEST(Trace, RepeatsOfOneKindAreCountedAndLinesNameTheirPeer) {
    ThresholdScope scope;
    Trace::setThreshold(Trace::Warning);
    TraceCapture capture;
    StderrToFile redirect;
    {
        Basalt::TracePeer peer("10.1.2.3:4567");
        for (int i = 0; i < 1000; ++i)
            Trace::warning("Repeated # the same fault, number %d", i);
        Trace::warning("Other # about 10.1.2.3:4567 already");
    }
    Trace::warning("Other # about no peer");
    const QByteArray out = redirect.take();
    // At most the allowance per second gets through (two when the loop spans a second).
    EXPECT_GE(out.count("Repeated # the same fault"), Trace::MaxRepeatsPerSecond);
    EXPECT_LE(out.count("Repeated # the same fault"), 2 * Trace::MaxRepeatsPerSecond)
        << out.constData();
    EXPECT_TRUE(
        out.contains("[warning] Repeated # the same fault, number 0 (peer 10.1.2.3:4567)\n"));
    EXPECT_TRUE(out.contains("[warning] Other # about 10.1.2.3:4567 already\n"));
    EXPECT_TRUE(out.contains("[warning] Other # about no peer\n"));
    EXPECT_EQ(capture.count("Repeated # the same fault"), 1000); // captures see every line
    // The count follows with the next line after the second is over.
    ASSERT_TRUE(BasaltTest::waitUntil([&] {
        StderrToFile probe;
        Trace::warning("Probe # %d", 1);
        const QByteArray out = probe.take();
        return out.contains("[warning] Repeated # the same fault, number ... (") &&
               out.contains(" more like this in the last second)\n");
    }));
}
