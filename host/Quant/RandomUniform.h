// A seeded uniform random generator (xoshiro256**). One object per thread.
#pragma once

#include <cstdint>

namespace Quant {

class RandomUniform {
public:
    explicit RandomUniform(uint64_t seed);
    ~RandomUniform();

    // A uniformly distributed integer in 0..n, n included.
    uint32_t rand0X(uint32_t n);
    uint64_t next();

private:
    uint64_t s[4];
};

} // namespace Quant
