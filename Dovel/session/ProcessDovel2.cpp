#include "Dovel/session/ProcessDovel2.h"

#include "Dovel/Limits.h"
#include "Dovel/bundle/Bundle.h"
#include "Dovel/session/BundleController.h"
#include "Dovel/transport/ConnectionHandler.h"

#include "Basalt/Stopwatch.h"
#include "Basalt/Trace.h"

#include <algorithm>
#include <functional>
#include <vector>

namespace Dovel {

namespace {

// A payload is read in steps of this size, so that memory follows the bytes that came.
constexpr int ReadStep = 1 << 20;
// While reading is held back: how often the backlog is looked at (and stop noticed),
// and how often the peer is pinged so that it sees this side alive.
constexpr int HoldStepMs = 50;
constexpr double HoldPingSeconds = 1.0;

// A batch is handed to the tree thread in pieces of about this size as they arrive, so
// that a batch of any size waits in memory only a piece at a time beyond the backlog.
// One bundle as a sender cuts a large pass (Limits::SentBundleBytes): the tree thread
// starts on a first copy as soon as its first bundle is in, and what it answers (each
// piece is applied after an output pass) goes out in passes of that size rather than
// piling up for a larger piece.
constexpr int64_t PieceBytes = Limits::SentBundleBytes;

bool readBundle(ConnectionLink& connection, Bundle& bundle) {
    QByteArray& bytes = bundle.mutablePacket();
    if (!connection.readData(reinterpret_cast<uint8_t*>(bytes.data()), int(Bundle::HeaderSize))) {
        Basalt::Trace::warning("processDovel2 # Failed to read Bundle header");
        return false;
    }
    const uint32_t payload = bundle.headerWord(BundleCore::PayloadSizeWord);
    if (payload > uint32_t(Limits::MaxBundlePayloadBytes)) {
        Basalt::Trace::warning("processDovel2 # A bundle of %u bytes exceeds the limit of %d, "
                               "disconnecting",
                               payload, Limits::MaxBundlePayloadBytes);
        connection.abortConnection();
        return false;
    }
    int done = 0;
    while (uint32_t(done) < payload) {
        const int step = std::min(int(payload) - done, ReadStep);
        bytes.resize(int(Bundle::HeaderSize) + done + step);
        if (!connection.readData(
                reinterpret_cast<uint8_t*>(bytes.data()) + Bundle::HeaderSize + done, step)) {
            Basalt::Trace::warning("processDovel2 # Failed to read Bundle");
            return false;
        }
        done += step;
    }
    return true;
}

// The tree thread is behind the peer: read nothing more until it has caught up, so
// that TCP slows the peer down. The peer's own data is what this side waits on, so
// its silence must not time it out (the last packet time is kept fresh); and as its
// pings wait unread, a ping from here every HoldPingSeconds shows it this side lives.
void holdWhileBehind(const ReceiveBacklog& backlog, ConnectionLink& connection) {
    if (backlog.bytes() <= Limits::MaxUnappliedBatchBytes)
        return;
    Basalt::Trace::debug("processDovel2 # %lld bytes of batches wait for the tree thread; "
                         "reading from %s:%d holds back",
                         static_cast<long long>(backlog.bytes()),
                         connection.hostName().toUtf8().constData(), connection.port());
    Basalt::Stopwatch pinged;
    while (connection.isLive() && !backlog.waitAtMost(Limits::MaxUnappliedBatchBytes, HoldStepMs)) {
        connection.updateLastPacketTimestamp();
        if (connection.isPingSupported() && pinged.elapsedSeconds() >= HoldPingSeconds) {
            connection.ping(QByteArray());
            pinged.restart();
        }
    }
}

} // namespace

namespace {

// Reads the batch announced by `line`, handing it to `consume` in pieces as it arrives
// (first, last: whether the piece starts or ends the batch) and calling `hold` after
// each; see processDovel2.
bool readBatch(ConnectionLink& connection, const QString& line,
               const std::function<void(std::vector<Bundle>&, bool, bool)>& consume,
               const std::function<void()>& hold) {
    if (!line.startsWith(QLatin1String("dovel2 ")))
        return false;
    bool ok = false;
    const int count = line.mid(7).toInt(&ok);
    if (!ok)
        return false;
    if (count > Limits::MaxBundlesPerBatch) {
        Basalt::Trace::warning("processDovel2 # A batch of %d bundles exceeds the limit of %d, "
                               "disconnecting",
                               count, Limits::MaxBundlesPerBatch);
        connection.abortConnection();
        return true;
    }
    std::vector<Bundle> bundles;
    bundles.reserve(std::size_t(std::max(count, 0)));
    int64_t pieceBytes = 0;
    bool firstPiece = true;
    for (int i = 0; i < count; ++i) {
        bundles.emplace_back();
        if (!readBundle(connection, bundles.back()))
            return true;
        pieceBytes += bundles.back().size();
        // Applying a large batch in pieces is applying consecutive batches: the pieces
        // keep their order, and each is applied whole.
        if (pieceBytes >= PieceBytes && i + 1 < count) {
            consume(bundles, firstPiece, false);
            bundles.clear();
            pieceBytes = 0;
            firstPiece = false;
            hold();
        }
    }
    consume(bundles, firstPiece, true);
    hold();
    return true;
}

} // namespace

bool processDovel2(std::shared_ptr<BundleController> controller, ConnectionLink& connection,
                   const QString& line) {
    return readBatch(
        connection, line,
        [&](std::vector<Bundle>& piece, bool first, bool last) {
            if (controller)
                controller->scheduleProcess(piece, first, last);
        },
        [&] {
            if (controller)
                holdWhileBehind(controller->receiveBacklog(), connection);
        });
}

bool processDovel2(const std::function<void(const std::vector<Bundle>&)>& consume,
                   ConnectionLink& connection, const QString& line) {
    return readBatch(
        connection, line, [&](std::vector<Bundle>& piece, bool, bool) { consume(piece); }, [] {});
}

} // namespace Dovel
