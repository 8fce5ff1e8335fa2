// updates, coalesce and fanout: the server changes 10,000 float attributes in rounds
// (round r sets every attribute to r) and its clients count the distinct values they
// apply. In `updates` and `fanout` the server runs a round only while at most two
// rounds wait for every client's acknowledgement, so that every round reaches every
// client; in `coalesce` it runs a round in every pass of its tree thread and the
// session sends what is newest when it can, so values may be skipped: the clients then
// report when each round's values arrived, and the server turns that into staleness.
//
// Control attributes under "control": "ack<I>" (client I writes the last round it
// holds whole; -1 until it is ready) and "stop" (the server writes 1 at the end).
#include "BenchProcess.h"
#include "BenchReport.h"
#include "BenchTree.h"
#include "BenchWorkloads.h"
#include "CommandLine.h"
#include "MirrorClient.h"

#include "Tessel/Node.h"

#include <QElapsedTimer>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cmath>
#include <map>
#include <thread>

namespace DovelTool {

namespace {

constexpr int Values = 10000;
constexpr int GroupSize = 100;
constexpr int DefaultFanout = 16;
constexpr int Window = 2; // rounds that may wait for an acknowledgement
constexpr auto Layer = Tessel::Attribute::LayerRemote;
constexpr int SetupMs = 60000;

enum class Mode { Updates, Coalesce, Fanout };

Mode modeOf(const QString& workload) {
    if (workload == QLatin1String("coalesce"))
        return Mode::Coalesce;
    if (workload == QLatin1String("fanout"))
        return Mode::Fanout;
    return Mode::Updates;
}

QByteArray valuePath(int i) {
    return "values/g" + QByteArray::number(i / GroupSize) + "/v" + QByteArray::number(i);
}

QByteArray ackPath(int client) {
    return "control/ack" + QByteArray::number(client);
}

// The server's side; lives on the tree thread once built.
struct Rounds {
    Mode mode = Mode::Updates;
    Dovel::SessionDriver* driver = nullptr;
    std::vector<Tessel::AttributeT<float>*> values;
    std::vector<Tessel::AttributeT<int32_t>*> acks;
    Tessel::AttributeT<int32_t>* stop = nullptr;
    int round = 0;
    bool running = false;
    bool stepQueued = false;
    int64_t deadlineNs = 0;
    std::vector<int64_t> setTimes; // round r was set at setTimes[r - 1]
    std::atomic<bool> finished{false};

    void build(Tessel::Node& root, int clients) {
        auto* valuesNode = new Tessel::Node(&root, "values");
        Tessel::Node* group = nullptr;
        for (int i = 0; i < Values; ++i) {
            if (i % GroupSize == 0)
                group = new Tessel::Node(valuesNode, "g" + QByteArray::number(i / GroupSize));
            values.push_back(
                new Tessel::AttributeT<float>(group, "v" + QByteArray::number(i), 0.0f));
        }
        auto* control = new Tessel::Node(&root, "control");
        for (int c = 0; c < clients; ++c) {
            auto* ack = new Tessel::AttributeT<int32_t>(control, "ack" + QByteArray::number(c), -1);
            ack->addListener([this] { queueStep(); }, Tessel::Attribute::RoleChange);
            acks.push_back(ack);
        }
        stop = new Tessel::AttributeT<int32_t>(control, "stop", 0);
    }

    int slowestAck() const {
        int lowest = acks.front()->value();
        for (const auto* ack : acks)
            lowest = std::min(lowest, ack->value());
        return lowest;
    }

    void queueStep() {
        if (stepQueued || !running)
            return;
        stepQueued = true;
        driver->post([this] { step(); });
    }

