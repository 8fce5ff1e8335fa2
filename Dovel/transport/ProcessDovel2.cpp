#include "Dovel/transport/ProcessDovel2.h"

#include "Dovel/Limits.h"
#include "Dovel/bundle/Bundle.h"
#include "Dovel/bundle/BundleController.h"
#include "Dovel/transport/ConnectionThread.h"

#include "Basalt/Trace.h"

#include <algorithm>
#include <vector>

namespace Dovel {

namespace {

// A payload is read in steps of this size, so that memory follows the bytes that came.
constexpr int ReadStep = 1 << 20;

bool readBundle(ConnectionThread& connection, Bundle& bundle) {
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

} // namespace

bool processDovel2(std::shared_ptr<BundleController> controller, ConnectionThread& connection,
                   const QString& line) {
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
    std::vector<Bundle> bundles(std::size_t(std::max(count, 0)));
    for (Bundle& bundle : bundles)
        if (!readBundle(connection, bundle))
            return true;
    if (controller)
        controller->scheduleProcess(bundles);
    return true;
}

} // namespace Dovel
