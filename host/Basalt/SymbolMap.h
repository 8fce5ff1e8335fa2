// A map from u32 symbols to values that costs a slot per entry where symbols are dense,
// as those handed out by a SymbolRegistry are, and a hash entry otherwise. Symbols below
// a bound that follows the number of entries (twice it, plus a little) live in pages of
// slots indexed by symbol; others, such as large symbols a peer chose, in a hash, so
// that no symbol value can make the pages outgrow the entries they hold. Pages are
// allocated as symbols reach them and never move: a map of a million symbols touches
// the memory it uses once, where a vector grown by doubling copied it and briefly held
// half as much again.
//
// A default-constructed T stands for "absent" (a null pointer, a null byte array; an
// empty but non-null byte array is a value): stored values must not be absent. Not
// thread-safe; the owner guards it.
#pragma once

#include "Basalt/NullBytes.h"

#include <QByteArray>
#include <QHash>

#include <algorithm>
#include <cstdint>
#include <memory>
#include <utility>
#include <vector>

namespace Basalt {

template <typename T> struct SymbolMapAbsent {
    static bool test(const T& value) { return value == T(); }
};
template <> struct SymbolMapAbsent<QByteArray> {
    static bool test(const QByteArray& value) { return Basalt::isNull(value); }
};

template <typename T> class SymbolMap {
public:
    // The value of `symbol`, or null when it has none; valid until the map changes.
    const T* find(uint32_t symbol) const {
        if (const T* slot = denseSlot(symbol); slot && !absent(*slot))
            return slot;
        if (symbol >= sparseLow) {
            const auto it = sparse.constFind(symbol);
            if (it != sparse.constEnd())
                return &it.value();
        }
        return nullptr;
    }
    // The value of `symbol`, or `fallback` when it has none.
    T value(uint32_t symbol, const T& fallback = T()) const {
        const T* found = find(symbol);
        return found ? *found : fallback;
    }
    bool contains(uint32_t symbol) const { return find(symbol) != nullptr; }

    // Binds `symbol` to `value` (not absent), replacing an earlier value.
    void insert(uint32_t symbol, const T& value) { insert(symbol, value, count + 1); }
    // The same, with the reach of the pages set by `entries` rather than this map's own
    // count: for an owner whose entries move on to another map (names waiting to be
    // settled), every entry it holds, so that this map's symbols stay in pages while
    // its own count stays small. Memory stays bounded by the entries the owner holds.
    void insert(uint32_t symbol, const T& value, int entries) { put(symbol, value, entries); }
    // The same, taking the value over.
    void insert(uint32_t symbol, T&& value, int entries) { put(symbol, std::move(value), entries); }

    // True when `symbol` had a value. A map emptied after it reached past its first
    // page lets its pages go (a table of names waiting to be settled empties after each
    // copy).
    bool remove(uint32_t symbol) {
        if (T* slot = denseSlot(symbol); slot && !absent(*slot)) {
            *slot = T();
            dropOne();
            return true;
        }
        if (unhash(symbol)) {
            dropOne();
            return true;
        }
        return false;
    }

    int size() const { return count; }
    // Whether `symbol` would be kept in a page were it inserted now with `entries`.
    bool inPagesWith(uint32_t symbol, int entries) const {
        return uint64_t(symbol) < denseBound(std::max(entries, count + 1));
    }

    void clear() {
        std::vector<std::unique_ptr<T[]>>().swap(pages);
        sparse.clear();
        sparseLow = NoneHashed;
        count = 0;
    }

private:
    static bool absent(const T& value) { return SymbolMapAbsent<T>::test(value); }
    template <typename V> void put(uint32_t symbol, V&& value, int entries) {
        T* slot = denseSlot(symbol);
        if (!slot && uint64_t(symbol) < denseBound(std::max(entries, count + 1)))
            slot = addPage(symbol);
        if (slot) {
            // A symbol hashed while its page was beyond the bound moves into it.
            const bool hashed = unhash(symbol);
            if (absent(*slot) && !hashed)
                ++count;
            *slot = std::forward<V>(value);
            return;
        }
        const int before = sparse.size();
        sparse.insert(symbol, std::forward<V>(value));
        sparseLow = std::min(sparseLow, symbol);
        count += sparse.size() - before;
    }
    // Takes `symbol` out of the hash; true when it was there.
    bool unhash(uint32_t symbol) {
        if (symbol < sparseLow || sparse.remove(symbol) == 0)
            return false;
        if (sparse.isEmpty())
            sparseLow = NoneHashed;
        return true;
    }
    static uint64_t denseBound(int entries) { return 2 * uint64_t(entries) + 64; }

    void dropOne() {
        if (--count == 0 && pages.size() > 1)
            clear();
    }

    // 1,024 slots (8 KiB of pointers, 4 KiB of 32-bit values): small beside a map that
    // needs a second page.
    static constexpr int PageBits = 10;
    static constexpr uint32_t PageSize = 1u << PageBits;

    const T* denseSlot(uint32_t symbol) const {
        const size_t page = symbol >> PageBits;
        return page < pages.size() && pages[page] ? &pages[page][symbol & (PageSize - 1)] : nullptr;
    }
    T* denseSlot(uint32_t symbol) {
        return const_cast<T*>(static_cast<const SymbolMap*>(this)->denseSlot(symbol));
    }
    T* addPage(uint32_t symbol) {
        const size_t page = symbol >> PageBits;
        if (page >= pages.size())
            pages.resize(page + 1);
        pages[page].reset(new T[PageSize]());
        return &pages[page][symbol & (PageSize - 1)];
    }

    // Pages of slots by symbol; a page no symbol has reached is null.
    std::vector<std::unique_ptr<T[]>> pages;
    QHash<uint32_t, T> sparse;
    // No symbol below this one is hashed: one large symbol in the hash (a record made
    // before a first pass, say) costs the dense symbols no probe of it. Lowered as
    // symbols are hashed, reset once none is.
    static constexpr uint32_t NoneHashed = UINT32_MAX;
    uint32_t sparseLow = NoneHashed;
    int count = 0;
};

} // namespace Basalt
