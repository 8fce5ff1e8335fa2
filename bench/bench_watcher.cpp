// Watcher throughput: change events per second through a RemoteNode's watcher, for one
// attribute changing over and over and for changes spread over a wide tree, and the cost
// of reporting a freshly built wide tree.
#include "Dovel/sync/RemoteNode.h"

#include "Tessel/AttributeT.h"

#include <benchmark/benchmark.h>

#include <vector>

using Dovel::NodeWatcher;
using Dovel::RemoteNode;
using Tessel::AttributeT;

namespace {

// Builds `count` int attributes under nodes of 1000 children each.
std::vector<AttributeT<int>*> buildWide(RemoteNode& root, int count) {
    std::vector<AttributeT<int>*> out;
    out.reserve(std::size_t(count));
    Tessel::Node* node = nullptr;
    for (int i = 0; i < count; ++i) {
        if (i % 1000 == 0)
            node = new Tessel::Node(&root, "n" + QByteArray::number(i / 1000));
        out.push_back(new AttributeT<int>(node, "a" + QByteArray::number(i % 1000)));
    }
    return out;
}

void BM_OneAttributeChanging(benchmark::State& state) {
    RemoteNode root(nullptr, "root");
    auto* a = new AttributeT<int>(&root, "a");
    root.update();
    long events = 0;
    root.addAttributeChangeListener([&](const NodeWatcher::Event&) { ++events; });
    int value = 0;
    for (auto _ : state)
        a->setValue(++value, Tessel::Attribute::LayerUser);
    state.SetItemsProcessed(events);
}
BENCHMARK(BM_OneAttributeChanging);

void BM_WideTreeChanging(benchmark::State& state) {
    RemoteNode root(nullptr, "root");
    const auto attributes = buildWide(root, int(state.range(0)));
    root.update();
    long events = 0;
    root.addAttributeChangeListener([&](const NodeWatcher::Event&) { ++events; });
    std::size_t next = 0;
    int value = 0;
    for (auto _ : state) {
        attributes[next]->setValue(++value, Tessel::Attribute::LayerUser);
        next = (next + 7919) % attributes.size(); // spread over the tree
        if ((value & 0xffff) == 0) {
            state.PauseTiming();
            root.update(); // drain the changed list as an application would
            state.ResumeTiming();
        }
    }
    state.SetItemsProcessed(events);
}
BENCHMARK(BM_WideTreeChanging)->Arg(1000)->Arg(100000);

void BM_WideTreeReported(benchmark::State& state) {
    const int count = int(state.range(0));
    for (auto _ : state) {
        state.PauseTiming();
        auto root = std::make_unique<RemoteNode>(nullptr, "root");
        buildWide(*root, count);
        state.ResumeTiming();
        root->update(); // every addition reported once
        state.PauseTiming();
        root.reset();
        state.ResumeTiming();
    }
    state.SetItemsProcessed(state.iterations() * count);
}
BENCHMARK(BM_WideTreeReported)->Arg(100000)->Arg(1000000)->Unit(benchmark::kMillisecond);

} // namespace