    // At most one round per pass: the pass's output then carries each round whole.
    void step() {
        stepQueued = false;
        if (!running)
            return;
        if (monotonicNs() >= deadlineNs) {
            running = false;
            stop->setValue(1, Layer);
            finished.store(true);
            return;
        }
        if (mode != Mode::Coalesce && round >= slowestAck() + Window)
            return; // an acknowledgement queues the next step
        ++round;
        const float value = float(round);
        for (auto* attribute : values)
            attribute->setValue(value, Layer);
        setTimes.push_back(monotonicNs());
        queueStep();
    }
};

// Staleness of every round from the clients' arrival lines ("arrival ROUND NS": the
// first value of ROUND or newer arrived at NS): a round set at T is stale until the
// first arrival of a round at least as new.
std::vector<double> staleness(const std::vector<int64_t>& setTimes, const QByteArray& output) {
    std::map<int, int64_t> arrivals; // round -> first arrival
    for (const QByteArray& line : output.split('\n')) {
        const QList<QByteArray> words = line.split(' ');
        if (words.size() == 3 && words[0] == "arrival")
            arrivals.emplace(words[1].toInt(), words[2].toLongLong());
    }
    std::vector<double> micros;
    for (size_t r = 1; r <= setTimes.size(); ++r) {
        const auto it = arrivals.lower_bound(int(r));
        if (it != arrivals.end())
            micros.push_back(double(it->second - setTimes[r - 1]) / 1000.0);
    }
    return micros;
}

int runServer(const BenchOptions& options, BenchReport& report, Mode mode) {
    const QString workload = options.workload;
    const int clients =
        mode == Mode::Fanout ? (options.clients > 0 ? options.clients : DefaultFanout) : 1;
    Rounds rounds; // declared first: the tree's listeners point into it
    BenchServer bench;
    rounds.mode = mode;
    rounds.driver = &bench.driver();
    bench.driver().call([&] { rounds.build(bench.root(), clients); });
    if (!bench.listen())
        return CommandLine::fail(CommandLine::Failure, QStringLiteral("bench: cannot listen"));
    BenchPeers peers(options, bench.port());
    if (!peers.start(clients))
        return CommandLine::Failure;

    const auto allReady = [&] {
        int lowest = -1;
        bench.driver().call([&] { lowest = rounds.slowestAck(); });
        return lowest >= 0;
    };
    if (!waitUntil([&] { return allReady() || peers.running() < clients; }, SetupMs) ||
        !allReady()) {
        std::vector<BenchPeers::Result> ignored;
        peers.finish(ignored, 1000);
        return CommandLine::fail(
            CommandLine::Failure,
            QStringLiteral("bench %1: the clients did not get ready").arg(workload));
    }

    const Dovel::SessionStats& stats = bench.server().stats();
    const uint64_t bytesBefore = stats.bytesSent.load();
    const double cpuBefore = cpuSeconds();
    bench.driver().call([&] {
        rounds.running = true;
        rounds.deadlineNs = monotonicNs() + int64_t(options.seconds * 1e9);
        rounds.queueStep();
    });
    const int runMs = int(options.seconds * 1000) + SetupMs;
    if (!waitUntil([&] { return rounds.finished.load() || peers.running() < clients; }, runMs) ||
        !rounds.finished.load()) {
        std::vector<BenchPeers::Result> ignored;
        peers.finish(ignored, 1000);
        return CommandLine::fail(CommandLine::Failure,
                                 QStringLiteral("bench %1: the rounds stalled").arg(workload));
    }
    const double serverCpu = cpuSeconds() - cpuBefore;
    const uint64_t bytesSent = stats.bytesSent.load() - bytesBefore;

    std::vector<BenchPeers::Result> results;
    const bool ok = peers.finish(results, SetupMs);
    int roundsSet = 0;
    std::vector<int64_t> setTimes;
    bench.driver().call([&] {
        roundsSet = rounds.round;
        setTimes = rounds.setTimes;
    });

    double rate = 0;
    double clientCpu = 0;
    double distinct = 0;
    for (const auto& result : results) {
        rate += result.figures.value(workload, "changes_per_second");
        clientCpu += result.figures.value(workload, "client_cpu_s");
        distinct += result.figures.value(workload, "distinct_changes");
    }
    if (mode == Mode::Coalesce) {
        const double sourceRate = double(roundsSet) * Values / options.seconds;
        report.add(workload, "source_changes_per_second", sourceRate, "changes/s");
        report.add(workload, "changes_per_second", rate, "changes/s");
        std::vector<double> stale;
        if (!results.empty())
            stale = staleness(setTimes, results.front().output);
        report.add(workload, "staleness_p50_us", percentile(stale, 0.50), "us");
        report.add(workload, "staleness_p99_us", percentile(stale, 0.99), "us");
    } else {
        report.add(workload, "changes_per_second", rate, "changes/s");
        report.add(workload, "rounds", roundsSet, "rounds");
        const double expected = double(roundsSet) * Values * clients;
        report.add(workload, "changes_lost", expected - distinct, "changes");
        if (mode == Mode::Updates)
            report.target(workload, "target_changes_per_second", ">= 3,000,000 changes/s",
                          rate >= 3e6);
        report.target(workload, "target_every_round", "every round reaches every client",
                      ok && distinct == expected);
    }
    report.add(workload, "wire_bytes_per_change", distinct > 0 ? double(bytesSent) / distinct : 0,
               "bytes");
    report.add(workload, "server_cpu_s", serverCpu, "s");
    report.add(workload, "client_cpu_s", clientCpu, "s");
    return ok ? CommandLine::Success : CommandLine::Failure;
}

// A client's side; lives on its tree thread once connected.
struct Tally {
    Mode mode = Mode::Updates;
    std::vector<Tessel::AttributeT<float>*> values;
    std::vector<float> last;
    Tessel::AttributeT<int32_t>* ack = nullptr;
    uint64_t distinct = 0;
    int64_t firstNs = 0;
    int64_t lastNs = 0;
    // Values counted per round, for the rounds that may be in flight together.
    int slotRound[2 * Window + 2] = {};
    int slotCount[2 * Window + 2] = {};
    int newest = 0;
    std::vector<std::pair<int, int64_t>> arrivals;
    std::atomic<bool> stopped{false};

