// The serializer and the deserializer a session record keeps for one attribute, in 24
// bytes where the two codecs take 32. Both nearly always capture the same attribute
// pointer, so those bytes are kept once beside the two calls. Codecs that keep other
// bytes (a skipping deserializer and a serializer, say) or a boxed callable are kept
// whole in a box of their own.
//
// Thread contract: a value type, as the codecs are; calling is as thread-safe as they.
#pragma once

#include "Dovel/types/AttributeCodecs.h"

namespace Dovel {

class CodecPair {
public:
    CodecPair() = default;
    CodecPair(const CodecPair& other);
    CodecPair& operator=(const CodecPair& other);
    ~CodecPair();

    bool hasSerializer() const { return write != nullptr; }
    bool hasDeserializer() const { return read != nullptr; }
    // Calls the codec, which must be there.
    void serialize(BundleWriterCore& writer) const { write(storage, writer); }
    void deserialize(BundleReaderCore& reader) const { read(storage, reader); }

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
    bool isSplit() const { return write == &splitWrite || read == &splitRead; }
    Split* split() const;
    void release();

    Serializer::Invoke write = nullptr;
    Deserializer::Invoke read = nullptr;
    // The bytes both calls take; a Split* when split.
    alignas(void*) unsigned char storage[sizeof(void*)] = {};
};

} // namespace Dovel
