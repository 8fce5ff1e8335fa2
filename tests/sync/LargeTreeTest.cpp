// A wide tree through the watcher and the remote node: every change arrives exactly once.
#include "Dovel/sync/RemoteNode.h"

#include "Tessel/AttributeT.h"

#include <gtest/gtest.h>

#include <unordered_map>

using Dovel::NodeWatcher;
using Dovel::RemoteNode;
using Tessel::AttributeT;

TEST(LargeTree, EveryChangeArrivesExactlyOnce) {
    constexpr int Nodes = 100, PerNode = 1000; // 100,000 attributes
    RemoteNode root(nullptr, "root");
    std::vector<AttributeT<int>*> attributes;
    attributes.reserve(Nodes * PerNode);
    for (int n = 0; n < Nodes; ++n) {
        auto* node = new Tessel::Node(&root, "n" + QByteArray::number(n));
        for (int i = 0; i < PerNode; ++i)
            attributes.push_back(new AttributeT<int>(node, "a" + QByteArray::number(i)));
    }
    std::unordered_map<unsigned int, int> added, changed;
    root.addAttributeChangeListener([&](const NodeWatcher::Event& event) {
        if (event.type == NodeWatcher::AttributeAdded)
            ++added[event.symbol];
        else if (event.type == NodeWatcher::AttributeChanged)
            ++changed[event.symbol];
    });
    root.update();
    ASSERT_EQ(int(added.size()), Nodes * PerNode);
    for (const auto& entry : added)
        ASSERT_EQ(entry.second, 1);

    for (int k = 0; k < 10000; ++k)
        attributes[std::size_t(k) * 10]->setValue(k + 1, Tessel::Attribute::LayerUser);
    ASSERT_EQ(changed.size(), 10000u);
    const auto& cache = root.attributeCache();
    for (int k = 0; k < 10000; ++k) {
        AttributeT<int>* a = attributes[std::size_t(k) * 10];
        const unsigned int symbol = cache.symbolOf(a);
        ASSERT_NE(symbol, 0u);
        ASSERT_EQ(changed[symbol], 1) << k;
    }
}
