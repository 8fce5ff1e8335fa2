#include "Dovel/bundle/PeerSymbols.h"

#include "Basalt/SymbolRegistry.h"

namespace Dovel {

bool PeerSymbols::define(const QByteArray& name, uint32_t symbol) {
    if (symbol == 0)
        return false;
    // A pair already kept as this side's symbol is no new definition.
    const uint32_t settled = local.value(symbol);
    if (settled != 0 && localNames && localNames->isNameOf(settled, name))
        return false;
    const QByteArray* const current = pending.find(symbol);
    if (current && *current == name)
        return false;
    if (settled != 0)
        local.remove(symbol);
    // The empty name is stored non-null, so that lookup tells it from an unknown symbol.
    // Names wait here only until settled, so this map alone stays small while a copy's
    // symbols climb: the pages' reach follows every entry the table holds.
    if (name.isNull())
        pending.insert(symbol, QByteArray(""), size() + 1);
    else
        pending.insert(symbol, name, size() + 1);
    return true;
}

QByteArray PeerSymbols::lookup(uint32_t symbol) const {
    if (const QByteArray* name = pending.find(symbol))
        return *name;
    const uint32_t known = local.value(symbol);
    return known ? localNames->lookup(known) : QByteArray();
}

void PeerSymbols::settle(uint32_t symbol, uint32_t localSymbol) {
    if (localNames && localSymbol != 0 && pending.remove(symbol))
        local.insert(symbol, localSymbol);
}

} // namespace Dovel
