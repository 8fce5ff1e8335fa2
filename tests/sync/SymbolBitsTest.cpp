// The bit set of dense symbols: membership across word boundaries and growth, removal,
// and symbols far above everything inserted so far.
#include "Dovel/sync/SymbolBits.h"

#include <gtest/gtest.h>

#include <set>

TEST(SymbolBits, HoldsWhatWasInsertedAcrossWordsAndGrowth) {
    Dovel::SymbolBits bits;
    EXPECT_FALSE(bits.contains(0));
    EXPECT_FALSE(bits.contains(0xFFFFFFFFu));

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

    EXPECT_TRUE(bits.remove(64));
    EXPECT_FALSE(bits.remove(64));
    EXPECT_FALSE(bits.contains(64));
    EXPECT_TRUE(bits.contains(63));
    EXPECT_TRUE(bits.contains(65));
    EXPECT_FALSE(bits.remove(1u << 30)); // above the dense ones: the hash set's

    Dovel::SymbolBits fresh; // dense symbols past the bits' end read as absent
    EXPECT_FALSE(fresh.contains(1u << 20));
    EXPECT_FALSE(fresh.remove(1u << 20));
    EXPECT_TRUE(fresh.insert(3));
    EXPECT_FALSE(fresh.contains(1u << 20));
    EXPECT_FALSE(fresh.remove(1u << 20));
}

TEST(SymbolBits, SymbolsFromTheDenseLimitOnTakeNoBits) {
    Dovel::SymbolBits bits;
    const uint32_t high = Dovel::SymbolBits::DenseLimit;
    for (uint32_t symbol : {high, high + 1, 0xFFFFFFFFu}) {
        EXPECT_TRUE(bits.insert(symbol));
        EXPECT_FALSE(bits.insert(symbol));
        EXPECT_TRUE(bits.contains(symbol));
    }
    EXPECT_FALSE(bits.contains(high - 1));
    EXPECT_TRUE(bits.insert(high - 1)); // the last dense one: the bits reach their cap
    EXPECT_TRUE(bits.contains(high - 1));
    EXPECT_TRUE(bits.remove(0xFFFFFFFFu));
    EXPECT_FALSE(bits.contains(0xFFFFFFFFu));
    EXPECT_TRUE(bits.contains(high + 1));
}
