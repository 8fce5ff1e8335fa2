// A map from u32 symbols to values that costs a vector slot per entry where symbols are
// dense, as those handed out by a SymbolRegistry are, and a hash entry otherwise.
// Symbols below a bound that follows the number of entries (twice it, plus a little)
// live in a vector indexed by symbol; others, such as large symbols a peer chose, in a
// hash, so that no symbol value can make the vector outgrow the entries it holds.
//
// A default-constructed T stands for "absent" (a null pointer, a null byte array; an
// empty but non-null byte array is a value): stored values must not be absent. Not
// thread-safe; the owner guards it.
#pragma once

#include <QByteArray>
#include <QHash>

#include <cstdint>
#include <vector>

namespace Basalt {

template <typename T> struct SymbolMapAbsent {
    static bool test(const T& value) { return value == T(); }
};
template <> struct SymbolMapAbsent<QByteArray> {
    static bool test(const QByteArray& value) { return value.isNull(); }
};

template <typename T> class SymbolMap {
public:
    // The value of `symbol`, or null when it has none; valid until the map changes.
    const T* find(uint32_t symbol) const {
        if (symbol < dense.size() && !absent(dense[symbol]))
            return &dense[symbol];
        if (!sparse.isEmpty()) {
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
    void insert(uint32_t symbol, const T& value) {
        if (symbol >= dense.size() && uint64_t(symbol) < denseBound(count + 1))
            dense.resize(size_t(symbol) + 1);
        if (symbol < dense.size()) {
            // A symbol hashed while the vector was shorter moves into it.
            const bool hashed = !sparse.isEmpty() && sparse.remove(symbol) > 0;
            if (absent(dense[symbol]) && !hashed)
                ++count;
            dense[symbol] = value;
            return;
        }
        const int before = sparse.size();
        sparse.insert(symbol, value);
        count += sparse.size() - before;
    }

    // True when `symbol` had a value.
    bool remove(uint32_t symbol) {
        if (symbol < dense.size() && !absent(dense[symbol])) {
            dense[symbol] = T();
            --count;
            return true;
        }
        if (!sparse.isEmpty() && sparse.remove(symbol) > 0) {
            --count;
            return true;
        }
        return false;
    }

    int size() const { return count; }

    void clear() {
        std::vector<T>().swap(dense);
        sparse.clear();
        count = 0;
    }

private:
    static bool absent(const T& value) { return SymbolMapAbsent<T>::test(value); }
    static uint64_t denseBound(int entries) { return 2 * uint64_t(entries) + 64; }

    std::vector<T> dense;
    QHash<uint32_t, T> sparse;
    int count = 0;
};

} // namespace Basalt
