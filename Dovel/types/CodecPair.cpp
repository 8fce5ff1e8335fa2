#include "Dovel/types/CodecPair.h"

#include <cstring>
#include <utility>

namespace Dovel {

CodecPair::CodecPair(const CodecPair& other) {
    assign(other.serializer(), other.deserializer());
}

CodecPair& CodecPair::operator=(const CodecPair& other) {
    if (this != &other)
        assign(other.serializer(), other.deserializer());
    return *this;
}

CodecPair::~CodecPair() {
    release();
}

void CodecPair::anchor() {}

bool CodecPair::isSplit() const {
    return writeAt == distanceOf(&splitWrite) || readAt == distanceOf(&splitRead);
}

CodecPair::Split* CodecPair::split() const {
    Split* held = nullptr;
    std::memcpy(&held, storage, sizeof held);
    return held;
}

void CodecPair::splitWrite(const void* held, BundleWriterCore& writer) {
    Split* pair = nullptr;
    std::memcpy(&pair, held, sizeof pair);
    pair->serializer(writer);
}

void CodecPair::splitRead(const void* held, BundleReaderCore& reader) {
    Split* pair = nullptr;
    std::memcpy(&pair, held, sizeof pair);
    pair->deserializer(reader);
}

Serializer CodecPair::serializer() const {
    if (isSplit())
        return split()->serializer;
    return writeAt ? Serializer::fromInline(callAt<Serializer>(writeAt), storage) : Serializer();
}

Deserializer CodecPair::deserializer() const {
    if (isSplit())
        return split()->deserializer;
    return readAt ? Deserializer::fromInline(callAt<Deserializer>(readAt), storage)
                  : Deserializer();
}

void CodecPair::setSerializer(Serializer serializer) {
    assign(std::move(serializer), deserializer());
}

void CodecPair::setDeserializer(Deserializer deserializer) {
    assign(serializer(), std::move(deserializer));
}

void CodecPair::assign(Serializer serializer, Deserializer deserializer) {
    release();
    const int32_t writeCall = distanceOf(serializer.inlineCall());
    const int32_t readCall = distanceOf(deserializer.inlineCall());
    const bool inPlace = (writeCall || !serializer) && (readCall || !deserializer);
    const bool sameBytes =
        !serializer || !deserializer ||
        std::memcmp(serializer.heldBytes(), deserializer.heldBytes(), sizeof storage) == 0;
    if (inPlace && sameBytes) {
        writeAt = writeCall;
        readAt = readCall;
        std::memcpy(storage, serializer ? serializer.heldBytes() : deserializer.heldBytes(),
                    sizeof storage);
        return;
    }
    Split* held = new Split{std::move(serializer), std::move(deserializer)};
    std::memcpy(storage, &held, sizeof held);
    writeAt = held->serializer ? distanceOf(&splitWrite) : 0;
    readAt = held->deserializer ? distanceOf(&splitRead) : 0;
}

void CodecPair::release() {
    if (isSplit())
        delete split();
    writeAt = 0;
    readAt = 0;
    std::memset(storage, 0, sizeof storage);
}

} // namespace Dovel
