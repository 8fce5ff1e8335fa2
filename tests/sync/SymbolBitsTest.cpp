// The bit set of dense symbols: membership across word boundaries and growth, and
// symbols far above everything inserted so far.
#include "Dovel/sync/SymbolBits.h"

#include <gtest/gtest.h>

#include <set>

TEST(SymbolBits, HoldsWhatWasInsertedAcrossWordsAndGrowth) {
    Dovel::SymbolBits bits;
    EXPECT_FALSE(bits.contains(0));
    EXPECT_FALSE(bits.contains(0xFFFFFFFFu)); // far past the end: no word to read

    std::set<uint32_t> expected;
    for (uint32_t symbol : {1u, 63u, 64u, 65u, 127u, 128u, 0u, 4096u, 100000u, 64u})
        EXPECT_EQ(bits.insert(symbol), expected.insert(symbol).second) << symbol;
    for (uint32_t symbol = 0; symbol <= 100064; ++symbol)
        ASSERT_EQ(bits.contains(symbol), expected.count(symbol) == 1) << symbol;

    // Growth keeps what was there.
    EXPECT_TRUE(bits.insert(1u << 22));
    EXPECT_TRUE(bits.contains(1u << 22));
    EXPECT_FALSE(bits.contains((1u << 22) - 1));
    EXPECT_TRUE(bits.contains(100000));
    EXPECT_FALSE(bits.insert(100000));
}
