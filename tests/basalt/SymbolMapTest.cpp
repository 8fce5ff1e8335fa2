// SymbolMap: symbols within reach of the entries held sit in pages, others in a hash;
// either way the map answers as a plain map would, whatever numbers come and go.
#include "Basalt/SymbolMap.h"
#include "Basalt/NullBytes.h"
#include "Basalt/OffsetSymbolMap.h"

#include <gtest/gtest.h>

#include <QRandomGenerator>

#include <map>

TEST(SymbolMap, AnswersAsAPlainMapForDenseSparseAndHostileSymbols) {
    Basalt::SymbolMap<quint64> map;
    std::map<uint32_t, quint64> model;
    const auto check = [&] {
        ASSERT_EQ(map.size(), int(model.size()));
        for (const auto& [symbol, value] : model)
            ASSERT_EQ(map.value(symbol), value) << symbol;
    };
    // Page edges, far symbols a peer may pick (hashed until the map is large enough),
    // and symbol 0.
    const uint32_t edges[] = {0,    1,    1023,       1024,       1025,      2047,
                              2048, 5000, 0x7FFFFFFF, 0xFFFFFFFF, 100000000, 3000};
    quint64 next = 1;
    for (uint32_t symbol : edges) {
        map.insert(symbol, next);
        model[symbol] = next++;
    }
    check();
    EXPECT_EQ(map.find(4000), nullptr);
    EXPECT_EQ(map.find(0xFFFFFFFE), nullptr);

    // Then a long mixed run: dense growth pulls hashed symbols into pages as the bound
    // rises past them; replacing and removing keep the count.
    QRandomGenerator random(31);
    for (int step = 0; step < 200000; ++step) {
        const uint32_t symbol =
            random.bounded(8) == 0 ? random.generate() : uint32_t(step / 2 + random.bounded(64));
        if (random.bounded(5) == 0) {
            EXPECT_EQ(map.remove(symbol), model.erase(symbol) == 1);
        } else {
            map.insert(symbol, next);
            model[symbol] = next++;
        }
    }
    check();
    // Emptied by removals (its pages go), then filled again.
    while (!model.empty()) {
        EXPECT_TRUE(map.remove(model.begin()->first));
        model.erase(model.begin());
    }
    check();
    for (uint32_t symbol : edges) {
        map.insert(symbol, next);
        model[symbol] = next++;
    }
    check();
    map.clear();
    EXPECT_EQ(map.size(), 0);
    EXPECT_EQ(map.find(1), nullptr);
}

// OffsetSymbolMap answers as a plain map too, whether its pairs sit in bits (the value
// is the symbol plus the first pair's offset) or beside them, as pairs move between the
// two; a far symbol a peer picks does not make the bits grow.
TEST(SymbolMap, AnOffsetMapAnswersAsAPlainMap) {
    Basalt::OffsetSymbolMap map;
    std::map<uint32_t, uint32_t> model;
    const auto put = [&](uint32_t symbol, uint32_t value) {
        map.insert(symbol, value);
        model[symbol] = value;
    };
    const auto check = [&] {
        ASSERT_EQ(map.size(), int(model.size()));
        for (const auto& [symbol, value] : model)
            ASSERT_EQ(map.value(symbol), value) << symbol;
    };
    put(10, 15); // the offset: +5
    for (uint32_t symbol = 11; symbol < 5000; ++symbol)
        if (symbol % 5 != 0) // holes, as a tree's nodes leave
            put(symbol, symbol + 5);
    put(12, 99);                   // off the offset: beside the bits
    put(12, 17);                   // and back on it
    put(13, 0);                    // 0 is no value: nothing changes
    model[13] = 18;                // (what 13 held)
    put(0xFFFFFFF0u, 0xFFFFFFF5u); // far: beside the bits
    put(7, 2);                     // below the offset's reach
    check();
    EXPECT_EQ(map.value(15), 0u);
    EXPECT_EQ(map.value(0xFFFFFFF1u), 0u);
    for (uint32_t symbol : {11u, 12u, 7u, 0xFFFFFFF0u}) {
        EXPECT_TRUE(map.remove(symbol));
        model.erase(symbol);
    }
    EXPECT_FALSE(map.remove(11));
    check();
}

// The maps and the name caches tell an absent name by Basalt::isNull, which must answer
// as QByteArray::isNull does for every kind of byte array.
TEST(SymbolMap, NullBytesAnswerAsQByteArray) {
    QByteArray detachedEmpty("x");
    detachedEmpty.clear();
    QByteArray truncated("abc");
    truncated.truncate(0);
    const QByteArray samples[] = {QByteArray(),
                                  QByteArray(""),
                                  QByteArray(nullptr, 0),
                                  QByteArray("a"),
                                  QByteArray(0, '\0'),
                                  QByteArray::fromRawData("ab", 2),
                                  QByteArray::fromRawData("", 0),
                                  QByteArray::fromRawData(nullptr, 0),
                                  detachedEmpty,
                                  truncated,
                                  QByteArrayLiteral("lit")};
    for (const QByteArray& bytes : samples)
        EXPECT_EQ(Basalt::isNull(bytes), bytes.isNull()) << bytes.toHex().constData();
}
