// A two-way table between names (byte arrays, read as '/'-separated paths) and u32
// symbols. Thread-safe.
//
// Symbols that lookupOrDefine hands out start at 1 and only grow; 0 means "none".
// The empty name is a valid name (the root path); it is stored as a non-null empty
// array, so lookup(symbol) returns null only for an unknown symbol. Names are kept in a
// PathTable, as their parent and leaf: lookup(symbol) builds the name it returns. Names
// and leaves are kept sharing the caller's bytes, so they must own them (no
// QByteArray::fromRawData views).
#pragma once

#include "Basalt/PathTable.h"
#include "Basalt/RwLock.h"
#include "Basalt/SymbolMap.h"

#include <QByteArray>

#include <cstdint>
#include <mutex>

namespace Basalt {

class SymbolRegistry {
public:
    SymbolRegistry();
    ~SymbolRegistry();
    SymbolRegistry(const SymbolRegistry&) = delete;
    SymbolRegistry& operator=(const SymbolRegistry&) = delete;

    // Binds name and symbol, replacing any earlier binding of either; later symbols
    // from lookupOrDefine stay above it. Symbol 0 is refused. True when the table
    // changed. A name unbound so stays in the table (names are never removed): this is
    // for tables that are seldom rebound, not for a peer's.
    bool define(const QByteArray& name, uint32_t symbol);
    // The symbol of a name, 0 when unknown.
    uint32_t lookup(const QByteArray& name) const;
    // The name of a symbol; a null array when unknown.
    QByteArray lookup(uint32_t symbol) const;
    // Appends the name of a symbol to `out` (without a copy of its own on the way); false,
    // appending nothing, when the symbol is unknown. `ahead`, when not 0, is a symbol to
    // be named a few places on: what naming it will need starts loading now.
    bool appendName(uint32_t symbol, QByteArray& out, uint32_t ahead = 0);
    // Whether the last component of the name of a symbol (the bytes after its last '/')
    // is `leaf`, without building or copying anything; false for an unknown symbol.
    bool hasLeaf(uint32_t symbol, const QByteArray& leaf) const;
    // Whether a name other than the empty one (the root's) is bound to `symbol`.
    bool namesBelowRoot(uint32_t symbol) const;
    // Whether `symbol` is bound to the child `leaf` of the name bound to `parent`, as
    // stored under it: a quick check that builds and hashes nothing, and whose false
    // answer leaves the question open (the name may have been kept whole).
    bool isChildOf(uint32_t symbol, uint32_t parent, const QByteArray& leaf) const;
    // Whether `name` is bound to `symbol`: lookup(symbol) == name without building it.
    bool isNameOf(uint32_t symbol, const QByteArray& name) const;
    uint32_t lookupOrDefine(const QByteArray& name);
    // The same for the child `leaf` of the name bound to `parent` (under the empty name:
    // the leaf alone), without building its path; 0 when `parent` is unknown.
    uint32_t lookupChild(uint32_t parent, const QByteArray& leaf) const;
    uint32_t lookupOrDefineChild(uint32_t parent, const QByteArray& leaf);
    // The same for a caller that has hashed the child's name already: `hash` must be
    // hashChild(parentHash, leaf). It is taken when `parentHash` is the hash of the
    // parent's name (hashOf); otherwise the child is hashed anew.
    uint32_t lookupOrDefineChild(uint32_t parent, const QByteArray& leaf, uint64_t parentHash,
                                 uint64_t hash);
    // Starts loading the slot where `name` is looked up, so that doing so a few steps
    // later need not wait for memory. Changes nothing.
    void prefetch(const QByteArray& name) const;
    // The hashes names are looked up by (see PathTable): a caller that looks ahead at
    // many names under one parent hashes the parent once. They read only the table's
    // key, which never changes, and need no lock.
    uint64_t hashOf(const char* bytes, int size, uint64_t* prefixHash) const {
        return names.hashOf(bytes, size, prefixHash);
    }
    uint64_t hashChild(uint64_t parent, const char* leaf, int size) const {
        return names.hashChild(parent, leaf, size);
    }
    // prefetch for a name of hash `hash`; takes no lock.
    void prefetchHashed(uint64_t hash) const;
    int size() const;

private:
    // Binds a fresh symbol to the name of `id`; 0 when none is left.
    uint32_t defineNext(uint32_t id, const QByteArray& name);
    // The symbol of the child entry `id` (0: no room), defined when it has none.
    uint32_t symbolOfChild(uint32_t id, const QByteArray& leaf);
    // Binds each id below `next` to itself in both maps and clears sameAsIds (once).
    void leaveSameAsIds();
    // The id in `names` of the name bound to `symbol`, 0 when none.
    uint32_t idOf(uint32_t symbol) const {
        if (sameAsIds)
            return symbol < next ? symbol : 0;
        return bySymbol.value(symbol, 0);
    }
    // The symbol bound to the name of `id`, 0 when none.
    uint32_t symbolOf(uint32_t id) const {
        if (sameAsIds)
            return id < next ? id : 0;
        return byId.value(id, 0);
    }
    // Binds (or with 0 unbinds) the name of `id` to `symbol`; once not sameAsIds.
    void setSymbolOf(uint32_t id, uint32_t symbol) {
        if (symbol)
            byId.insert(id, symbol);
        else
            byId.remove(id);
    }

    mutable RwLock mutex; // held exclusively
    // Every name ever bound.
    PathTable names;
    // While only lookupOrDefine has bound names, each name came with the next symbol,
    // which is then also its id in `names` (the ids below `next` are bound): a tree's
    // registry needs neither of the maps below nor the cache miss of reading one for
    // every symbol it turns into a name. The first define, or the first name that does
    // not come with the next symbol, fills them and clears the flag for good.
    bool sameAsIds = true;
    // From symbol to the id of its name in `names`, and back (empty while sameAsIds).
    SymbolMap<uint32_t> bySymbol;
    SymbolMap<uint32_t> byId;
    uint32_t next = 1;
};

} // namespace Basalt
