#include "Dovel/bundle/PendingBundleSender.h"

#include "Dovel/bundle/BundleDispatcher.h"

namespace Dovel {

PendingBundleSender::PendingBundleSender(const QByteArray& moduleName) : module(moduleName) {}

PendingBundleSender::~PendingBundleSender() = default;

void PendingBundleSender::initialize(BundleDispatcher& dispatcher) {
    messageType = dispatcher.resolveMessageType(module);
}

void PendingBundleSender::writeUpdates(BundleOutput& output) {
    if (messageType != NoMessageType)
        output.finish(pending, messageType);
}

} // namespace Dovel
