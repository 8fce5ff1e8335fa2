// The receiver of "Quillon.Dovel.AttributeUpdate": applies each value the peer sends
// to the attribute bound to the peer's symbol, bracketed by the sender's ignoreOne and
// stopIgnoring so that the change does not travel back. Lives on the tree thread; the
// storage and the sender belong to the same session and outlive it.
#pragma once

#include "Dovel/bundle/BundleReceiver.h"

namespace Dovel {

class AttributeStorage;
class NodeChangeSender;
class PeerWriteRules;

class AttributeUpdateReceiver : public BundleReceiver {
public:
    AttributeUpdateReceiver(AttributeStorage& storage, NodeChangeSender& sender);
    ~AttributeUpdateReceiver() override;

    // An unbound symbol abandons the rest of the bundle: the value's length is unknown.
    void handleBundle(BundleReader& reader) override;

    // Stale-update skipping: an update written before the peer saw this side's latest
    // value of the attribute is read past. The session's master turns it on.
    bool skipStaleUpdates() const { return skipStale; }
    void setSkipStaleUpdates(bool skip) { skipStale = skip; }
    // What the peer may change; null (the default): everything. Outlives the receiver.
    void setWriteRules(const PeerWriteRules* rules) { writeRules = rules; }

private:
    AttributeStorage& storage;
    NodeChangeSender& sender;
    bool skipStale = false;
    const PeerWriteRules* writeRules = nullptr;
};

} // namespace Dovel
