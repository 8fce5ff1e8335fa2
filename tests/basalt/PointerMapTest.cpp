// PointerMap and PointerSet (a map without values): agreement with the standard
// containers through growth and removals.
#include "Basalt/PointerMap.h"
#include "Basalt/PointerSet.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <memory>
#include <random>
#include <set>
#include <vector>

using Basalt::PointerMap;
using Basalt::PointerSet;

namespace {

TEST(PointerSet, AgreesWithAnOrderedSetThroughGrowthAndRemovals) {
    // Neighbouring addresses, as a tree's objects have, crowd the same runs of slots:
    // removals must keep every probe sequence whole.
    std::vector<int> objects(3000);
    PointerSet<int> set;
    std::set<int*> reference;
    std::mt19937 random(11);
    for (int step = 0; step < 60000; ++step) {
        int* pointer = &objects[random() % (step < 30000 ? 3000 : 300)];
        if (random() % 3 == 0)
            ASSERT_EQ(set.erase(pointer), reference.erase(pointer) == 1);
        else
            ASSERT_EQ(set.insert(pointer), reference.insert(pointer).second);
        ASSERT_EQ(set.size(), reference.size());
        if (step % 997 == 0) {
            for (int& object : objects)
                ASSERT_EQ(set.contains(&object), reference.count(&object) == 1);
            std::vector<int*> values = set.values();
            std::sort(values.begin(), values.end());
            ASSERT_TRUE(
                std::equal(values.begin(), values.end(), reference.begin(), reference.end()));
        }
    }
    EXPECT_FALSE(set.insert(nullptr));
    EXPECT_FALSE(set.contains(nullptr));
    EXPECT_FALSE(set.erase(nullptr));
    set.clear();
    EXPECT_TRUE(set.empty());
    EXPECT_FALSE(set.contains(&objects[0]));
    EXPECT_TRUE(set.insert(&objects[0]));
}

TEST(PointerMap, ValuesFollowTheirKeysThroughGrowthAndRemovals) {
    std::vector<int> objects(3000);
    PointerMap<int, unsigned> map;
    std::map<int*, unsigned> reference;
    std::mt19937 random(7);
    for (unsigned step = 1; step <= 60000; ++step) {
        int* pointer = &objects[random() % (step < 30000 ? 3000 : 300)];
        if (random() % 3 == 0) {
            ASSERT_EQ(map.erase(pointer), reference.erase(pointer) == 1);
        } else {
            const bool added = reference.find(pointer) == reference.end();
            reference[pointer] = step;
            ASSERT_EQ(map.insert(pointer, step), added); // replaces the value when present
        }
        ASSERT_EQ(map.size(), reference.size());
        if (step % 997 == 0)
            for (int& object : objects) {
                const auto it = reference.find(&object);
                const unsigned* found = map.find(&object);
                ASSERT_EQ(found != nullptr, it != reference.end());
                if (found) {
                    ASSERT_EQ(*found, it->second);
                }
                ASSERT_EQ(map.value(&object, 0u), it == reference.end() ? 0u : it->second);
            }
    }
    EXPECT_FALSE(map.insert(nullptr, 1u));
    EXPECT_EQ(map.find(nullptr), nullptr);
}

} // namespace
