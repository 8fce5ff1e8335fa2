#include "Dovel/sync/SymbolSet.h"

#include <gtest/gtest.h>

#include <random>
#include <unordered_set>

namespace {

// Random inserts and removals over a small key range (so that probe chains collide and
// removals shift entries back), checked step by step against std::unordered_set, with
// clears in between that must forget everything without a trace.
TEST(SymbolSetTest, MatchesAReferenceSetThroughGrowthRemovalsAndClears) {
    Dovel::SymbolSet set;
    std::unordered_set<uint32_t> reference;
    std::mt19937 random(7);
    for (int step = 0; step < 200000; ++step) {
        const uint32_t symbol = random() % 3000;
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
        ASSERT_EQ(set.size(), int(reference.size()));
        if (step % 50000 == 49999) {
            set.clear();
            reference.clear();
            for (uint32_t s = 0; s < 3000; ++s)
                ASSERT_FALSE(set.contains(s));
        }
    }
    for (uint32_t s = 0; s < 3000; ++s)
        ASSERT_EQ(set.contains(s), reference.count(s) > 0);
}

TEST(SymbolSetTest, EmptySetAndExtremeSymbols) {
    Dovel::SymbolSet set;
    EXPECT_FALSE(set.contains(0));
    EXPECT_FALSE(set.remove(0));
    EXPECT_TRUE(set.isEmpty());
    EXPECT_TRUE(set.insert(0));
    EXPECT_TRUE(set.insert(0xFFFFFFFFu));
    EXPECT_FALSE(set.insert(0));
    EXPECT_TRUE(set.contains(0xFFFFFFFFu));
    EXPECT_TRUE(set.remove(0));
    EXPECT_FALSE(set.contains(0));
    EXPECT_TRUE(set.contains(0xFFFFFFFFu));
    EXPECT_EQ(set.size(), 1);
}

TEST(SymbolSetTest, ClearAndTrimFreesWhatABurstLeftInAVector) {
    std::vector<uint32_t> list;
    for (uint32_t s = 1; s <= 200000; ++s)
        list.push_back(s);
    Dovel::clearAndTrim(list, 200000); // as large as needed: kept
    EXPECT_TRUE(list.empty());
    EXPECT_GE(list.capacity(), 200000u);
    Dovel::clearAndTrim(list, 10); // far larger than ten entries need: freed
    EXPECT_EQ(list.capacity(), 0u);
    list.push_back(5);
    EXPECT_EQ(list.size(), 1u);
}

} // namespace
