// The peer's symbols of one session: from each symbol the peer defined to its name.
//
// Only that direction is kept. The receivers turn the peer's symbols into names; nothing
// asks which symbol the peer gave a name, so a name bound anew leaves its older symbol
// bound too (the peer's own registry never does that). The peer numbers its symbols from
// 1 upward, so they sit in a vector indexed by symbol; sparse or hostile numbers go to a
// hash (Basalt::SymbolMap), and Limits::MaxPeerSymbols bounds what a peer may define.
//
// Not thread-safe: the session core owns it and uses it on the tree thread.
#pragma once

#include "Basalt/SymbolMap.h"

#include <QByteArray>

#include <cstdint>

namespace Dovel {

class PeerSymbols {
public:
    // Binds `symbol` to `name`, replacing its earlier name. Symbol 0 is refused. True when
    // the table changed.
    bool define(const QByteArray& name, uint32_t symbol);
    // The name of a symbol; a null array when unknown (the empty name is a name).
    QByteArray lookup(uint32_t symbol) const { return names.value(symbol); }
    // The same without a copy: null when unknown, valid until the next definition.
    const QByteArray* find(uint32_t symbol) const { return names.find(symbol); }
    int size() const { return names.size(); }

private:
    Basalt::SymbolMap<QByteArray> names;
};

} // namespace Dovel
