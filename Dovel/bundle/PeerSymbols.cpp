#include "Dovel/bundle/PeerSymbols.h"

namespace Dovel {

bool PeerSymbols::define(const QByteArray& name, uint32_t symbol) {
    if (symbol == 0)
        return false;
    const QByteArray* const current = names.find(symbol);
    if (current && *current == name)
        return false;
    // The empty name is stored non-null, so that lookup tells it from an unknown symbol.
    names.insert(symbol, name.isNull() ? QByteArray("") : name);
    return true;
}

} // namespace Dovel
