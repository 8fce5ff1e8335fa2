// Maps the symbols of synchronised paths to the live attributes of the local tree and
// back, and remembers which symbols name nodes. The node watcher fills and empties it;
// the sender and the receivers look attributes up in it.
//
// Thread-safe: every table is guarded by `lock` (readers share it). No operation calls
// out while holding it except the error log.
#pragma once

#include "Dovel/sync/SymbolSet.h"

#include "Basalt/PointerMap.h"
#include "Basalt/SymbolMap.h"

#include <mutex>
#include <shared_mutex>
#include <vector>

namespace Tessel {
class Attribute;
}

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
        std::shared_lock<std::shared_mutex> locker(lock);
        out.resize(count);
        for (size_t i = 0; i < count; ++i)
            out[i] = bySymbol.value(symbolAt(i));
    }
    // The symbol of a cached attribute, or 0.
    unsigned int symbolOf(Tessel::Attribute* attribute) const;
    // Drops the symbol from both maps and the node set; false (logged) when unknown.
    bool remove(unsigned int symbol);
    bool isNode(unsigned int symbol) const;
    void setIsNode(unsigned int symbol, bool isNode);
    int size() const;

private:
    mutable std::shared_mutex lock;
    SymbolSet nodes; // flat: a watched tree has a node per handful of attributes
    // Local symbols are dense: a vector slot per attribute, no allocation per entry.
    Basalt::SymbolMap<Tessel::Attribute*> bySymbol;
    Basalt::PointerMap<Tessel::Attribute, unsigned int> byAttribute;
};

} // namespace Dovel
