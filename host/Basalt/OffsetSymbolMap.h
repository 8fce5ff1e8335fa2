// A map from u32 symbols to u32 symbols for tables where most values are their symbol
// plus one offset: two registries that hand out symbols in the same order, as a peer's
// for a tree and this side's for the same tree do, differ by a constant. Such pairs are
// kept as one bit per symbol; the rest in a SymbolMap. The offset is the first pair's.
// Bits are used only up to a bound that follows the number of entries (64 symbols to
// each, plus a little), so that no symbol value can make them outgrow what they hold.
//
// Value 0 stands for "absent" and is not stored. Not thread-safe; the owner guards it.
#pragma once

#include "Basalt/SymbolMap.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <vector>

namespace Basalt {

class OffsetSymbolMap {
public:
    // The value of `symbol`, or 0.
    uint32_t value(uint32_t symbol) const {
        if (hasBit(symbol))
            return uint32_t(int64_t(symbol) + offset);
        return others.value(symbol);
    }

    // Binds `symbol` to `value` (not 0), replacing an earlier value.
    void insert(uint32_t symbol, uint32_t value) {
        if (value == 0)
            return;
        if (!offsetSet) {
            offset = int64_t(value) - int64_t(symbol);
            offsetSet = true;
        }
        if (int64_t(value) - int64_t(symbol) == offset &&
            uint64_t(symbol) < 64 * (uint64_t(size()) + 1) + 4096) {
            if (!hasBit(symbol)) {
                others.remove(symbol);
                setBit(symbol);
                ++counted;
            }
            return;
        }
        if (hasBit(symbol)) {
            clearBit(symbol);
            --counted;
        }
        others.insert(symbol, value);
    }

    // True when `symbol` had a value.
    bool remove(uint32_t symbol) {
        if (hasBit(symbol)) {
            clearBit(symbol);
            --counted;
            return true;
        }
        return others.remove(symbol);
    }

    int size() const { return counted + others.size(); }

private:
    bool hasBit(uint32_t symbol) const {
        const size_t word = symbol >> 6;
        return word < bits.size() && (bits[word] >> (symbol & 63) & 1u) != 0;
    }
    void setBit(uint32_t symbol) {
        const size_t word = symbol >> 6;
        if (word >= bits.size())
            bits.resize(std::max(word + 1, 2 * bits.size()));
        bits[word] |= uint64_t(1) << (symbol & 63);
    }
    void clearBit(uint32_t symbol) { bits[symbol >> 6] &= ~(uint64_t(1) << (symbol & 63)); }

    std::vector<uint64_t> bits; // the symbols whose value is symbol + offset
    int64_t offset = 0;
    bool offsetSet = false;
    int counted = 0; // bits set
    SymbolMap<uint32_t> others;
};

} // namespace Basalt
