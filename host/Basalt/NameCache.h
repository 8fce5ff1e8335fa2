// A small cache of recently seen short names, so that tables holding millions of names
// drawn from a few ("a", "pos", "name") keep one copy of each: two ways to each of 64
// sets, a new name replacing the one of its set that was not used last.
//
// Not thread-safe: each owner keeps its own (a thread, a table under its lock).
#pragma once

#include "Basalt/NullBytes.h"

#include <QByteArray>

#include <array>
#include <cstddef>
#include <cstdint>
#include <cstring>

namespace Basalt {

class NameCache {
public:
    // Longer names are seldom repeated, and returned as they are.
    static constexpr int MaxBytes = 32;

    // A byte array equal to `name`: the cached one when held, else `name`, then kept.
    // The reference stays valid until the next call (or, for a long name, as long as
    // `name`): copy it.
    const QByteArray& share(const QByteArray& name) {
        if (name.size() > MaxBytes)
            return name;
        std::size_t set = 0;
        if (const QByteArray* kept = find(name.constData(), name.size(), set))
            return *kept;
        return keep(set, name);
    }
    // The same for `size` bytes at `bytes`, copied only when not held.
    QByteArray share(const char* bytes, int size) {
        if (size > MaxBytes)
            return QByteArray(bytes, size);
        std::size_t set = 0;
        if (const QByteArray* kept = find(bytes, size, set))
            return *kept;
        return keep(set, QByteArray(bytes, size));
    }

private:
    static constexpr std::size_t Sets = 64;

    const QByteArray* find(const char* bytes, int size, std::size_t& set) {
        uint32_t hash = 2166136261u; // FNV-1a
        for (int i = 0; i < size; ++i)
            hash = (hash ^ uint8_t(bytes[i])) * 16777619u;
        set = hash % Sets;
        for (std::size_t way = 0; way < 2; ++way) {
            const QByteArray& kept = names[2 * set + way];
            // An unfilled way is null: the empty name must not come back as one.
            // The same bytes need no comparison (a name handed out before).
            if (kept.size() == size && !Basalt::isNull(kept) &&
                (kept.constData() == bytes ||
                 std::memcmp(kept.constData(), bytes, std::size_t(size)) == 0)) {
                usedLast[set] = uint8_t(way);
                return &kept;
            }
        }
        return nullptr;
    }
    const QByteArray& keep(std::size_t set, const QByteArray& name) {
        const std::size_t way = 1u - usedLast[set];
        usedLast[set] = uint8_t(way);
        return names[2 * set + way] = name;
    }

    std::array<QByteArray, 2 * Sets> names;
    std::array<uint8_t, Sets> usedLast{};
};

} // namespace Basalt
