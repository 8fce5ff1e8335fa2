#include "Basalt/SymbolRegistry.h"

#include "Basalt/BackwardShift.h"
#include "Basalt/Trace.h"

#include <QRandomGenerator>

#include <algorithm>
#include <cstring>
#include <limits>

namespace Basalt {

namespace {

// The empty name is a real name: keep it non-null so that lookup(symbol) can tell it
// from an unknown symbol.
QByteArray stored(const QByteArray& name) {
    return name.isNull() ? QByteArray("") : name;
}

// SipHash-1-3 of the bytes under a 128-bit key: unlike Qt's byte-array hash (a CRC on
// most machines, whose collisions can be made without knowing the seed), its outputs
// cannot be steered without the key.
uint64_t keyedHash(const char* bytes, size_t size, const uint64_t key[2]) {
    const auto rotate = [](uint64_t x, int bits) { return (x << bits) | (x >> (64 - bits)); };
    uint64_t v0 = 0x736f6d6570736575ull ^ key[0];
    uint64_t v1 = 0x646f72616e646f6dull ^ key[1];
    uint64_t v2 = 0x6c7967656e657261ull ^ key[0];
    uint64_t v3 = 0x7465646279746573ull ^ key[1];
    const auto round = [&] {
        v0 += v1;
        v1 = rotate(v1, 13);
        v1 ^= v0;
        v0 = rotate(v0, 32);
        v2 += v3;
        v3 = rotate(v3, 16);
        v3 ^= v2;
        v0 += v3;
        v3 = rotate(v3, 21);
        v3 ^= v0;
        v2 += v1;
        v1 = rotate(v1, 17);
        v1 ^= v2;
        v2 = rotate(v2, 32);
    };
    const char* const whole = bytes + (size & ~size_t(7));
    for (; bytes != whole; bytes += 8) {
        uint64_t word;
        std::memcpy(&word, bytes, 8);
        v3 ^= word;
        round();
        v0 ^= word;
    }
    uint64_t last = uint64_t(size) << 56;
    for (size_t i = 0; i < (size & 7); ++i)
        last |= uint64_t(uint8_t(bytes[i])) << (8 * i);
    v3 ^= last;
    round();
    v0 ^= last;
    v2 ^= 0xff;
    round();
    round();
    round();
    return v0 ^ v1 ^ v2 ^ v3;
}

} // namespace

SymbolRegistry::SymbolRegistry() {
    key[0] = QRandomGenerator::system()->generate64();
    key[1] = QRandomGenerator::system()->generate64();
}

SymbolRegistry::~SymbolRegistry() = default;

uint64_t SymbolRegistry::hashOf(const QByteArray& name) const {
    return keyedHash(name.constData(), size_t(name.size()), key);
}

uint32_t SymbolRegistry::findName(const QByteArray& name, uint64_t hash, size_t* slot) const {
    if (nameSlots.empty())
        return 0;
    const size_t mask = nameSlots.size() - 1;
    const uint64_t high = slotOf(hash, 0);
    for (size_t i = homeSlot(hash);; i = (i + 1) & mask) {
        const uint64_t entry = nameSlots[i];
        if (entry == 0)
            return 0;
        const uint32_t symbol = uint32_t(entry);
        if (entry - symbol == high && *bySymbol.find(symbol) == name) {
            if (slot)
                *slot = i;
            return symbol;
        }
    }
}

void SymbolRegistry::addName(uint64_t hash, uint32_t symbol) {
    if ((size_t(bySymbol.size()) + 1) * 3 > nameSlots.size() * 2)
        rehashNames(std::max(4, slotBits + 1));
    placeName(slotOf(hash, symbol));
}

void SymbolRegistry::placeName(uint64_t slot) {
    const size_t mask = nameSlots.size() - 1;
    size_t i = homeOfSlot(slot);
    while (nameSlots[i] != 0)
        i = (i + 1) & mask;
    nameSlots[i] = slot;
}

void SymbolRegistry::removeNameAt(size_t slot) {
    removeByBackwardShift(nameSlots, slot, [this](uint64_t entry) { return homeOfSlot(entry); });
}

void SymbolRegistry::rehashNames(int bits) {
    std::vector<uint64_t> old(size_t(1) << bits, 0);
    old.swap(nameSlots);
    slotBits = bits;
    for (const uint64_t slot : old)
        if (slot != 0)
            placeName(slot);
}

bool SymbolRegistry::define(const QByteArray& name, uint32_t symbol) {
    if (symbol == 0)
        return false;
    std::lock_guard<std::mutex> lock(mutex);
    size_t slot = 0;
    const uint64_t hash = hashOf(name);
    const uint32_t current = findName(name, hash, &slot);
    if (current == symbol)
        return false;
    // Unbind the name's old symbol and the symbol's old name, so that both directions
    // always agree.
    if (current != 0) {
        removeNameAt(slot);
        bySymbol.remove(current);
    }
    if (const QByteArray* oldName = bySymbol.find(symbol)) {
        if (findName(*oldName, hashOf(*oldName), &slot) == symbol)
            removeNameAt(slot);
        bySymbol.remove(symbol);
    }
    const QByteArray key = stored(name);
    addName(hash, symbol);
    bySymbol.insert(symbol, key);
    if (symbol >= next)
        next = symbol == std::numeric_limits<uint32_t>::max() ? symbol : symbol + 1;
    return true;
}

uint32_t SymbolRegistry::lookup(const QByteArray& name) const {
    std::lock_guard<std::mutex> lock(mutex);
    return findName(name);
}

QByteArray SymbolRegistry::lookup(uint32_t symbol) const {
    std::lock_guard<std::mutex> lock(mutex);
    return bySymbol.value(symbol);
}

uint32_t SymbolRegistry::lookupOrDefine(const QByteArray& name) {
    std::lock_guard<std::mutex> lock(mutex);
    const uint64_t hash = hashOf(name);
    if (const uint32_t known = findName(name, hash))
        return known;
    // `next` is above every defined symbol unless the top of the range was defined.
    if (bySymbol.contains(next)) {
        Trace::error("SymbolRegistry::lookupOrDefine # No symbol left for '%s'", name.constData());
        return 0;
    }
    const uint32_t symbol = next;
    const QByteArray key = stored(name);
    addName(hash, symbol);
    bySymbol.insert(symbol, key);
    if (next != std::numeric_limits<uint32_t>::max())
        ++next;
    return symbol;
}

void SymbolRegistry::prefetch(const QByteArray& name) const {
    std::lock_guard<std::mutex> lock(mutex);
    if (!nameSlots.empty())
        __builtin_prefetch(&nameSlots[homeSlot(hashOf(name))]);
}

QByteArray SymbolRegistry::sharedName(const QByteArray& name) const {
    std::lock_guard<std::mutex> lock(mutex);
    const uint32_t symbol = findName(name);
    return symbol == 0 ? name : *bySymbol.find(symbol);
}

int SymbolRegistry::size() const {
    std::lock_guard<std::mutex> lock(mutex);
    return bySymbol.size();
}

} // namespace Basalt
