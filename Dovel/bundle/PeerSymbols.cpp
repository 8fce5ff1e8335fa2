#include "Dovel/bundle/PeerSymbols.h"

#include "Basalt/NullBytes.h"
#include "Basalt/SymbolRegistry.h"

#include <utility>

namespace Dovel {

bool PeerSymbols::define(QByteArray name, uint32_t symbol) {
    if (symbol == 0)
        return false;
    const QByteArray* const current = pending.find(symbol);
    // A pair already kept as this side's symbol is no new definition; the name the
    // symbol is bound by, given again over one that waits, settles it again.
    const uint32_t bound = local.value(symbol);
    if (bound != 0 && localNames && localNames->isNameOf(bound, name)) {
        if (!current)
            return false;
        pending.remove(symbol);
        return true;
    }
    if (current && *current == name)
        return false;
    // The empty name is stored non-null, so that lookup tells it from an unknown symbol.
    // Names wait here only until settled, so this map alone stays small while a copy's
    // symbols climb: the pages' reach follows every entry the table holds.
    if (Basalt::isNull(name))
        name = QByteArray("");
    pending.insert(symbol, std::move(name), size() + 1);
    return true;
}

QByteArray PeerSymbols::lookup(uint32_t symbol) const {
    if (const QByteArray* name = pending.find(symbol))
        return *name;
    const uint32_t known = local.value(symbol);
    return known && localNames ? localNames->lookup(known) : QByteArray();
}

void PeerSymbols::bind(uint32_t symbol, uint32_t localSymbol) {
    if (symbol != 0 && localSymbol != 0)
        local.insert(symbol, localSymbol);
}

void PeerSymbols::settle(uint32_t symbol, uint32_t localSymbol) {
    if (localNames && localSymbol != 0 && local.value(symbol) == localSymbol)
        pending.remove(symbol);
}

} // namespace Dovel
