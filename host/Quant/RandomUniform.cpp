#include "Quant/RandomUniform.h"

namespace Quant {

namespace {

uint64_t splitmix(uint64_t& x) {
    uint64_t z = (x += 0x9e3779b97f4a7c15ULL);
    z = (z ^ (z >> 30)) * 0xbf58476d1ce4e5b9ULL;
    z = (z ^ (z >> 27)) * 0x94d049bb133111ebULL;
    return z ^ (z >> 31);
}

uint64_t rotl(uint64_t x, int k) {
    return (x << k) | (x >> (64 - k));
}

} // namespace

RandomUniform::RandomUniform(uint64_t seed) {
    for (uint64_t& word : s)
        word = splitmix(seed);
}

RandomUniform::~RandomUniform() = default;

uint64_t RandomUniform::next() {
    const uint64_t result = rotl(s[1] * 5, 7) * 9;
    const uint64_t t = s[1] << 17;
    s[2] ^= s[0];
    s[3] ^= s[1];
    s[1] ^= s[2];
    s[0] ^= s[3];
    s[2] ^= t;
    s[3] = rotl(s[3], 45);
    return result;
}

uint32_t RandomUniform::rand0X(uint32_t n) {
    const uint64_t range = uint64_t(n) + 1;
    // Rejection sampling keeps every value equally likely.
    const uint64_t limit = UINT64_MAX - (UINT64_MAX % range);
    uint64_t r;
    do {
        r = next();
    } while (r >= limit);
    return uint32_t(r % range);
}

} // namespace Quant
