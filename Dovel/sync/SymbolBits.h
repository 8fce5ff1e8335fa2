// A set of dense symbols (those of a local registry, numbered from 1 as names are
// defined) kept as one bit per symbol: a test touches one word, where a hash set of a
// million symbols misses the cache on nearly every probe. The bits grow to the largest
// symbol inserted and never shrink; an owner empties the set by removing what it knows it
// inserted. Symbols from DenseLimit on (which a registry numbering from 1 reaches only
// with tens of millions of names) go to a hash set instead, so that no symbol makes the
// bits large.
//
// Not thread-safe; its owner guards it.
#pragma once

#include "Dovel/sync/SymbolSet.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <vector>

namespace Dovel {

class SymbolBits {
public:
    // At most 8 MiB of bits.
    static constexpr uint32_t DenseLimit = 1u << 26;

    bool contains(uint32_t symbol) const {
        if (symbol >= DenseLimit)
            return sparse.contains(symbol);
        const size_t word = symbol >> 6;
        return word < words.size() && (words[word] >> (symbol & 63) & 1u) != 0;
    }

    // True when `symbol` was not in the set.
    bool insert(uint32_t symbol) {
        if (symbol >= DenseLimit)
            return sparse.insert(symbol);
        const size_t word = symbol >> 6;
        if (word >= words.size())
            words.resize(std::max(word + 1, std::min(words.size() * 2, size_t(DenseLimit) >> 6)));
        const uint64_t bit = uint64_t(1) << (symbol & 63);
        const bool added = (words[word] & bit) == 0;
        words[word] |= bit;
        return added;
    }

    // True when `symbol` was in the set.
    bool remove(uint32_t symbol) {
        if (symbol >= DenseLimit)
            return sparse.remove(symbol);
        const size_t word = symbol >> 6;
        if (word >= words.size())
            return false;
        const uint64_t bit = uint64_t(1) << (symbol & 63);
        const bool was = (words[word] & bit) != 0;
        words[word] &= ~bit;
        return was;
    }

private:
    std::vector<uint64_t> words;
    SymbolSet sparse;
};

} // namespace Dovel
