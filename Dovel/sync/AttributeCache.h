// Maps the symbols of synchronised paths to the live attributes of the local tree and
// back, and remembers which symbols name nodes. The node watcher fills and empties it;
// the sender and the receivers look attributes up in it.
//
// Back from attribute to symbol: an attribute the watcher observes (its TreeObserver
// slot) carries its own path's symbol itself; only the few it watches otherwise (aliases,
// what is seen through them, what another watcher observes) are kept in a map.
//
// Thread-safe: every table is guarded by `lock` (readers share it), except symbolOf,
// which reads the attribute and so belongs to the tree thread. No operation calls out
// while holding the lock except the error log.
#pragma once

#include "Dovel/sync/SymbolBits.h"

#include "Basalt/PointerMap.h"
#include "Basalt/RwLock.h"
#include "Basalt/SymbolMap.h"

#include <atomic>
#include <cstdint>
#include <mutex>
#include <shared_mutex>
#include <vector>

namespace Tessel {
class Attribute;
class TreeObserver;
} // namespace Tessel

namespace Dovel {

class AttributeCache {
public:
    AttributeCache();
    AttributeCache(const AttributeCache&) = delete;
    AttributeCache& operator=(const AttributeCache&) = delete;

    // True when the pair is present afterwards; false (logged, nothing changed) when the
    // symbol already names another attribute, and false for a null attribute. Never
    // touches the node set.
    bool add(unsigned int symbol, Tessel::Attribute* attribute);
    // The attribute of the symbol, or null.
    Tessel::Attribute* find(unsigned int symbol) const;
    // The attribute of the symbol; when there is none, `attribute` is added under it and
    // returned (null adds nothing). A find and an add under one write lock, silent
    // when the symbol names another attribute.
    Tessel::Attribute* findOrAdd(unsigned int symbol, Tessel::Attribute* attribute);
    // A batch of find under one read lock: out[i] is the attribute of symbolAt(i) or null.
    template <typename SymbolAt>
    void findAll(size_t count, SymbolAt symbolAt, std::vector<Tessel::Attribute*>& out) const {
        std::shared_lock<Basalt::RwLock> locker(lock);
        out.resize(count);
        for (size_t i = 0; i < count; ++i)
            out[i] = bySymbol.value(symbolAt(i));
    }
    // The watcher whose observer slots symbolOf reads (null: none).
    void setObserver(const Tessel::TreeObserver* observer);
    // Lets symbolOf find a cached attribute that the watcher does not observe.
    void index(unsigned int symbol, Tessel::Attribute* attribute);
    // The symbol of an observed attribute (its own path's), else of an indexed one, or
    // 0 (tree thread).
    unsigned int symbolOf(Tessel::Attribute* attribute) const;
    // The symbol of an observed attribute, or 0 (tree thread).
    unsigned int observedSymbolOf(const Tessel::Attribute& attribute) const;
    // Drops the symbol from both maps and the node set; false (logged) when unknown.
    bool remove(unsigned int symbol);
    // How many symbols were removed so far. Nothing else changes what a symbol finds, so
    // while this stands still an attribute found earlier is still what its symbol finds:
    // a caller may keep it instead of asking again.
    uint64_t removals() const { return removed.load(std::memory_order_acquire); }
    bool isNode(unsigned int symbol) const;
    void setIsNode(unsigned int symbol, bool isNode);
    int size() const;

private:
    mutable Basalt::RwLock lock;
    SymbolBits nodes; // local symbols: a bit each, where a hash set misses on every insert
    // Local symbols are dense: a vector slot per attribute, no allocation per entry.
    Basalt::SymbolMap<Tessel::Attribute*> bySymbol;
    Basalt::PointerMap<Tessel::Attribute, unsigned int> byAttribute; // indexed ones only
    std::atomic<const Tessel::TreeObserver*> observer{nullptr};
    std::atomic<uint64_t> removed{0};
};

} // namespace Dovel
