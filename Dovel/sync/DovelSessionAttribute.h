// The state that one session keeps for one synchronised attribute: the symbols of its
// path on both sides, the codecs of both directions and the sequence numbers that
// guard against stale values. Records are owned by AttributeStorage and changed only
// on the tree thread.
#pragma once

#include "Dovel/types/CodecPair.h"
#include "Dovel/types/TypeCodes.h"

#include <cstdint>

namespace Dovel {

struct DovelSessionAttribute {
    // A fixed size beyond any bundle is kept as this one, which no bundle holds either:
    // skipping a value of either size fails alike.
    static constexpr uint32_t MaxFixedSize = (1u << 27) - 1;
    // The type code kept for a code above every one this side knows (TypeCodeLimit):
    // no deserializer is made for either.
    static constexpr uint8_t UnknownTypeCode = uint8_t(TypeCodeLimit);

    DovelSessionAttribute()
        : fixedSize(0), localOrigin(true), removedByPeer(false), removedLocally(false),
          announcedByPeer(false), valueReceived(false) {}

    // The peer's type code; 0 when unknown or after a removal by the peer.
    uint32_t typeCode() const { return peerTypeCode; }
    void setTypeCode(uint32_t code) {
        peerTypeCode = uint8_t(code < UnknownTypeCode ? code : UnknownTypeCode);
    }

    // The deserializer reads one value of the peer's type and applies it to the local
    // attribute; the serializer writes the local attribute's current value.
    CodecPair codecs;
    // Symbol of the path in the remote node's registry.
    uint32_t localSymbol = 0;
    // Sequence number of the bundle that carried this side's last value.
    uint32_t lastSentSequence = 0;
    // The peer's fixed value size (at most MaxFixedSize); 0 for length-prefixed values.
    uint32_t fixedSize : 27;
    // The attribute existed on this side when the record was made or completed.
    uint32_t localOrigin : 1;
    // The peer removed the attribute: its changes and removal are no longer sent.
    uint32_t removedByPeer : 1;
    // Removed on this side and not announced again since.
    uint32_t removedLocally : 1;
    // The peer announced the attribute: its symbol for the path (the read symbol) is
    // what the storage finds the record by (AttributeStorage::findByReadSymbol).
    uint32_t announcedByPeer : 1;
    // The last value applied from the peer came in a bundle of a sequence number
    // other than 0; false when none was applied since the record was made or removed.
    uint32_t valueReceived : 1;

private:
    uint8_t peerTypeCode = 0;
};
// A session holds one per attribute on each side, side by side. What this side
// announces (type code and size) is the serializer's to know, not the record's; what
// the peer's symbol and sequence numbers are is the storage's and the bundle's.
static_assert(sizeof(void*) != 8 || sizeof(DovelSessionAttribute) <= 32,
              "a session record should stay within 32 bytes");

// A deserializer that reads past one value without applying it: `fixedSize` bytes, or
// a length word and that many bytes when `fixedSize` is 0 (padded to 4 either way).
Deserializer skippingDeserializer(uint32_t fixedSize);

} // namespace Dovel
