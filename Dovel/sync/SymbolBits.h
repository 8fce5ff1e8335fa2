// A set of dense symbols (those of a local registry, numbered from 1 as names are
// defined) kept as one bit per symbol: a test touches one word, where a hash set of a
// million symbols misses the cache on nearly every probe. It grows to the largest symbol
// inserted and never shrinks, so it suits sets that only grow.
//
// Not thread-safe; its owner guards it.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <vector>

namespace Dovel {

class SymbolBits {
public:
    bool contains(uint32_t symbol) const {
        const size_t word = symbol >> 6;
        return word < words.size() && (words[word] >> (symbol & 63) & 1u) != 0;
    }

    // True when `symbol` was not in the set.
    bool insert(uint32_t symbol) {
        const size_t word = symbol >> 6;
        if (word >= words.size())
            words.resize(std::max(word + 1, words.size() * 2));
        const uint64_t bit = uint64_t(1) << (symbol & 63);
        const bool added = (words[word] & bit) == 0;
        words[word] |= bit;
        return added;
    }

private:
    std::vector<uint64_t> words;
};

} // namespace Dovel
