#include "Basalt/SymbolMap.h"

#include <gtest/gtest.h>

#include <QByteArray>

#include <map>
#include <random>

using Basalt::SymbolMap;

namespace {

TEST(SymbolMap, DenseAndScatteredSymbolsBehaveAsOneMap) {
    SymbolMap<int*> map;
    std::map<uint32_t, int*> reference;
    int values[8];
    std::mt19937 random(7);
    // Mostly dense symbols, as a registry hands them out, some far above them (as a peer
    // may choose), and symbols hashed early that fall inside the vector once it grows.
    auto symbol = [&random]() -> uint32_t {
        switch (random() % 4) {
        case 0:
            return 0xFFFFFFF0u + random() % 16;
        case 1:
            return 5000 + random() % 500;
        default:
            return random() % 3000;
        }
    };
    for (int step = 0; step < 20000; ++step) {
        const uint32_t s = symbol();
        if (random() % 3 == 0) {
            EXPECT_EQ(map.remove(s), reference.erase(s) == 1) << s;
        } else {
            int* value = &values[random() % 8];
            map.insert(s, value);
            reference[s] = value;
        }
        const uint32_t probe = symbol();
        const auto it = reference.find(probe);
        ASSERT_EQ(map.value(probe), it == reference.end() ? nullptr : it->second) << probe;
        ASSERT_EQ(map.contains(probe), it != reference.end());
        ASSERT_EQ(map.size(), int(reference.size()));
    }
    for (const auto& entry : reference)
        EXPECT_EQ(map.value(entry.first), entry.second);
    map.clear();
    EXPECT_EQ(map.size(), 0);
    EXPECT_EQ(map.value(0xFFFFFFFFu), nullptr);
}

TEST(SymbolMap, EmptyByteArraysAreValuesAndNullOnesAreAbsent) {
    SymbolMap<QByteArray> map;
    map.insert(1, QByteArray(""));
    map.insert(1000000, QByteArray("far"));
    EXPECT_TRUE(map.contains(1));
    EXPECT_FALSE(map.value(1).isNull());
    EXPECT_TRUE(map.value(2).isNull());
    EXPECT_EQ(map.value(1000000), QByteArray("far"));
    EXPECT_EQ(map.value(3, QByteArray("fallback")), QByteArray("fallback"));
    EXPECT_EQ(map.size(), 2);
    EXPECT_TRUE(map.remove(1));
    EXPECT_FALSE(map.remove(1));
    EXPECT_EQ(map.size(), 1);
}

} // namespace
