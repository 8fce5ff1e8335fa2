// A map from non-null pointers to values in one flat array (open addressing, linear
// probing, backward-shift removal, at most half full): no allocation per entry, where a
// node-based hash would make one per key and a cache miss per look-up. Meant for tables
// that follow a large tree, such as an attribute's symbol or the attributes a listener
// holder registered on (PointerSet, a map without values).
//
// The pointers are our own objects' addresses, not values a peer chooses, so a fixed
// hash serves: it keeps neighbouring addresses together (see homeSlot), which suits
// objects allocated among others, as a tree's are. Many spans of densely packed keys
// overlapping would make long runs; a scattering hash suits such keys better. T must be
// complete where the map is used: its size sets how finely addresses are told apart.
// Not thread-safe; the owner guards it.
#pragma once

#include "Basalt/BackwardShift.h"

#include <cstddef>
#include <cstdint>
#include <type_traits>
#include <utility>
#include <vector>

namespace Basalt {

// The value type of a map that only keeps its keys: its slots hold a pointer alone.
struct NoValue {};

template <typename T, typename V> struct PointerSlot {
    T* key = nullptr;
    V value{};
};
template <typename T> struct PointerSlot<T, NoValue> { T* key = nullptr; };
// A free slot is one without a key (what removeByBackwardShift compares with).
template <typename T, typename V>
bool operator!=(const PointerSlot<T, V>& a, const PointerSlot<T, V>& b) {
    return a.key != b.key;
}

template <typename T, typename V> class PointerMap {
public:
    bool contains(const T* pointer) const { return pointer && findSlot(pointer) != npos; }

    // The value of `pointer`, or null; valid until the map changes.
    const V* find(const T* pointer) const {
        const size_t slot = pointer ? findSlot(pointer) : npos;
        return slot == npos ? nullptr : &table[slot].value;
    }
    V value(const T* pointer, V fallback = V()) const {
        const V* found = find(pointer);
        return found ? *found : fallback;
    }

    // Sets the value of `pointer` (not null). True when the key was not there yet.
    bool insert(T* pointer, V value = V()) {
        if (!pointer)
            return false;
        size_t slot = findSlot(pointer);
        const bool added = slot == npos;
        if (added) {
            if ((count + 1) * 2 > table.size())
                rehash(table.empty() ? 16 : table.size() * 2);
            slot = place(pointer);
            ++count;
        }
        if constexpr (!std::is_same<V, NoValue>::value)
            table[slot].value = std::move(value);
        return added;
    }

    // True when `pointer` was in the map.
    bool erase(const T* pointer) {
        const size_t slot = pointer ? findSlot(pointer) : npos;
        if (slot == npos)
            return false;
        removeByBackwardShift(table, slot,
                              [this](const Slot& entry) { return homeSlot(entry.key); });
        --count;
        return true;
    }

    // The keys, in no particular order.
    std::vector<T*> keys() const {
        std::vector<T*> out;
        out.reserve(count);
        for (const Slot& slot : table)
            if (slot.key)
                out.push_back(slot.key);
        return out;
    }

    size_t size() const { return count; }
    bool empty() const { return count == 0; }
    void clear() {
        table.clear();
        count = 0;
    }

private:
    using Slot = PointerSlot<T, V>;
    static constexpr size_t npos = ~size_t(0);

    // Distinct objects of T lie at least sizeof(T) apart: an address divided by half
    // the largest power of two not above that (up to 16) leaves them two or more apart
    // (one-byte objects: one).
    static constexpr int granularity() {
        return sizeof(T) >= 32   ? 4
               : sizeof(T) >= 16 ? 3
               : sizeof(T) >= 8  ? 2
               : sizeof(T) >= 4  ? 1
                                 : 0;
    }

    size_t homeSlot(const T* pointer) const {
        // Neighbouring objects take nearby slots, so that objects allocated one after
        // another, as a tree being built is, are inserted and found in nearby memory
        // instead of at a cache and TLB miss each. Within a span of addresses that
        // covers the table once, objects lie at least two slots apart, so even a packed
        // array of them fills no more than half of its run of slots; each span starts
        // at an offset of its own (Fibonacci hashing of the span's number), which makes
        // spans unlikely, not unable, to land on the same slots.
        const uint64_t address = uint64_t(reinterpret_cast<uintptr_t>(pointer)) >> granularity();
        const uint64_t offset = ((address >> bits) * 0x9e3779b97f4a7c15ull) >> (64 - bits);
        return size_t((address + offset) & ((uint64_t(1) << bits) - 1));
    }

    size_t findSlot(const T* pointer) const {
        if (count == 0)
            return npos;
        const size_t mask = table.size() - 1;
        for (size_t i = homeSlot(pointer);; i = (i + 1) & mask) {
            if (table[i].key == pointer)
                return i;
            if (!table[i].key)
                return npos;
        }
    }

    // Puts a key that is not there into its first free slot; returns the slot.
    size_t place(T* pointer) {
        const size_t mask = table.size() - 1;
        size_t i = homeSlot(pointer);
        while (table[i].key)
            i = (i + 1) & mask;
        table[i].key = pointer;
        return i;
    }

    void rehash(size_t size) {
        std::vector<Slot> old(size);
        old.swap(table);
        bits = 0;
        while ((size_t(1) << bits) < size)
            ++bits;
        for (Slot& slot : old)
            if (slot.key) {
                const size_t i = place(slot.key);
                if constexpr (!std::is_same<V, NoValue>::value)
                    table[i].value = std::move(slot.value);
            }
    }

    std::vector<Slot> table; // a power of two in size; a null key marks a free slot
    size_t count = 0;
    int bits = 0; // log2 of table.size()
};

} // namespace Basalt
