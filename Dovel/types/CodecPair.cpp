#include "Dovel/types/CodecPair.h"

#include <cstring>
#include <stdexcept>
#include <utility>

namespace Dovel {

namespace {

// What the distances are taken from; never a codec's call, so 0 stands for none. Both
// ways between calls and distances are taken here, in this library, so that they agree
// on where it lies.
void anchor() {}

// The distance of `call` from the anchor; 0 when null or too far for 32 bits.
template <typename Call> int32_t distanceOf(Call call) {
    if (!call)
        return 0;
    const int64_t distance =
        int64_t(reinterpret_cast<intptr_t>(call)) - int64_t(reinterpret_cast<intptr_t>(&anchor));
    return distance >= INT32_MIN && distance <= INT32_MAX ? int32_t(distance) : 0;
}

template <typename C> typename C::Invoke callAt(int32_t distance) {
    return reinterpret_cast<typename C::Invoke>(reinterpret_cast<intptr_t>(&anchor) + distance);
}

} // namespace

CodecPair::CodecPair(const CodecPair& other) {
    assign(other.serializer(), other.deserializer());
}

CodecPair& CodecPair::operator=(const CodecPair& other) {
    if (this != &other)
        assign(other.serializer(), other.deserializer());
    return *this;
}

CodecPair::~CodecPair() {
    if (isSplit())
        delete split();
}

bool CodecPair::isSplit() const {
    return writeAt == distanceOf(&splitWrite) || readAt == distanceOf(&splitRead);
}

CodecPair::Split* CodecPair::split() const {
    Split* held = nullptr;
    std::memcpy(&held, storage, sizeof held);
    return held;
}

// The codec is called through a copy of its own (a box's count, or its bytes): what it
// sets off may replace the pair's codecs, and with them the box, while it runs.
void CodecPair::splitWrite(const void* held, BundleWriterCore& writer) {
    Split* pair = nullptr;
    std::memcpy(&pair, held, sizeof pair);
    const Serializer serializer = pair->serializer;
    serializer(writer);
}

void CodecPair::splitRead(const void* held, BundleReaderCore& reader) {
    Split* pair = nullptr;
    std::memcpy(&pair, held, sizeof pair);
    const Deserializer deserializer = pair->deserializer;
    deserializer(reader);
}

void CodecPair::serialize(BundleWriterCore& writer) const {
    if (!writeAt)
        throw std::logic_error("CodecPair: no serializer");
    callAt<Serializer>(writeAt)(storage, writer);
}

void CodecPair::deserialize(BundleReaderCore& reader) const {
    if (!readAt)
        throw std::logic_error("CodecPair: no deserializer");
    callAt<Deserializer>(readAt)(storage, reader);
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

// Each record gets one codec after the other, the second sharing the first's bytes:
// that is set in place, without taking the other codec out and putting both back.
bool CodecPair::setInPlace(int32_t& at, int32_t call, const void* bytes, bool otherHeld) {
    if (!call || isSplit() || (otherHeld && std::memcmp(bytes, storage, sizeof storage) != 0))
        return false;
    std::memcpy(storage, bytes, sizeof storage);
    at = call;
    return true;
}

void CodecPair::setSerializer(Serializer serializer) {
    if (setInPlace(writeAt, distanceOf(serializer.inlineCall()), serializer.heldBytes(),
                   readAt != 0))
        return;
    assign(std::move(serializer), deserializer());
}

void CodecPair::setDeserializer(Deserializer deserializer) {
    if (setInPlace(readAt, distanceOf(deserializer.inlineCall()), deserializer.heldBytes(),
                   writeAt != 0))
        return;
    assign(serializer(), std::move(deserializer));
}

void CodecPair::assign(Serializer serializer, Deserializer deserializer) {
    // The new state is made whole before the old one goes: a failed allocation leaves
    // the pair as it was.
    int32_t newWrite = distanceOf(serializer.inlineCall());
    int32_t newRead = distanceOf(deserializer.inlineCall());
    const bool inPlace = (newWrite || !serializer) && (newRead || !deserializer);
    const bool sameBytes =
        !serializer || !deserializer ||
        std::memcmp(serializer.heldBytes(), deserializer.heldBytes(), sizeof storage) == 0;
    unsigned char newStorage[sizeof storage];
    if (inPlace && sameBytes) {
        std::memcpy(newStorage, serializer ? serializer.heldBytes() : deserializer.heldBytes(),
                    sizeof newStorage);
    } else {
        Split* held = new Split{std::move(serializer), std::move(deserializer)};
        std::memcpy(newStorage, &held, sizeof held);
        newWrite = held->serializer ? distanceOf(&splitWrite) : 0;
        newRead = held->deserializer ? distanceOf(&splitRead) : 0;
    }
    Split* const old = isSplit() ? split() : nullptr;
    writeAt = newWrite;
    readAt = newRead;
    std::memcpy(storage, newStorage, sizeof storage);
    delete old;
}

} // namespace Dovel
