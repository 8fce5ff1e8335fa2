#include "Quant/RandomUniform.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <vector>

using Quant::RandomUniform;

TEST(RandomUniform, RangeIncludesNAndNeverExceedsIt) {
    RandomUniform random(12345);
    for (int i = 0; i < 100; ++i)
        EXPECT_EQ(random.rand0X(0), 0u);

    const uint32_t n = 6;
    std::vector<int> counts(n + 1, 0);
    const int draws = 70000;
    for (int i = 0; i < draws; ++i) {
        const uint32_t v = random.rand0X(n);
        ASSERT_LE(v, n);
        ++counts[v];
    }
    // Every value, n included, comes up about equally often (10000 expected each;
    // the bound is more than six standard deviations).
    for (uint32_t v = 0; v <= n; ++v) {
        EXPECT_GT(counts[v], 9400) << v;
        EXPECT_LT(counts[v], 10600) << v;
    }

    // The byte range of the login challenge.
    bool sawTop = false;
    for (int i = 0; i < 10000; ++i) {
        const uint32_t v = random.rand0X(255);
        ASSERT_LE(v, 255u);
        sawTop = sawTop || v == 255;
    }
    EXPECT_TRUE(sawTop);

    // The full range works without overflow.
    uint32_t high = 0;
    for (int i = 0; i < 1000; ++i)
        high = std::max(high, random.rand0X(UINT32_MAX));
    EXPECT_GT(high, UINT32_MAX / 2);
}

TEST(RandomUniform, SeedDeterminesTheSequence) {
    RandomUniform a(99), b(99), c(100);
    bool differs = false;
    for (int i = 0; i < 64; ++i) {
        const uint64_t x = a.next();
        EXPECT_EQ(x, b.next());
        differs = differs || x != c.next();
    }
    EXPECT_TRUE(differs);
}
