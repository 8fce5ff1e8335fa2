#include "Tessel/SharedNames.h"

#include <array>
#include <cstdint>
#include <cstring>

namespace Tessel {

namespace {

constexpr int SharedNameBytes = 32;
constexpr std::size_t Sets = 64;

// Two ways to a set, so that two names of one set that alternate are both kept; a new
// name replaces the one of its set that was not used last.
struct NameCache {
    std::array<QByteArray, 2 * Sets> names;
    std::array<uint8_t, Sets> usedLast{};

    // The cached name equal to those bytes, or null; `set` is where it belongs.
    const QByteArray* find(const char* bytes, int size, std::size_t& set) {
        uint32_t hash = 2166136261u; // FNV-1a
        for (int i = 0; i < size; ++i)
            hash = (hash ^ uint8_t(bytes[i])) * 16777619u;
        set = hash % Sets;
        for (std::size_t way = 0; way < 2; ++way) {
            const QByteArray& kept = names[2 * set + way];
            if (kept.size() == size &&
                std::memcmp(kept.constData(), bytes, std::size_t(size)) == 0) {
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
};

NameCache& cache() {
    static thread_local NameCache names;
    return names;
}

} // namespace

QByteArray sharedName(const QByteArray& name) {
    if (name.size() > SharedNameBytes)
        return name;
    std::size_t set = 0;
    NameCache& names = cache();
    if (const QByteArray* kept = names.find(name.constData(), name.size(), set))
        return *kept;
    return names.keep(set, name);
}

QByteArray sharedName(const char* bytes, int size) {
    if (size > SharedNameBytes)
        return QByteArray(bytes, size);
    std::size_t set = 0;
    NameCache& names = cache();
    if (const QByteArray* kept = names.find(bytes, size, set))
        return *kept;
    return names.keep(set, QByteArray(bytes, size));
}

} // namespace Tessel
