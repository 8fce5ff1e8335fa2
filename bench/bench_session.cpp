// The first copy of a large tree without sockets or threads: how long a server session's
// first output pass takes to write, and how long a fresh client takes to apply it and
// run its own first output pass (what it announces back). The tree is that of
// `dovel bench initial` (tools/dovel/BenchItems.h).
#include "Dovel/bundle/BundleDispatcher.h"
#include "Dovel/bundle/BundleReader.h"
#include "Dovel/session/BundleController.h"
#include "Dovel/sync/RemoteNode.h"

#include "BenchItems.h"
#include "Tessel/Node.h"

#include <benchmark/benchmark.h>

#include <sys/resource.h>

#include <memory>
#include <vector>

namespace {

// Pages this process has touched for the first time so far (minor faults).
double pagesFirstTouched() {
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    return double(usage.ru_minflt);
}

std::shared_ptr<Dovel::BundleController> manualController(Dovel::RemoteNode& node, bool master) {
    Dovel::BundleControllerParams params;
    params.isMaster = master;
    params.createMissingAttributes = true;
    params.autoUpdate = false;
    return Dovel::BundleController::create(node, params);
}

// One output pass of a session, the node's pending additions reported first.
std::vector<Dovel::Bundle> outputPass(Dovel::RemoteNode& node,
                                      Dovel::BundleController::Core& core) {
    node.update();
    std::vector<Dovel::Bundle> out;
    core.bundleDispatcher().writeUpdates(out);
    return out;
}

int leafCount(Tessel::Node& node) {
    int count = 0;
    for (Tessel::Attribute* child : node.children()) {
        Tessel::Node* inner = Tessel::asNode(child);
        count += inner ? leafCount(*inner) : 1;
    }
    return count;
}

// A server tree of `attributes` and its session, as a client connects.
struct Server {
    explicit Server(int attributes) : node(nullptr, "bench") {
        DovelTool::buildItems(node, attributes);
        node.processPendingAdditions();
        controller = manualController(node, true);
        core = controller->lockCore();
    }
    // The session's first pass: the handshake and the whole tree.
    std::vector<Dovel::Bundle> firstPass() {
        core->ensureIsInitialized();
        return outputPass(node, *core);
    }
    Dovel::RemoteNode node;
    std::shared_ptr<Dovel::BundleController> controller;
    std::shared_ptr<Dovel::BundleController::Core> core;
};

// The server's first pass for a tree of `attributes`, recorded once per size. The
// server stays, so that a client's tree is built in memory not touched before.
const std::vector<Dovel::Bundle>& recordedFirstPass(int attributes) {
    static std::vector<std::unique_ptr<Server>> servers;
    static std::vector<std::pair<int, std::vector<Dovel::Bundle>>> recorded;
    for (const auto& entry : recorded)
        if (entry.first == attributes)
            return entry.second;
    servers.push_back(std::make_unique<Server>(attributes));
    recorded.emplace_back(attributes, servers.back()->firstPass());
    return recorded.back().second;
}

void BM_FirstPassWritten(benchmark::State& state) {
    const int attributes = int(state.range(0));
    double pages = 0;
    for (auto _ : state) {
        state.PauseTiming();
        auto server = std::make_unique<Server>(attributes);
        const double before = pagesFirstTouched();
        state.ResumeTiming();
        benchmark::DoNotOptimize(server->firstPass());
        state.PauseTiming();
        pages += pagesFirstTouched() - before;
        server.reset();
        state.ResumeTiming();
    }
    state.SetItemsProcessed(state.iterations() * attributes);
    state.counters["pages_per_attribute"] = pages / double(state.iterations()) / attributes;
}
BENCHMARK(BM_FirstPassWritten)->Arg(100000)->Arg(1000000)->Unit(benchmark::kMillisecond);

void BM_FirstCopyApplied(benchmark::State& state) {
    const int attributes = int(state.range(0));
    const std::vector<Dovel::Bundle>& bundles = recordedFirstPass(attributes);
    double pages = 0;
    for (auto _ : state) {
        const double before = pagesFirstTouched();
        auto client = std::make_unique<Dovel::RemoteNode>(nullptr, "bench");
        auto controller = manualController(*client, false);
        auto core = controller->lockCore();
        core->ensureIsInitialized();
        core->process(bundles); // as a connection hands them over, bytes counted
        benchmark::DoNotOptimize(outputPass(*client, *core));
        state.PauseTiming();
        pages += pagesFirstTouched() - before;
        if (leafCount(*client) != attributes)
            state.SkipWithError("the client does not hold the whole tree");
        core.reset();
        controller.reset();
        client.reset();
        state.ResumeTiming();
    }
    state.SetItemsProcessed(state.iterations() * attributes);
    state.counters["pages_per_attribute"] = pages / double(state.iterations()) / attributes;
}
BENCHMARK(BM_FirstCopyApplied)->Arg(100000)->Arg(1000000)->Unit(benchmark::kMillisecond);

} // namespace
