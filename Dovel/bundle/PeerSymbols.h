// The peer's symbols of one session: from each symbol the peer defined to its name.
//
// Only that direction is kept. The receivers turn the peer's symbols into names; nothing
// asks which symbol the peer gave a name, so a name bound anew leaves its older symbol
// bound too (the peer's own registry never does that). A name that this side's registry
// holds (the peer names back nearly every path it was sent, and what it sends first is
// soon created here) is kept as this side's symbol, four bytes instead of a path. The peer
// numbers its symbols from 1 upward, so they sit in a vector indexed by symbol; sparse or
// hostile numbers go to a hash (Basalt::SymbolMap), and Limits::MaxPeerSymbols bounds
// what a peer may define.
//
// Not thread-safe: the session core owns it and uses it on the tree thread.
#pragma once

#include "Basalt/SymbolMap.h"

#include <QByteArray>

#include <cstdint>

namespace Basalt {
class SymbolRegistry;
}

namespace Dovel {

class PeerSymbols {
public:
    // Names that `local` holds are kept as its symbols from now on; it must outlive this
    // table.
    void shareWith(const Basalt::SymbolRegistry& local) { localNames = &local; }
    // Binds `symbol` to `name`, replacing its earlier name. Symbol 0 is refused. True when
    // the table changed.
    bool define(const QByteArray& name, uint32_t symbol);
    // The name of a symbol, built from its parts; a null array when unknown (the empty
    // name is a name).
    QByteArray lookup(uint32_t symbol) const;
    // The name of a symbol that this side's registry did not hold when it was defined,
    // without a copy; null otherwise. Valid until the next definition or settle.
    const QByteArray* pendingName(uint32_t symbol) const { return pending.find(symbol); }
    // Keeps `localSymbol`, which this side's registry binds to the name of `symbol`, and
    // lets the copy of the name go.
    void settle(uint32_t symbol, uint32_t localSymbol);
    int size() const { return local.size() + pending.size(); }

private:
    // From the peer's symbol to this side's symbol of the same name.
    Basalt::SymbolMap<uint32_t> local;
    // The names not known to this side's registry when they were defined.
    Basalt::SymbolMap<QByteArray> pending;
    const Basalt::SymbolRegistry* localNames = nullptr;
    // Definitions in a row whose names this side's registry did not hold. A first copy
    // names nothing this side has: past a run of them only one in every LookupEvery is
    // looked up, and a name found there resumes looking every one up. A name not looked
    // up waits whole for settle.
    static constexpr uint32_t LookupEvery = 16;
    uint32_t misses = 0;
};

} // namespace Dovel
