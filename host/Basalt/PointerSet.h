// A set of non-null pointers in one flat array (open addressing, linear probing,
// backward-shift removal, at most half full): no allocation per element, where a node
// set would make one per pointer. Meant for sets that follow a large tree, such as the
// attributes a listener holder registered on.
//
// The pointers are our own objects' addresses, not values a peer chooses, so a fixed
// multiplicative hash spreads them well enough. Not thread-safe; the owner guards it.
#pragma once

#include "Basalt/BackwardShift.h"

#include <cstddef>
#include <cstdint>
#include <vector>

namespace Basalt {

template <typename T> class PointerSet {
public:
    bool contains(const T* pointer) const { return pointer && findSlot(pointer) != npos; }

    // True when `pointer` (not null) was not in the set.
    bool insert(T* pointer) {
        if (!pointer || contains(pointer))
            return false;
        if ((count + 1) * 2 > slots.size())
            rehash(slots.empty() ? 16 : slots.size() * 2);
        place(pointer);
        ++count;
        return true;
    }

    // True when `pointer` was in the set.
    bool erase(const T* pointer) {
        const size_t slot = pointer ? findSlot(pointer) : npos;
        if (slot == npos)
            return false;
        removeByBackwardShift(slots, slot, [this](const T* entry) { return homeSlot(entry); });
        --count;
        return true;
    }

    // The elements, in no particular order.
    std::vector<T*> values() const {
        std::vector<T*> out;
        out.reserve(count);
        for (T* pointer : slots)
            if (pointer)
                out.push_back(pointer);
        return out;
    }

    size_t size() const { return count; }
    bool empty() const { return count == 0; }
    void clear() {
        slots.clear();
        count = 0;
    }

private:
    static constexpr size_t npos = ~size_t(0);

    size_t homeSlot(const T* pointer) const {
        // Fibonacci hashing: the top bits of the address times 2^64 / phi.
        const uint64_t hash =
            uint64_t(reinterpret_cast<uintptr_t>(pointer)) * 0x9e3779b97f4a7c15ull;
        return size_t(hash >> (64 - bits));
    }

    size_t findSlot(const T* pointer) const {
        if (count == 0)
            return npos;
        const size_t mask = slots.size() - 1;
        for (size_t i = homeSlot(pointer);; i = (i + 1) & mask) {
            if (slots[i] == pointer)
                return i;
            if (!slots[i])
                return npos;
        }
    }

    void place(T* pointer) {
        const size_t mask = slots.size() - 1;
        size_t i = homeSlot(pointer);
        while (slots[i])
            i = (i + 1) & mask;
        slots[i] = pointer;
    }

    void rehash(size_t size) {
        std::vector<T*> old(size, nullptr);
        old.swap(slots);
        bits = 0;
        while ((size_t(1) << bits) < size)
            ++bits;
        for (T* pointer : old)
            if (pointer)
                place(pointer);
    }

    std::vector<T*> slots; // a power of two in size; null marks a free slot
    size_t count = 0;
    int bits = 0; // log2 of slots.size()
};

} // namespace Basalt
