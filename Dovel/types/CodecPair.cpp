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
    return write ? Serializer::fromInline(write, storage) : Serializer();
}

Deserializer CodecPair::deserializer() const {
    if (isSplit())
        return split()->deserializer;
    return read ? Deserializer::fromInline(read, storage) : Deserializer();
}

void CodecPair::setSerializer(Serializer serializer) {
    assign(std::move(serializer), deserializer());
}

void CodecPair::setDeserializer(Deserializer deserializer) {
    assign(serializer(), std::move(deserializer));
}

void CodecPair::assign(Serializer serializer, Deserializer deserializer) {
    release();
    const auto writeCall = serializer.inlineCall();
    const auto readCall = deserializer.inlineCall();
    const bool inPlace = (writeCall || !serializer) && (readCall || !deserializer);
    const bool sameBytes =
        !serializer || !deserializer ||
        std::memcmp(serializer.heldBytes(), deserializer.heldBytes(), sizeof storage) == 0;
    if (inPlace && sameBytes) {
        write = writeCall;
        read = readCall;
        std::memcpy(storage, serializer ? serializer.heldBytes() : deserializer.heldBytes(),
                    sizeof storage);
        return;
    }
    Split* held = new Split{std::move(serializer), std::move(deserializer)};
    std::memcpy(storage, &held, sizeof held);
    write = held->serializer ? &splitWrite : nullptr;
    read = held->deserializer ? &splitRead : nullptr;
}

void CodecPair::release() {
    if (isSplit())
        delete split();
    write = nullptr;
    read = nullptr;
    std::memset(storage, 0, sizeof storage);
}

} // namespace Dovel
