// The receiver of "Quillon.Dovel.AttributeRemove": destroys the local attributes that
// the peer created and has now removed (without sending the removal back) and resets
// the session state of every removed attribute, so that updates still under way are
// read past. Attributes of local origin are never destroyed by the peer. Lives on the
// tree thread; the node, storage and sender outlive it.
#pragma once

#include "Dovel/bundle/BundleReceiver.h"

namespace Tessel {
class Node;
}

namespace Dovel {

class AttributeStorage;
class NodeChangeSender;
class PeerFootprint;
class PeerWriteRules;
class RemoteNode;

class AttributeRemoveReceiver : public BundleReceiver {
public:
    AttributeRemoveReceiver(RemoteNode& node, AttributeStorage& storage, NodeChangeSender& sender);
    ~AttributeRemoveReceiver() override;

    void handleBundle(BundleReader& reader) override;
    // What the peer may change; null (the default): everything. Outlives the receiver.
    void setWriteRules(const PeerWriteRules* rules) { writeRules = rules; }
    // Where the nodes created for the peer are remembered: one its removal leaves empty
    // goes too. Null: none is removed. Outlives the receiver.
    void setFootprint(PeerFootprint* footprint) { this->footprint = footprint; }

private:
    RemoteNode& node;
    AttributeStorage& storage;
    NodeChangeSender& sender;
    const PeerWriteRules* writeRules = nullptr;
    PeerFootprint* footprint = nullptr;
    // Removes `node` and its ancestors while they are empty and were made for the peer.
    void removeEmptyCreated(Tessel::Node* node);
};

} // namespace Dovel
