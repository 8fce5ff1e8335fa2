// The symbol sets of the change compressor: the hash set and the bit set of dense
// symbols, checked step by step against a reference set through growth, removals that
// shift probe chains back, clears, and symbols at and past the dense limit.
#include "Dovel/sync/SymbolSet.h"
#include "Dovel/sync/SymbolBits.h"

#include <gtest/gtest.h>

#include <random>
#include <type_traits>
#include <unordered_set>

namespace {

// Random inserts, removals and lookups over a small range (so that probe chains collide),
// with a few symbols far above it; the hash set is also cleared now and then.
template <typename Set> void matchReference(Set& set, uint32_t range, uint32_t high) {
    constexpr bool isHashSet = std::is_same<Set, Dovel::SymbolSet>::value;
    std::unordered_set<uint32_t> reference;
    std::mt19937 random(7);
    const auto symbolOf = [&](uint32_t r) {
        return r % 10 == 0 ? high + r % 7 : r % range; // a few far above the dense ones
    };
    for (int step = 0; step < 200000; ++step) {
        const uint32_t symbol = symbolOf(uint32_t(random()));
        switch (random() % 8) {
        case 0:
        case 1:
        case 2:
            ASSERT_EQ(set.insert(symbol), reference.insert(symbol).second) << step;
            break;
        case 3:
        case 4:
            ASSERT_EQ(set.remove(symbol), reference.erase(symbol) > 0) << step;
            break;
        default:
            ASSERT_EQ(set.contains(symbol), reference.count(symbol) > 0) << step;
            break;
        }
        if constexpr (isHashSet) {
            ASSERT_EQ(int(reference.size()), set.size());
            if (step % 50000 == 49999) {
                set.clear();
                reference.clear();
            }
        }
    }
    for (uint32_t s = 0; s < range; ++s)
        ASSERT_EQ(set.contains(s), reference.count(s) > 0) << s;
}

} // namespace

TEST(SymbolSet, MatchesAReferenceSetThroughGrowthRemovalsAndClears) {
    Dovel::SymbolSet set;
    EXPECT_FALSE(set.contains(0));
    EXPECT_FALSE(set.remove(0));
    matchReference(set, 3000, 0xFFFFFFF0u);
}

TEST(SymbolBits, MatchesAReferenceSetAcrossWordsGrowthAndTheDenseLimit) {
    Dovel::SymbolBits bits;
    EXPECT_FALSE(bits.contains(1u << 20)); // dense symbols past the bits' end read as absent
    EXPECT_FALSE(bits.remove(1u << 20));
    matchReference(bits, 5000, 0xFFFFFF00u);
    const uint32_t high = Dovel::SymbolBits::DenseLimit;
    for (uint32_t symbol : {high - 1, high, high + 1, 0xFFFFFFFFu}) {
        EXPECT_TRUE(bits.insert(symbol)) << symbol;
        EXPECT_FALSE(bits.insert(symbol));
        EXPECT_TRUE(bits.contains(symbol));
    }
    EXPECT_TRUE(bits.remove(0xFFFFFFFFu));
    EXPECT_FALSE(bits.contains(0xFFFFFFFFu));
    EXPECT_TRUE(bits.contains(high + 1));
}
