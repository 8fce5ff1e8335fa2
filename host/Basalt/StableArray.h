// An array that only grows at its end and whose elements never move: kept in chunks of
// 2^ChunkBits elements, so that growing makes one chunk and copies nothing (no doubling
// of a large block, no second copy while it is made), and an element's address stays
// valid for the array's life. For tables of millions of records (a path table's entries,
// a session's records).
//
// Not thread-safe; the owner guards it.
#pragma once

#include <cstddef>
#include <memory>
#include <utility>
#include <vector>

namespace Basalt {

template <typename T, int ChunkBits> class StableArray {
public:
    std::size_t size() const { return count; }

    T& operator[](std::size_t index) { return chunks[index >> ChunkBits][index & Mask]; }
    const T& operator[](std::size_t index) const {
        return chunks[index >> ChunkBits][index & Mask];
    }

    // A new element at the end, value-initialised.
    T& emplaceBack() {
        if ((count & Mask) == 0) {
            std::unique_ptr<T[]> chunk(new T[ChunkSize]());
            chunks.push_back(std::move(chunk));
        }
        return (*this)[count++];
    }

private:
    static constexpr std::size_t ChunkSize = std::size_t(1) << ChunkBits;
    static constexpr std::size_t Mask = ChunkSize - 1;

    std::vector<std::unique_ptr<T[]>> chunks;
    std::size_t count = 0;
};

} // namespace Basalt
