// SymbolRegistry: two-way binding of names and symbols, rebinding as a peer defines
// them, names kept as parent and leaf whatever order they come in, and two threads
// defining the same names at once.
#include "Basalt/SymbolRegistry.h"
#include "Basalt/PathTable.h"

#include <gtest/gtest.h>

#include <QSet>
#include <QVector>

#include <algorithm>
#include <iterator>
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

    // Names handed out one by one first (a tree's registry), then a definition: what
    // was handed out keeps its symbols, both ways, and the counter goes on above all.
    SymbolRegistry t;
    EXPECT_EQ(t.lookupOrDefine("a"), 1u);
    EXPECT_EQ(t.lookupOrDefineChild(1, "b"), 2u);
    EXPECT_EQ(t.lookupOrDefine("c"), 3u);
    EXPECT_TRUE(t.lookup(4u).isNull());
    EXPECT_EQ(t.lookupChild(9, "b"), 0u); // unknown parent
    EXPECT_TRUE(t.define("a/b", 7));      // a bound name moves to another symbol
    EXPECT_TRUE(t.lookup(2u).isNull());
    EXPECT_EQ(t.lookup(7u), QByteArray("a/b"));
    EXPECT_EQ(t.lookupChild(1, "b"), 7u);
    EXPECT_EQ(t.lookup(3u), QByteArray("c"));
    EXPECT_TRUE(t.isNameOf(1, "a"));
    EXPECT_EQ(t.size(), 3);
    EXPECT_EQ(t.lookupOrDefine("d"), 8u);
}

// Names are kept as their parent's entry and a leaf when the parent is known, else
// whole; either way a name reads back byte for byte, has one symbol however it was
// reached (whole path or parent and leaf), and never matches a near miss.
TEST(SymbolRegistry, NamesReadBackWholeHoweverTheyWereStored) {
    SymbolRegistry r;
    const QByteArray names[] = {
        "a/b/c", // before its parents: kept whole
        "a",
        "a/b",
        "a/b/c/d", // then parent by parent
        "",
        "/x",
        "a//b",
        "a/",
        "x/",
        "/",
        "//",
        "a/b/c/d/e/f/g/h",
        QByteArray("n\0ul/l", 6),
        QByteArray(300, 'q') + "/" + QByteArray(300, 'r'),
    };
    QVector<uint32_t> symbols;
    for (const QByteArray& name : names)
        symbols << r.lookupOrDefine(name);
    for (int i = 0; i < int(std::size(names)); ++i) {
        SCOPED_TRACE(names[i].constData());
        EXPECT_EQ(r.lookup(symbols[i]), names[i]);
        EXPECT_EQ(r.lookup(names[i]), symbols[i]);
        EXPECT_TRUE(r.isNameOf(symbols[i], names[i]));
        const QByteArray leaf = names[i].mid(names[i].lastIndexOf('/') + 1);
        EXPECT_TRUE(r.hasLeaf(symbols[i], leaf));
        EXPECT_FALSE(r.hasLeaf(symbols[i], leaf + "x"));
        EXPECT_EQ(r.hasLeaf(symbols[i], leaf.mid(1)), leaf.isEmpty());
        QByteArray appended("before:");
        EXPECT_TRUE(r.appendName(symbols[i], appended));
        EXPECT_EQ(appended, "before:" + names[i]);
        EXPECT_FALSE(r.isNameOf(symbols[i], names[i] + "/"));
        EXPECT_EQ(r.lookup(names[i] + "z"), 0u);
    }
    EXPECT_EQ(r.size(), int(std::size(names)));
    const uint32_t a = r.lookup(QByteArray("a"));
    const uint32_t ab = r.lookup(QByteArray("a/b"));
    const uint32_t root = r.lookup(QByteArray(""));
    // By parent and leaf: the same symbols, whether the name was kept whole ("a/b/c"),
    // under a parent, under the empty name (the leaf alone) or with a '/' in the leaf.
    EXPECT_EQ(r.lookupChild(ab, "c"), r.lookup(QByteArray("a/b/c")));
    EXPECT_EQ(r.lookupChild(a, "b"), ab);
    EXPECT_TRUE(r.isChildOf(ab, a, "b"));
    EXPECT_TRUE(r.isChildOf(a, root, "a"));
    EXPECT_FALSE(r.isChildOf(ab, a, "c"));
    EXPECT_FALSE(r.isChildOf(r.lookup(QByteArray("a/b/c")), ab, "c")); // kept whole: open
    QByteArray none;
    EXPECT_FALSE(r.appendName(999, none));
    EXPECT_TRUE(none.isEmpty());
    EXPECT_EQ(r.lookupChild(root, "a"), a);
    EXPECT_EQ(r.lookupChild(a, "b/c/d"), r.lookup(QByteArray("a/b/c/d")));
    EXPECT_EQ(r.lookupChild(a, "nothing"), 0u);
    EXPECT_EQ(r.lookupChild(999, "a"), 0u);
    EXPECT_EQ(r.lookupOrDefineChild(999, "a"), 0u);
    const uint32_t added = r.lookupOrDefineChild(ab, "new");
    EXPECT_EQ(r.lookup(added), QByteArray("a/b/new"));
    EXPECT_EQ(r.lookupOrDefine("a/b/new"), added);
    const uint32_t top = r.lookupOrDefineChild(root, "top");
    EXPECT_EQ(r.lookup(top), QByteArray("top"));
}

// A peer chooses the names: no family of them may share a hash under the table's random
// key (a hash whose data meets only public constants lets leaves that start with chosen
// bytes all hash alike, and then every insertion probes past all the others).
TEST(SymbolRegistry, ChosenNamesDoNotShareAHash) {
    Basalt::PathTable table;
    const QByteArray prefixes[] = {QByteArray("\xd1\x7e\x03\xe7\xdb\x28\xb4\xa0", 8),
                                   QByteArray("\xdb\x28\xb4\xa0\xd1\x7e\x03\xe7", 8),
                                   QByteArray(8, '\0'), QByteArray(16, 'a'), QByteArray()};
    QSet<uint64_t> hashes;
    int names = 0;
    for (const QByteArray& prefix : prefixes)
        for (const QByteArray& parent : {QByteArray("p"), QByteArray("p/q"), QByteArray()})
            for (int i = 0; i < 500; ++i, ++names) {
                const QByteArray leaf = prefix + QByteArray::number(i);
                hashes.insert(table.hashOf(parent.isEmpty() ? leaf : parent + '/' + leaf));
            }
    EXPECT_EQ(hashes.size(), names);
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
