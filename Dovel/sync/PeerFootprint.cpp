#include "Dovel/sync/PeerFootprint.h"

#include "Dovel/Limits.h"

namespace Dovel {

bool PeerFootprint::charge(int64_t bytes) {
    const int64_t allowed =
        Limits::PeerFootprintFloorBytes + Limits::MaxHeldBytesPerPeerByte * receivedBytes;
    if (heldBytes + bytes > allowed)
        return false;
    heldBytes += bytes;
    return true;
}

} // namespace Dovel
