#include "Basalt/SymbolRegistry.h"

#include "Basalt/Trace.h"

#include <limits>

namespace Basalt {

SymbolRegistry::SymbolRegistry() = default;

SymbolRegistry::~SymbolRegistry() = default;

bool SymbolRegistry::define(const QByteArray& name, uint32_t symbol) {
    if (symbol == 0)
        return false;
    std::lock_guard<RwLock> lock(mutex);
    const uint32_t id = names.insert(name);
    if (id == 0)
        return false;
    const uint32_t current = symbolOf(id);
    if (current == symbol)
        return false;
    leaveSameAsIds();
    // Unbind the name's old symbol and the symbol's old name, so that both directions
    // always agree. The old name stays in the table, bound to nothing.
    if (current != 0)
        bySymbol.remove(current);
    if (const uint32_t* old = bySymbol.find(symbol))
        setSymbolOf(*old, 0);
    setSymbolOf(id, symbol);
    bySymbol.insert(symbol, id);
    if (symbol >= next)
        next = symbol == std::numeric_limits<uint32_t>::max() ? symbol : symbol + 1;
    return true;
}

uint32_t SymbolRegistry::lookup(const QByteArray& name) const {
    std::lock_guard<RwLock> lock(mutex);
    const uint32_t id = names.find(name);
    return id ? symbolOf(id) : 0;
}

QByteArray SymbolRegistry::lookup(uint32_t symbol) const {
    std::lock_guard<RwLock> lock(mutex);
    const uint32_t id = idOf(symbol);
    return id ? names.name(id) : QByteArray();
}

bool SymbolRegistry::appendName(uint32_t symbol, QByteArray& out, uint32_t ahead) {
    std::lock_guard<RwLock> lock(mutex);
    if (ahead != 0)
        if (const uint32_t aheadId = idOf(ahead))
            names.prefetchName(aheadId);
    const uint32_t id = idOf(symbol);
    if (!id)
        return false;
    names.appendName(id, out);
    return true;
}

bool SymbolRegistry::hasLeaf(uint32_t symbol, const QByteArray& leaf) const {
    std::lock_guard<RwLock> lock(mutex);
    const uint32_t id = idOf(symbol);
    return id && names.hasLeaf(id, leaf);
}

bool SymbolRegistry::namesBelowRoot(uint32_t symbol) const {
    std::lock_guard<RwLock> lock(mutex);
    const uint32_t id = idOf(symbol);
    return id && !names.isNameOf(id, QByteArray());
}

bool SymbolRegistry::isChildOf(uint32_t symbol, uint32_t parent, const QByteArray& leaf) const {
    std::lock_guard<RwLock> lock(mutex);
    const uint32_t id = idOf(symbol);
    const uint32_t parentId = idOf(parent);
    return id && parentId && names.isChildOf(id, parentId, leaf);
}

bool SymbolRegistry::isNameOf(uint32_t symbol, const QByteArray& name) const {
    std::lock_guard<RwLock> lock(mutex);
    const uint32_t id = idOf(symbol);
    return id && names.isNameOf(id, name);
}

void SymbolRegistry::leaveSameAsIds() {
    if (!sameAsIds)
        return;
    // Ids and symbols are the same below `next`: both maps fill alike.
    for (uint32_t id = 1; id < next; ++id) {
        bySymbol.insert(id, id);
        byId.insert(id, id);
    }
    sameAsIds = false;
}

uint32_t SymbolRegistry::defineNext(uint32_t id, const QByteArray& name) {
    // Every name so far came with the next symbol; should one not, they part here.
    if (id != 0 && id != next)
        leaveSameAsIds();
    // `next` is above every defined symbol unless the top of the range was defined.
    if (id == 0 || (!sameAsIds && bySymbol.contains(next))) {
        Trace::error("SymbolRegistry::lookupOrDefine # No %s left for '%s'",
                     id == 0 ? "room" : "symbol", name.constData());
        return 0;
    }
    const uint32_t symbol = next;
    if (!sameAsIds) {
        setSymbolOf(id, symbol);
        bySymbol.insert(symbol, id);
    }
    if (next != std::numeric_limits<uint32_t>::max())
        ++next;
    return symbol;
}

uint32_t SymbolRegistry::lookupOrDefine(const QByteArray& name) {
    std::lock_guard<RwLock> lock(mutex);
    const uint32_t id = names.insert(name);
    if (const uint32_t symbol = id ? symbolOf(id) : 0)
        return symbol;
    return defineNext(id, name);
}

uint32_t SymbolRegistry::lookupChild(uint32_t parent, const QByteArray& leaf) const {
    std::lock_guard<RwLock> lock(mutex);
    const uint32_t parentId = idOf(parent);
    const uint32_t id = parentId ? names.findChild(parentId, leaf) : 0;
    return id ? symbolOf(id) : 0;
}

uint32_t SymbolRegistry::lookupOrDefineChild(uint32_t parent, const QByteArray& leaf) {
    std::lock_guard<RwLock> lock(mutex);
    const uint32_t parentId = idOf(parent);
    if (!parentId)
        return 0;
    return symbolOfChild(names.insertChild(parentId, leaf), leaf);
}

uint32_t SymbolRegistry::lookupOrDefineChild(uint32_t parent, const QByteArray& leaf,
                                             uint64_t parentHash, uint64_t hash) {
    std::lock_guard<RwLock> lock(mutex);
    const uint32_t parentId = idOf(parent);
    if (!parentId)
        return 0;
    return symbolOfChild(names.insertChild(parentId, leaf, parentHash, hash), leaf);
}

uint32_t SymbolRegistry::symbolOfChild(uint32_t id, const QByteArray& leaf) {
    if (const uint32_t symbol = id ? symbolOf(id) : 0)
        return symbol;
    return defineNext(id, leaf);
}

void SymbolRegistry::prefetch(const QByteArray& name) const {
    std::lock_guard<RwLock> lock(mutex);
    names.prefetch(name);
}

void SymbolRegistry::prefetchHashed(uint64_t hash) const {
    names.prefetchHashed(hash); // a hint, from what the table publishes for it: no lock
}

int SymbolRegistry::size() const {
    std::lock_guard<RwLock> lock(mutex);
    return sameAsIds ? names.size() : bySymbol.size();
}

} // namespace Basalt
