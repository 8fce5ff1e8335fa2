// The receiver of "Quillon.Dovel.AttributeRemove": destroys the local attributes that
// the peer created and has now removed (without sending the removal back) and resets
// the session state of every removed attribute, so that updates still under way are
// read past. Attributes of local origin are never destroyed by the peer. Lives on the
// tree thread; the node, storage and sender outlive it.
#pragma once

#include "Dovel/bundle/BundleReceiver.h"

namespace Dovel {

class AttributeStorage;
class NodeChangeSender;
class PeerWriteRules;
class RemoteNode;

class AttributeRemoveReceiver : public BundleReceiver {
public:
    AttributeRemoveReceiver(RemoteNode& node, AttributeStorage& storage, NodeChangeSender& sender);
    ~AttributeRemoveReceiver() override;

    void handleBundle(BundleReader& reader) override;
    // What the peer may change; null (the default): everything. Outlives the receiver.
    void setWriteRules(const PeerWriteRules* rules) { writeRules = rules; }

private:
    RemoteNode& node;
    AttributeStorage& storage;
    NodeChangeSender& sender;
    const PeerWriteRules* writeRules = nullptr;
};

} // namespace Dovel
