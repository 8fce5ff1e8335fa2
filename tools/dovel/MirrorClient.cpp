#include "MirrorClient.h"

#include "Dovel/transport/WriterThread.h"

#include "Basalt/Trace.h"

#include <QElapsedTimer>

#include <atomic>
#include <chrono>
#include <functional>
#include <thread>

namespace DovelTool {

namespace {

// Checks `condition` every few milliseconds until it holds or `ms` have passed. The
// counters it reads have no notification of their own.
bool waitFor(const std::function<bool()>& condition, int ms) {
    QElapsedTimer timer;
    timer.start();
    for (;;) {
        if (condition())
            return true;
        if (timer.elapsed() >= ms)
            return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
}

int remaining(const QElapsedTimer& timer, int ms) {
    return int(qMax<qint64>(0, ms - timer.elapsed()));
}

} // namespace

namespace {

Dovel::SessionClient::Options clientOptions(const QByteArray& loginKey, bool observer) {
    Dovel::SessionClient::Options options;
    options.loginKey = loginKey;
    options.mirrorOnly = observer;
    return options;
}

} // namespace

MirrorClient::MirrorClient(const QByteArray& loginKey, bool observer)
    : mirror(nullptr, QByteArrayLiteral("mirror")),
      session(std::make_unique<Dovel::SessionClient>(mirror, &treeThread,
                                                     clientOptions(loginKey, observer))) {}

MirrorClient::~MirrorClient() {
    stop();
    session.reset();
}

void MirrorClient::connectToHost(const QString& host, int port) {
    session->connectToHost(host, port);
}

void MirrorClient::stop() {
    session->stop();
}

bool MirrorClient::waitInitialState(int ms) {
    const Dovel::SessionStats& stats = session->stats();
    // A large first batch is applied in pieces, over several passes; the counter moves
    // after the last. The node is updated when the pass that applied it has ended, so
    // the next posted call marks the end.
    if (!waitFor([&] { return stats.batchesApplied.load() > 0 || hasFailed(); }, ms) ||
        stats.batchesApplied.load() == 0)
        return false;
    return treeThread.call([] {});
}

bool MirrorClient::hasFailed() const {
    const Dovel::SessionStats& stats = session->stats();
    // A session that ended after its first batch came may still have it applied: its
    // core finishes what it received.
    return stats.batchesApplied.load() == 0 &&
           ((stats.sessionsEnded.load() > 0 && stats.batchesReceived.load() == 0) ||
            (stats.sessionsStarted.load() == 0 && session->connection().lastFailure().isSet()));
}

uint64_t MirrorClient::batchesSent() const {
    return session->stats().batchesSent.load();
}

bool MirrorClient::waitWritten(uint64_t sentBefore, int ms) {
    QElapsedTimer timer;
    timer.start();
    Dovel::ConnectionThread& connection = session->connection();
    // A change goes out in the tree thread's pass that follows it; when two passes have
    // sent nothing, the change left the tree as it was (the same values again).
    if (!treeThread.call([] {}) || !treeThread.call([] {}))
        return false;
    if (batchesSent() == sentBefore)
        return session->isConnected();
    if (!waitFor([&] { return batchesSent() > sentBefore || !session->isConnected(); }, ms) ||
        !session->isConnected())
        return false;
    // The pass that counted the batch hands it to the writer before it ends.
    if (!treeThread.call([] {}))
        return false;
    Dovel::WriterThread* writer = connection.writerThread();
    if (!waitFor([&] { return writer->bufferedDataSize() <= 0 || !session->isConnected(); },
                 remaining(timer, ms)) ||
        !session->isConnected())
        return false;
    // The batch has left the buffer and is being written or written. A writer update
    // runs between two items, so it runs once that write has returned.
    auto written = std::make_shared<std::atomic<bool>>(false);
    writer->update(QStringLiteral("dovel-written"), [written] { written->store(true); });
    return waitFor([&] { return written->load() || !session->isConnected(); },
                   remaining(timer, ms)) &&
           written->load();
}

QString MirrorClient::failureReason() const {
    const Dovel::PeerFailure failure = session->connection().lastFailure();
    if (failure.isSet())
        return failure.text();
    const Dovel::SessionStats& stats = session->stats();
    if (stats.sessionsStarted.load() > stats.sessionsEnded.load())
        return QStringLiteral("connected, but the whole tree did not arrive in time; a longer "
                              "--timeout may help");
    if (stats.sessionsStarted.load() > 0)
        return QStringLiteral("the session ended before the tree arrived");
    return QStringLiteral("no answer");
}

} // namespace DovelTool