    void applied(int i) {
        const float value = values[size_t(i)]->value();
        if (value == last[size_t(i)])
            return;
        last[size_t(i)] = value;
        ++distinct;
        const int round = int(value);
        if (firstNs == 0)
            firstNs = monotonicNs();
        if (mode == Mode::Coalesce) {
            if (round > newest) {
                newest = round;
                lastNs = monotonicNs();
                arrivals.emplace_back(round, lastNs);
            }
            return;
        }
        const int slot = round % int(std::size(slotRound));
        if (slotRound[slot] != round) {
            slotRound[slot] = round;
            slotCount[slot] = 0;
        }
        if (++slotCount[slot] == Values) {
            lastNs = monotonicNs();
            ack->setValue(round, Layer);
        }
    }
};

int runPeer(const BenchOptions& options, BenchReport& report, Mode mode) {
    const QString workload = options.workload;
    Tally tally; // declared first: the tree's listeners point into it
    tally.mode = mode;
    MirrorClient mirror;
    if (!joinServer(mirror, options, SetupMs))
        return CommandLine::Failure;
    bool found = true;
    mirror.driver().call([&] {
        Tessel::Node& root = mirror.node();
        for (int i = 0; i < Values && found; ++i) {
            auto* attribute = typedAt<float>(root, valuePath(i));
            found = attribute != nullptr;
            if (!found)
                break;
            tally.values.push_back(attribute);
            tally.last.push_back(attribute->value());
            attribute->addListener([&tally, i] { tally.applied(i); },
                                   Tessel::Attribute::RoleChange);
        }
        tally.ack = typedAt<int32_t>(root, ackPath(options.peerIndex));
        auto* stop = typedAt<int32_t>(root, "control/stop");
        if (!found || !tally.ack || !stop) {
            found = false;
            return;
        }
        stop->addListener([&tally] { tally.stopped.store(true); }, Tessel::Attribute::RoleChange);
        tally.ack->setValue(0, Layer); // ready
    });
    if (!found)
        return CommandLine::fail(CommandLine::Failure,
                                 QStringLiteral("bench peer: the server's tree lacks attributes"));
    const double cpuBefore = cpuSeconds();
    if (!waitUntil([&] { return tally.stopped.load() || !mirror.client().isConnected(); },
                   int(options.seconds * 1000) + SetupMs) ||
        !tally.stopped.load())
        return CommandLine::fail(CommandLine::Failure,
                                 QStringLiteral("bench peer: the server never ended the run"));
    const double cpu = cpuSeconds() - cpuBefore;
    mirror.driver().call([&] {
        const double seconds = double(tally.lastNs - tally.firstNs) / 1e9;
        report.add(workload, "changes_per_second",
                   seconds > 0 ? double(tally.distinct) / seconds : 0, "changes/s");
        report.add(workload, "distinct_changes", double(tally.distinct), "changes");
        report.add(workload, "client_cpu_s", cpu, "s");
        QByteArray lines;
        for (const auto& arrival : tally.arrivals)
            lines += "arrival " + QByteArray::number(arrival.first) + ' ' +
                     QByteArray::number(qlonglong(arrival.second)) + '\n';
        CommandLine::print(lines);
    });
    mirror.stop();
    return CommandLine::Success;
}

} // namespace

int runUpdatesBench(const BenchOptions& options, BenchReport& report) {
    const Mode mode = modeOf(options.workload);
    return options.isPeer() ? runPeer(options, report, mode) : runServer(options, report, mode);
}

} // namespace DovelTool
