// A set of symbols for the per-change path: open addressing (linear probing) in one flat
// array that keeps its capacity across clear(), so that inserting allocates only when
// the set grows past anything it held before, and clear() costs O(1) (cells carry the
// generation they were written in; a cell of an older generation is free).
//
// Not thread-safe; its owner guards it.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <vector>

namespace Dovel {

class SymbolSet {
public:
    bool contains(uint32_t symbol) const {
        if (count == 0)
            return false;
        for (size_t i = home(symbol);; i = (i + 1) & mask()) {
            const Cell& cell = cells[i];
            if (cell.generation != generation)
                return false;
            if (cell.symbol == symbol)
                return true;
        }
    }

    // True when `symbol` was not in the set.
    bool insert(uint32_t symbol) {
        if (size_t(count + 1) * 2 > cells.size())
            grow();
        for (size_t i = home(symbol);; i = (i + 1) & mask()) {
            Cell& cell = cells[i];
            if (cell.generation != generation) {
                cell = Cell{symbol, generation};
                ++count;
                return true;
            }
            if (cell.symbol == symbol)
                return false;
        }
    }

    // True when `symbol` was in the set.
    bool remove(uint32_t symbol) {
        if (count == 0)
            return false;
        size_t hole = home(symbol);
        for (;; hole = (hole + 1) & mask()) {
            if (cells[hole].generation != generation)
                return false;
            if (cells[hole].symbol == symbol)
                break;
        }
        // Backward shift: entries after the hole that probed past it move into it, so
        // that every entry stays reachable from its home without tombstones.
        for (size_t next = (hole + 1) & mask();; next = (next + 1) & mask()) {
            Cell& cell = cells[next];
            if (cell.generation != generation)
                break;
            const size_t want = home(cell.symbol);
            const bool movable =
                hole <= next ? (want <= hole || want > next) : (want <= hole && want > next);
            if (movable) {
                cells[hole] = cell;
                hole = next;
            }
        }
        cells[hole].generation = 0;
        --count;
        return true;
    }

    void clear() {
        count = 0;
        if (++generation == 0) { // wrapped: forget every cell for real
            for (Cell& cell : cells)
                cell.generation = 0;
            generation = 1;
        }
    }

    int size() const { return count; }
    bool isEmpty() const { return count == 0; }

private:
    struct Cell {
        uint32_t symbol = 0;
        uint32_t generation = 0; // 0: never written
    };

    size_t mask() const { return cells.size() - 1; }
    size_t home(uint32_t symbol) const {
        // Fibonacci hashing spreads the dense symbol numbers over the table.
        return size_t((uint64_t(symbol) * 0x9E3779B97F4A7C15ull) >> 32) & mask();
    }

    void grow() { rehash(cells.empty() ? 64 : cells.size() * 2); }

    void rehash(std::size_t size) {
        std::vector<Cell> old;
        old.swap(cells);
        const uint32_t live = generation;
        cells.assign(size, Cell{});
        generation = 1;
        count = 0;
        for (const Cell& cell : old)
            if (cell.generation == live)
                insert(cell.symbol);
    }

    std::vector<Cell> cells;
    uint32_t generation = 1;
    int count = 0;
};

// Vectors up to this many entries are always kept by clearAndTrim.
constexpr std::size_t TrimEntries = 1 << 16;

// For the vectors that a pass fills: empties `v` and frees its storage when it is far
// larger than `expected` entries need (what is left after a burst such as a session's
// first announcement).
template <typename T> void clearAndTrim(std::vector<T>& v, std::size_t expected) {
    if (v.capacity() > std::max<std::size_t>(TrimEntries, 8 * expected))
        std::vector<T>().swap(v);
    else
        v.clear();
}

} // namespace Dovel
