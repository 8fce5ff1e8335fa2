// What one session's peer has made this side hold, set against what it sent: the nodes
// and attributes the receivers create for its announcements are charged (their objects,
// watching and paths, estimated), the bytes of its bundles are counted, and a creation
// that would bring the charge above Limits::MaxHeldBytesPerPeerByte per byte received
// (beyond Limits::PeerFootprintFloorBytes) is refused. A peer thus cannot make the tree
// grow faster than it sends, whatever the shape of its paths (a deep path would
// otherwise cost a node and a path of its own per component). Charges are not given
// back when things are removed: the names stay in the symbol tables.
//
// Also remembers which nodes were created for the peer, so that a node left empty when
// the peer removes its last attribute goes too.
//
// Tree thread only.
#pragma once

#include "Dovel/sync/SymbolBits.h"

#include <cstdint>

namespace Dovel {

class PeerFootprint {
public:
    // Rough costs of what is created, beside the path's bytes (charged twice for a node,
    // which is kept by its own and its watcher's records, once for an attribute).
    static constexpr int64_t NodeBytes = 640;
    static constexpr int64_t AttributeBytes = 320;

    void received(int64_t bytes) { receivedBytes += bytes; }
    // Charges the creation of a node or an attribute at a path of `pathBytes`; false,
    // charging nothing, when it does not fit.
    bool chargeNode(int64_t pathBytes) { return charge(NodeBytes + 2 * pathBytes); }
    bool chargeAttribute(int64_t pathBytes) { return charge(AttributeBytes + pathBytes); }
    int64_t held() const { return heldBytes; }
    int64_t receivedSoFar() const { return receivedBytes; }

    void nodeCreated(uint32_t symbol) { createdNodes.insert(symbol); }
    // True once: the node of `symbol` was created for the peer (and is forgotten now).
    bool takeCreatedNode(uint32_t symbol) { return createdNodes.remove(symbol); }

private:
    bool charge(int64_t bytes);

    int64_t receivedBytes = 0;
    int64_t heldBytes = 0;
    SymbolBits createdNodes; // local symbols: a bit each, not a hash entry
};

} // namespace Dovel
