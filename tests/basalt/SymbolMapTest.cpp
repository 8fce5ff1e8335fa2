// SymbolMap: symbols within reach of the entries held sit in pages, others in a hash;
// either way the map answers as a plain map would, whatever numbers come and go.
#include "Basalt/SymbolMap.h"

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
