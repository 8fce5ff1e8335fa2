// The serializer and the deserializer a session record keeps for one attribute, in 16
// bytes where the two codecs take 32. Both nearly always capture the same attribute
// pointer, so those bytes are kept once; and the two calls are kept as 32-bit distances
// from a function of this library, which the codecs' calls, instantiated with it, lie
// close to. Codecs that keep other bytes (a skipping deserializer and a serializer,
// say), a boxed callable, or a call too far away (made in another binary) are kept
// whole in a box of their own.
//
// Thread contract: a value type, as the codecs are; calling is as thread-safe as they.
#pragma once

#include "Dovel/types/AttributeCodecs.h"

#include <cstdint>

namespace Dovel {

class CodecPair {
public:
    CodecPair() = default;
    CodecPair(const CodecPair& other);
    CodecPair& operator=(const CodecPair& other);
    ~CodecPair();

    bool hasSerializer() const { return writeAt != 0; }
    bool hasDeserializer() const { return readAt != 0; }
    // Calls the codec; throws std::logic_error when there is none, which ends the
    // bundle being read or written as a malformed value would.
    void serialize(BundleWriterCore& writer) const;
    void deserialize(BundleReaderCore& reader) const;

    Serializer serializer() const;
    Deserializer deserializer() const;
    void setSerializer(Serializer serializer);
    void setDeserializer(Deserializer deserializer);
    // Both at once, each possibly empty: what the two setters do, without boxing in
    // between what ends up sharing its bytes.
    void assign(Serializer serializer, Deserializer deserializer);

private:
    struct Split {
        Serializer serializer;
        Deserializer deserializer;
    };
    static void splitWrite(const void* held, BundleWriterCore& writer);
    static void splitRead(const void* held, BundleReaderCore& reader);
    bool isSplit() const;
    // Puts a codec's call at `at` and its bytes in place, when it is inline, the pair is
    // not split and the other codec (if `otherHeld`) holds the same bytes: true if done.
    bool setInPlace(int32_t& at, int32_t call, const void* bytes, bool otherHeld);
    Split* split() const;

    int32_t writeAt = 0;
    int32_t readAt = 0;
    // The bytes both calls take; a Split* when split.
    alignas(void*) unsigned char storage[sizeof(void*)] = {};
};

} // namespace Dovel
