// A two-way table between names (byte arrays) and u32 symbols. Thread-safe.
//
// Symbols that lookupOrDefine hands out start at 1 and only grow; 0 means "none".
// The empty name is a valid name (the root path); it is stored as a non-null empty
// array, so lookup(symbol) returns null only for an unknown symbol.
#pragma once

#include <QByteArray>
#include <QHash>

#include "Basalt/SymbolMap.h"

#include <cstdint>
#include <mutex>
#include <vector>

namespace Basalt {

class SymbolRegistry {
public:
    SymbolRegistry();
    ~SymbolRegistry();
    SymbolRegistry(const SymbolRegistry&) = delete;
    SymbolRegistry& operator=(const SymbolRegistry&) = delete;

    // Binds name and symbol, replacing any earlier binding of either; later symbols
    // from lookupOrDefine stay above it. Symbol 0 is refused. True when the table
    // changed.
    bool define(const QByteArray& name, uint32_t symbol);
    // The symbol of a name, 0 when unknown.
    uint32_t lookup(const QByteArray& name) const;
    // The name of a symbol; a null array when unknown.
    QByteArray lookup(uint32_t symbol) const;
    uint32_t lookupOrDefine(const QByteArray& name);
    // Starts loading the slot where `name` is looked up, so that a lookup or definition
    // of it a few steps later need not wait for memory: in a table of a million names
    // nearly every probe misses the cache. Changes nothing.
    void prefetch(const QByteArray& name) const;
    // The registry's own copy of `name` when it holds the name, else `name`: a caller
    // that keeps the result shares the registry's bytes instead of holding them twice.
    QByteArray sharedName(const QByteArray& name) const;
    int size() const;

private:
    // The hash of `name`, keyed by this registry's random key, so that a peer cannot
    // choose names that crowd one run of slots. Computed once per operation.
    uint64_t hashOf(const QByteArray& name) const;
    // Where the probe for a name of that hash starts: the top bits.
    size_t homeSlot(uint64_t hash) const { return size_t(hash >> (64 - slotBits)); }
    // The same for an occupied slot, from the part of the hash it keeps.
    size_t homeOfSlot(uint64_t slot) const { return size_t(slot >> (64 - slotBits)); }
    // A slot holding `symbol` for a name of that hash.
    static uint64_t slotOf(uint64_t hash, uint32_t symbol) {
        return (hash & ~uint64_t(0xffffffffu)) | symbol;
    }
    // The symbol of `name` (of that hash) and its slot in `nameSlots`; 0 when unknown.
    uint32_t findName(const QByteArray& name, uint64_t hash, size_t* slot = nullptr) const;
    uint32_t findName(const QByteArray& name) const { return findName(name, hashOf(name)); }
    // Adds a name (of that hash) that is not there yet; its bytes need not be in
    // bySymbol yet.
    void addName(uint64_t hash, uint32_t symbol);
    // Puts `slot` in the first free slot from its home on.
    void placeName(uint64_t slot);
    void removeNameAt(size_t slot);
    void rehashNames(int bits); // to 1 << bits slots

    mutable std::mutex mutex;
    // The owner of the names; a vector slot per symbol handed out.
    SymbolMap<QByteArray> bySymbol;
    // From name to symbol: an open-addressing table, probed linearly from the name's
    // hash and at most two thirds full. A slot holds a symbol in its low half (0 for a free
    // slot) and the top half of its name's hash above it, so that growing the table
    // and probing past other names never read the names themselves (a cache miss
    // each). A hash of names would cost a node per name, more than the rest of the
    // table.
    std::vector<uint64_t> nameSlots;
    int slotBits = 0; // nameSlots.size() is 1 << slotBits, at most 1 << 32
    uint64_t key[2];  // set once by the constructor
    uint32_t next = 1;
};

} // namespace Basalt
