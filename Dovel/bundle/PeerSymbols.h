// The peer's symbols of one session: from each symbol the peer defined to its name, and
// to the symbol of the path (this side's) whose session record the symbol is bound to.
//
// Only that direction is kept. The receivers turn the peer's symbols into names; nothing
// asks which symbol the peer gave a name, so a name bound anew leaves its older symbol
// bound too (the peer's own registry never does that). A name waits whole until the
// new-attribute receiver, which finds or creates its attribute by the name anyway (one
// hash of the leaf under a parent it has just looked up), binds the symbol to this
// side's symbol for it (bind, then settle); from then on it is kept as that symbol, four
// bytes instead of a path. The binding is what the session's storage finds a record by
// (AttributeStorage::findByReadSymbol); a symbol the peer names anew keeps it, as the
// storage keeps a record's binding, while the new name waits beside it. Looking
// each name up as it is defined hashed and compared a whole path per symbol, on the
// receiving side of every reconnect and of every echo of a first copy. The peer
// numbers its symbols from 1 upward, so they sit in a vector indexed by symbol; sparse or
// hostile numbers go to a hash (Basalt::SymbolMap), and Limits::MaxPeerSymbols bounds
// what a peer may define.
//
// Not thread-safe: the session core owns it and uses it on the tree thread.
#pragma once

#include "Basalt/OffsetSymbolMap.h"
#include "Basalt/SymbolMap.h"

#include <QByteArray>

#include <cstdint>

namespace Basalt {
class SymbolRegistry;
}

namespace Dovel {

class PeerSymbols {
public:
    // Settled names are kept as symbols of `local` from now on; it must outlive this
    // table.
    void shareWith(const Basalt::SymbolRegistry& local) { localNames = &local; }
    // Binds `symbol` to `name`, replacing its earlier name. Symbol 0 is refused. True when
    // the table changed.
    bool define(QByteArray name, uint32_t symbol);
    // The name of a symbol, built from its parts; a null array when unknown (the empty
    // name is a name).
    QByteArray lookup(uint32_t symbol) const;
    // The name of a symbol not settled yet, without a copy; null otherwise. Valid until
    // the next definition or settle.
    const QByteArray* pendingName(uint32_t symbol) const { return pending.find(symbol); }
    // The local symbol `symbol` is bound to, or 0.
    uint32_t boundTo(uint32_t symbol) const { return local.value(symbol); }
    // Binds `symbol` to `localSymbol` (not 0); its name, if it waits, waits on.
    void bind(uint32_t symbol, uint32_t localSymbol);
    // The symbol is bound to `localSymbol`, which this side's registry binds to the name
    // of `symbol`: lets the copy of the name go.
    void settle(uint32_t symbol, uint32_t localSymbol);
    int size() const { return local.size() + pending.size(); }

private:
    // From the peer's symbol to the local symbol it is bound to: of the same name, unless
    // a name waits for it in `pending`. A copy of the peer's tree gets symbols in the
    // peer's order, so most are the peer's plus one offset: a bit each.
    Basalt::OffsetSymbolMap local;
    // The names not settled yet.
    Basalt::SymbolMap<QByteArray> pending;
    const Basalt::SymbolRegistry* localNames = nullptr;
};

} // namespace Dovel
