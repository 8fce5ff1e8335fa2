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
    // Calls the codec, which must be there.
    void serialize(BundleWriterCore& writer) const { callAt<Serializer>(writeAt)(storage, writer); }
    void deserialize(BundleReaderCore& reader) const {
        callAt<Deserializer>(readAt)(storage, reader);
    }

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
    // What the distances are taken from; never a codec's call, so 0 stands for none.
    static void anchor();
    // The distance of `call` from the anchor; 0 when null or too far for 32 bits.
    template <typename Call> static int32_t distanceOf(Call call) {
        if (!call)
            return 0;
        const int64_t distance = int64_t(reinterpret_cast<intptr_t>(call)) -
                                 int64_t(reinterpret_cast<intptr_t>(&anchor));
        return distance >= INT32_MIN && distance <= INT32_MAX ? int32_t(distance) : 0;
    }
    template <typename C> static typename C::Invoke callAt(int32_t distance) {
        return reinterpret_cast<typename C::Invoke>(reinterpret_cast<intptr_t>(&anchor) + distance);
    }
    bool isSplit() const;
    Split* split() const;
    void release();

    int32_t writeAt = 0;
    int32_t readAt = 0;
    // The bytes both calls take; a Split* when split.
    alignas(void*) unsigned char storage[sizeof(void*)] = {};
};

} // namespace Dovel
