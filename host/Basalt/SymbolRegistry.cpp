#include "Basalt/SymbolRegistry.h"

#include "Basalt/Trace.h"

#include <algorithm>
#include <limits>

namespace Basalt {

namespace {

// The empty name is a real name: keep it non-null so that lookup(symbol) can tell it
// from an unknown symbol.
QByteArray stored(const QByteArray& name) {
    return name.isNull() ? QByteArray("") : name;
}

} // namespace

SymbolRegistry::SymbolRegistry() = default;

SymbolRegistry::~SymbolRegistry() = default;

namespace {

size_t homeSlot(const QByteArray& name, size_t mask) {
    return size_t(qHash(name)) & mask;
}

} // namespace

uint32_t SymbolRegistry::findName(const QByteArray& name, size_t* slot) const {
    if (nameSlots.empty())
        return 0;
    const size_t mask = nameSlots.size() - 1;
    for (size_t i = homeSlot(name, mask);; i = (i + 1) & mask) {
        const uint32_t symbol = nameSlots[i];
        if (symbol == 0)
            return 0;
        if (*bySymbol.find(symbol) == name) {
            if (slot)
                *slot = i;
            return symbol;
        }
    }
}

void SymbolRegistry::addName(const QByteArray& name, uint32_t symbol) {
    if ((size_t(bySymbol.size()) + 1) * 2 > nameSlots.size())
        rehashNames(std::max<size_t>(16, nameSlots.size() * 2));
    const size_t mask = nameSlots.size() - 1;
    size_t i = homeSlot(name, mask);
    while (nameSlots[i] != 0)
        i = (i + 1) & mask;
    nameSlots[i] = symbol;
}

void SymbolRegistry::removeNameAt(size_t slot) {
    // Backward shift: an entry after the hole moves into it unless its home slot lies
    // cyclically in (hole, its slot], so that no probe sequence is broken.
    const size_t mask = nameSlots.size() - 1;
    size_t hole = slot;
    for (size_t j = (slot + 1) & mask; nameSlots[j] != 0; j = (j + 1) & mask) {
        const size_t home = homeSlot(*bySymbol.find(nameSlots[j]), mask);
        const bool stays = hole <= j ? (hole < home && home <= j) : (hole < home || home <= j);
        if (!stays) {
            nameSlots[hole] = nameSlots[j];
            hole = j;
        }
    }
    nameSlots[hole] = 0;
}

void SymbolRegistry::rehashNames(size_t slots) {
    std::vector<uint32_t> old(slots, 0);
    old.swap(nameSlots);
    const size_t mask = slots - 1;
    for (const uint32_t symbol : old) {
        if (symbol == 0)
            continue;
        size_t i = homeSlot(*bySymbol.find(symbol), mask);
        while (nameSlots[i] != 0)
            i = (i + 1) & mask;
        nameSlots[i] = symbol;
    }
}

bool SymbolRegistry::define(const QByteArray& name, uint32_t symbol) {
    if (symbol == 0)
        return false;
    std::lock_guard<std::mutex> lock(mutex);
    size_t slot = 0;
    const uint32_t current = findName(name, &slot);
    if (current == symbol)
        return false;
    // Unbind the name's old symbol and the symbol's old name, so that both directions
    // always agree.
    if (current != 0) {
        removeNameAt(slot);
        bySymbol.remove(current);
    }
    if (const QByteArray* oldName = bySymbol.find(symbol)) {
        if (findName(*oldName, &slot) == symbol)
            removeNameAt(slot);
        bySymbol.remove(symbol);
    }
    const QByteArray key = stored(name);
    addName(key, symbol);
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
    if (const uint32_t known = findName(name))
        return known;
    // `next` is above every defined symbol unless the top of the range was defined.
    if (bySymbol.contains(next)) {
        Trace::error("SymbolRegistry::lookupOrDefine # No symbol left for '%s'", name.constData());
        return 0;
    }
    const uint32_t symbol = next;
    const QByteArray key = stored(name);
    addName(key, symbol);
    bySymbol.insert(symbol, key);
    if (next != std::numeric_limits<uint32_t>::max())
        ++next;
    return symbol;
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
