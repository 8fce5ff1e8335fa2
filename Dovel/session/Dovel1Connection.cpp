#include "Dovel/session/Dovel1Connection.h"

#include "Dovel/transport/ConnectionHandler.h"

#include "Basalt/Trace.h"

#include <QList>

#include <algorithm>

namespace Dovel {

const QByteArray Dovel1Connection::WriterKey = QByteArrayLiteral("dovel2");

namespace {

// Bundles up to this size are joined into shared parts (a few writer chunks each).
constexpr int JoinBytes = 65536;

} // namespace

Dovel1Connection::Dovel1Connection(std::weak_ptr<ConnectionLink> connection, int64_t maxUnsentBytes)
    : connection(std::move(connection)), maxUnsentBytes(maxUnsentBytes) {}

Dovel1Connection::~Dovel1Connection() = default;

void Dovel1Connection::send(const std::vector<Bundle>& bundles) {
    if (bundles.empty())
        return;
    const std::shared_ptr<ConnectionLink> target = connection.lock();
    if (!target)
        return;
    if (target->isConnected() && !target->isDovel15Supported())
        return;
    const int64_t unsent = target->bufferedDataSize();
    if (target->isConnected() && unsent > maxUnsentBytes) {
        if (!target->isLive())
            return; // already ended; the connection's thread has yet to notice
        Basalt::Trace::warning("Dovel1Connection::send # %lld bytes of batches wait for %s:%d, "
                               "which does not read them; disconnecting",
                               static_cast<long long>(unsent),
                               target->hostName().toUtf8().constData(), target->port());
        target->abortConnection();
        return;
    }
    // The writer writes each part on its own, so small bundles are joined (with the
    // line) into parts of up to JoinBytes: a batch of a few changes then leaves in one
    // write and arrives in one read. A large bundle stays a part of its own, uncopied.
    // A pass of more bundles than a peer takes in one batch leaves as consecutive
    // batches, which the peer applies as it would the one.
    QList<QByteArray> parts;
    QByteArray joined;
    const auto append = [&](const QByteArray& bytes) {
        if (joined.size() + bytes.size() <= JoinBytes) {
            joined += bytes;
            return;
        }
        if (!joined.isEmpty())
            parts.append(joined);
        joined.clear();
        if (bytes.size() > JoinBytes)
            parts.append(bytes);
        else
            joined = bytes;
    };
    for (std::size_t first = 0; first < bundles.size(); first += Limits::MaxBundlesPerBatch) {
        const std::size_t count =
            std::min(bundles.size() - first, std::size_t(Limits::MaxBundlesPerBatch));
        append("dovel2 " + QByteArray::number(qulonglong(count)) + '\n');
        for (std::size_t i = first; i < first + count; ++i)
            append(bundles[i].packet());
    }
    if (!joined.isEmpty())
        parts.append(joined);
    target->writeBuffer(parts, WriterKey);
}

bool Dovel1Connection::holdBack(const std::function<void()>& wake) {
    const std::shared_ptr<ConnectionLink> target = connection.lock();
    // Unconnected, batches wait for the next handshake whatever their size.
    if (!target || !target->isConnected())
        return false;
    return target->callWhenDrained(Limits::BackPressureBytes, wake);
}

} // namespace Dovel
