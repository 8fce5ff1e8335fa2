// SymbolRegistry: two-way binding of names and symbols, rebinding as a peer defines
// them, and two threads defining the same names at once.
#include "Basalt/SymbolRegistry.h"

#include <gtest/gtest.h>

#include <QSet>
#include <QVector>

#include <algorithm>
#include <random>
#include <thread>

using Basalt::SymbolRegistry;

TEST(SymbolRegistry, DefineReplacesBothDirectionsAndRaisesTheNextSymbol) {
    SymbolRegistry r;
    EXPECT_FALSE(r.define("zero", 0));
    EXPECT_TRUE(r.define("x", 10));
    EXPECT_FALSE(r.define("x", 10)); // nothing changed
    EXPECT_EQ(r.lookupOrDefine("y"), 11u);

    EXPECT_TRUE(r.define("x", 20)); // the name moves: 10 is free again
    EXPECT_TRUE(r.lookup(10u).isNull());
    EXPECT_EQ(r.lookup(QByteArray("x")), 20u);

    EXPECT_TRUE(r.define("z", 20)); // the symbol moves: "x" is unknown now
    EXPECT_EQ(r.lookup(QByteArray("x")), 0u);
    EXPECT_EQ(r.lookup(20u), QByteArray("z"));
    EXPECT_EQ(r.size(), 2);
    EXPECT_EQ(r.lookupOrDefine("w"), 21u);

    // A low symbol does not pull the counter back.
    EXPECT_TRUE(r.define("low", 3));
    EXPECT_EQ(r.lookupOrDefine("v"), 22u);

    EXPECT_TRUE(r.define(QByteArray(), 5));
    EXPECT_FALSE(r.lookup(5u).isNull());
    EXPECT_EQ(r.lookup(QByteArray("")), 5u);
}

TEST(SymbolRegistry, TwoThreadsDefiningTheSameNamesAgree) {
    SymbolRegistry r;
    const int count = 2000;
    QVector<QByteArray> names;
    for (int i = 0; i < count; ++i)
        names << "node/" + QByteArray::number(i);

    QVector<uint32_t> first(count), second(count);
    auto work = [&](QVector<uint32_t>& out, unsigned seed) {
        std::vector<int> order(count);
        for (int i = 0; i < count; ++i)
            order[size_t(i)] = i;
        std::shuffle(order.begin(), order.end(), std::mt19937(seed));
        for (int i : order) {
            out[i] = r.lookupOrDefine(names[i]);
            // A concurrent reader sees a complete binding.
            EXPECT_EQ(r.lookup(out[i]), names[i]);
        }
    };
    std::thread a(work, std::ref(first), 1u);
    std::thread b(work, std::ref(second), 2u);
    a.join();
    b.join();

    EXPECT_EQ(first, second);
    QSet<uint32_t> distinct;
    for (uint32_t s : first) {
        EXPECT_GE(s, 1u);
        EXPECT_LE(s, uint32_t(count));
        distinct.insert(s);
    }
    EXPECT_EQ(distinct.size(), count);
    EXPECT_EQ(r.size(), count);
}
