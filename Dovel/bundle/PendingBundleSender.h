// A sender for a module whose bundles others write: whoever has something to say
// appends it through writer(), and the next output pass emits what is pending as one
// bundle under the module's number (asked of the peer with "load-module" when the sender
// is added). Used by the query module's two ends, which answer or ask at their own pace
// rather than from a watched tree.
//
// Thread contract: the session's thread, as every sender.
#pragma once

#include "Dovel/bundle/Bundle.h"
#include "Dovel/bundle/BundleSender.h"
#include "Dovel/bundle/BundleWriter.h"

#include <QByteArray>

namespace Dovel {

class PendingBundleSender : public BundleSender {
public:
    explicit PendingBundleSender(const QByteArray& moduleName);
    ~PendingBundleSender() override;

    // Appends to the pending bundle's payload.
    BundleWriterCore& writer() { return pendingWriter; }
    bool hasPending() const { return pending.size() > BundleCore::HeaderSize; }
    // The payload bytes pending (for a caller that bounds what it queues).
    uint32_t pendingBytes() const { return pending.size() - BundleCore::HeaderSize; }

    void writeUpdates(BundleOutput& output) override;

protected:
    void initialize(BundleDispatcher& dispatcher) override;

private:
    const QByteArray module;
    uint32_t messageType = NoMessageType;
    Bundle pending;
    BundleWriterCore pendingWriter{pending};
};

} // namespace Dovel
