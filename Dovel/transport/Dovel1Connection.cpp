#include "Dovel/transport/Dovel1Connection.h"

#include "Dovel/transport/ConnectionThread.h"
#include "Dovel/transport/WriterThread.h"

#include "Basalt/Trace.h"

#include <QList>

namespace Dovel {

const QByteArray Dovel1Connection::WriterKey = QByteArrayLiteral("dovel2");

Dovel1Connection::Dovel1Connection(std::weak_ptr<ConnectionThread> connection,
                                   int64_t maxUnsentBytes)
    : connection(std::move(connection)), maxUnsentBytes(maxUnsentBytes) {}

Dovel1Connection::~Dovel1Connection() = default;

void Dovel1Connection::send(const std::vector<Bundle>& bundles) {
    if (bundles.empty())
        return;
    const std::shared_ptr<ConnectionThread> target = connection.lock();
    if (!target)
        return;
    if (target->isConnected() && !target->isDovel15Supported())
        return;
    const int64_t unsent = target->writerThread()->bufferedDataSize();
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
    QList<QByteArray> parts;
    parts.reserve(int(bundles.size()) + 1);
    parts.append("dovel2 " + QByteArray::number(qulonglong(bundles.size())) + '\n');
    for (const Bundle& bundle : bundles)
        parts.append(bundle.packet());
    target->writeBuffer(parts, WriterKey);
}

} // namespace Dovel
