#include "Basalt/SymbolRegistry.h"

#include "Basalt/Trace.h"

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

bool SymbolRegistry::define(const QByteArray& name, uint32_t symbol) {
    if (symbol == 0)
        return false;
    std::lock_guard<std::mutex> lock(mutex);
    const auto byNameIt = byName.constFind(name);
    if (byNameIt != byName.constEnd() && byNameIt.value() == symbol)
        return false;
    // Unbind the name's old symbol and the symbol's old name, so that both directions
    // always agree.
    if (byNameIt != byName.constEnd())
        bySymbol.remove(byNameIt.value());
    const QByteArray oldName = bySymbol.value(symbol);
    if (!oldName.isNull())
        byName.remove(oldName);
    const QByteArray key = stored(name);
    byName.insert(key, symbol);
    bySymbol.insert(symbol, key);
    if (symbol >= next)
        next = symbol == std::numeric_limits<uint32_t>::max() ? symbol : symbol + 1;
    return true;
}

uint32_t SymbolRegistry::lookup(const QByteArray& name) const {
    std::lock_guard<std::mutex> lock(mutex);
    return byName.value(name, 0);
}

QByteArray SymbolRegistry::lookup(uint32_t symbol) const {
    std::lock_guard<std::mutex> lock(mutex);
    return bySymbol.value(symbol);
}

uint32_t SymbolRegistry::lookupOrDefine(const QByteArray& name) {
    std::lock_guard<std::mutex> lock(mutex);
    const auto it = byName.constFind(name);
    if (it != byName.constEnd())
        return it.value();
    // `next` is above every defined symbol unless the top of the range was defined.
    if (bySymbol.contains(next)) {
        Trace::error("SymbolRegistry::lookupOrDefine # No symbol left for '%s'", name.constData());
        return 0;
    }
    const uint32_t symbol = next;
    const QByteArray key = stored(name);
    byName.insert(key, symbol);
    bySymbol.insert(symbol, key);
    if (next != std::numeric_limits<uint32_t>::max())
        ++next;
    return symbol;
}

QByteArray SymbolRegistry::sharedName(const QByteArray& name) const {
    std::lock_guard<std::mutex> lock(mutex);
    const auto it = byName.constFind(name);
    return it == byName.constEnd() ? name : it.key();
}

int SymbolRegistry::size() const {
    std::lock_guard<std::mutex> lock(mutex);
    return byName.size();
}

} // namespace Basalt
