// A keyed hash for tables whose keys a peer may choose (names it sends): SipHash-1-3 of
// the eight bytes of `first` followed by `size` bytes, under a 128-bit key. Its outputs
// cannot be steered without the key, so a peer cannot choose names that share a hash (a
// multiply-fold or CRC hash, whose data meets only public constants, lets whole families
// of names hash alike under every seed). Pure function; any thread.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>

namespace Basalt {

inline uint64_t keyedHash(uint64_t first, const char* bytes, size_t size, const uint64_t key[2]) {
    const auto rotate = [](uint64_t x, int bits) { return (x << bits) | (x >> (64 - bits)); };
    uint64_t v0 = 0x736f6d6570736575ull ^ key[0];
    uint64_t v1 = 0x646f72616e646f6dull ^ key[1];
    uint64_t v2 = 0x6c7967656e657261ull ^ key[0];
    uint64_t v3 = 0x7465646279746573ull ^ key[1];
    const auto round = [&] {
        v0 += v1;
        v1 = rotate(v1, 13);
        v1 ^= v0;
        v0 = rotate(v0, 32);
        v2 += v3;
        v3 = rotate(v3, 16);
        v3 ^= v2;
        v0 += v3;
        v3 = rotate(v3, 21);
        v3 ^= v0;
        v2 += v1;
        v1 = rotate(v1, 17);
        v1 ^= v2;
        v2 = rotate(v2, 32);
    };
    const auto block = [&](uint64_t word) {
        v3 ^= word;
        round();
        v0 ^= word;
    };
    block(first);
    const char* const whole = bytes + (size & ~size_t(7));
    for (; bytes != whole; bytes += 8) {
        uint64_t word;
        std::memcpy(&word, bytes, 8);
        block(word);
    }
    uint64_t last = uint64_t(size + 8) << 56;
    for (size_t i = 0; i < (size & 7); ++i)
        last |= uint64_t(uint8_t(bytes[i])) << (8 * i);
    block(last);
    v2 ^= 0xff;
    round();
    round();
    round();
    return v0 ^ v1 ^ v2 ^ v3;
}

// A key drawn once per process from the system's random source, for tables that do not
// keep one of their own.
const uint64_t* processHashKey();

} // namespace Basalt
