// initial: the server holds a tree of N attributes (BenchItems.h: half floats, a quarter
// strings of 16 bytes, a quarter 3-float vectors) in items of four under nested nodes,
// scene/layerL/groupG/itemI/{a,b,name,pos}; a client connects and the time until its
// copy is whole is measured, with both processes' memory, and the time until the first
// piece of it has arrived (the server's part, before the client can begin).
//
// The client process is started before the tree is built and waits to be released, as
// a client of a long-running application would find it already built.
//
// Memory: the server's tree alone (heap growth while building and watching it), the
// server's session (heap growth from the tree built to the client holding it, the
// server's tree unchanged meanwhile), and the client's session (its heap growth once the
// bytes in flight have drained, minus what the same tree costs on the server's side).
// The client writes "control/converged" = 1 when its copy is whole; the server then
// takes its reading and writes "control/stop" = 1. With --reconnect, the server first
// drops the client, which comes back holding the whole tree: the time from its new
// session's start to that session's first batch applied is the reconnect's, and the
// client writes "control/converged" = 2 when it is whole again.
#include "BenchItems.h"
#include "BenchProcess.h"
#include "BenchReport.h"
#include "BenchTree.h"
#include "BenchWorkloads.h"
#include "CommandLine.h"
#include "MirrorClient.h"

#include "Tessel/Node.h"

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QProcess>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <thread>

namespace DovelTool {

namespace {

constexpr int DefaultAttributes = 1000000;
constexpr int ControlAttributes = 2;
constexpr auto Layer = Tessel::Attribute::LayerRemote;
constexpr int SetupMs = 120000;

int countAttributes(Tessel::Node& root) {
    int count = 0;
    Dovel::walkAttributesWithPath(root, [&](Tessel::Attribute& attribute, const QByteArray&) {
        count += Tessel::asNode(&attribute) == nullptr;
    });
    return count;
}

// Seconds from the start to the end of a `dovel` process run with `args` (as a user
// runs it from a shell), or -1 when it fails.
double timeToolRun(const QStringList& args) {
    QProcess tool;
    tool.setProcessChannelMode(QProcess::ForwardedErrorChannel);
    tool.setStandardOutputFile(QProcess::nullDevice());
    QElapsedTimer clock;
    clock.start();
    tool.start(QCoreApplication::applicationFilePath(), args);
    if (!tool.waitForFinished(SetupMs) || tool.exitStatus() != QProcess::NormalExit ||
        tool.exitCode() != 0)
        return -1;
    return double(clock.nsecsElapsed()) / 1e9;
}

int runServer(const BenchOptions& options, BenchReport& report) {
    const QString workload = options.workload;
    std::atomic<int> converged{0}; // the client's last "control/converged"
    BenchServer bench;
    const int attributes =
        wholeItems(options.attributes > 0 ? options.attributes : DefaultAttributes);
    Tessel::AttributeT<int32_t>* stop = nullptr;
    // The client starts while this process is small and waits to be released.
    if (!bench.listen())
        return CommandLine::fail(CommandLine::Failure, QStringLiteral("bench: cannot listen"));
    BenchOptions peerOptions = options;
    peerOptions.attributes = attributes;
    BenchPeers peers(peerOptions, bench.port());
    if (!peers.start(1))
        return CommandLine::Failure;
    const double heapBefore = heapInUseBytes();
    bench.driver().call([&] {
        buildItems(bench.root(), attributes);
        // The node starts watching what was added at its next update; an application's
        // tree has long been watched when a client comes, so that is part of the tree.
        bench.root().processPendingAdditions();
    });
    const double heapTree = heapInUseBytes();
    bench.driver().call([&] {
        auto* control = new Tessel::Node(&bench.root(), "control");
        auto* done = new Tessel::AttributeT<int32_t>(control, "converged", 0);
        stop = new Tessel::AttributeT<int32_t>(control, "stop", 0);
        done->addListener([&converged, done] { converged.store(done->value()); },
                          Tessel::Attribute::RoleChange);
    });
    peers.release();
    if (!waitUntil([&] { return converged.load() > 0 || peers.running() == 0; }, SetupMs) ||
        converged.load() == 0) {
        std::vector<BenchPeers::Result> ignored;
        peers.finish(ignored, 1000);
        return CommandLine::fail(CommandLine::Failure,
                                 QStringLiteral("bench initial: the client never held the tree"));
    }
    const double heapSession = heapInUseBytes();
    if (options.reconnect) {
        for (const auto& session : bench.server().sessions())
            session->connection().abortConnection();
        if (!waitUntil([&] { return converged.load() == 2 || peers.running() == 0; }, SetupMs) ||
            converged.load() != 2) {
            std::vector<BenchPeers::Result> ignored;
            peers.finish(ignored, 1000);
            return CommandLine::fail(CommandLine::Failure,
                                     QStringLiteral("bench initial: the client never came back"));
        }
    }
    // A user's `set` and `get` of one path while the client is connected: they ask for
    // that path alone, whatever the tree's size.
    const QString address = QStringLiteral("127.0.0.1:%1").arg(bench.port());
    const double setSeconds =
        timeToolRun({QStringLiteral("set"), address, QStringLiteral("scene/layer0/probe=1")});
    const double getSeconds =
        timeToolRun({QStringLiteral("get"), address, QStringLiteral("scene/layer0/probe")});
    bench.driver().call([&] { stop->setValue(1, Layer); });
    std::vector<BenchPeers::Result> results;
    const bool ok = peers.finish(results, SetupMs);
    if (results.empty())
        return CommandLine::Failure;
    const BenchReport& client = results.front().figures;

    const double treeBytes = (heapTree - heapBefore) / attributes;
    const double serverBytes = (heapSession - heapTree) / attributes;
    const double clientBytes = client.value(workload, "client_heap_per_attribute") - treeBytes;
    const double seconds = client.value(workload, "seconds");
    report.add(workload, "attributes", attributes, "attributes");
    report.add(workload, "seconds", seconds, "s");
    report.add(workload, "first_piece_seconds", client.value(workload, "first_piece_seconds"), "s");
    if (options.reconnect) {
        const double again = client.value(workload, "reconnect_seconds");
        report.add(workload, "reconnect_seconds", again, "s");
        report.target(workload, "target_reconnect_seconds",
                      "a client that reconnects holding the tree converges no slower than a "
                      "first copy",
                      ok && again <= seconds);
    }
    report.add(workload, "set_seconds", setSeconds, "s");
    report.add(workload, "get_seconds", getSeconds, "s");
    report.target(workload, "target_set_seconds",
                  "a tool's set of one path on this tree takes under 0.2 s",
                  setSeconds >= 0 && setSeconds < 0.2);
    report.add(workload, "server_peak_rss_mb", peakRssMb(), "MiB");
    report.add(workload, "client_peak_rss_mb", client.value(workload, "client_peak_rss_mb"), "MiB");
    report.add(workload, "tree_bytes_per_attribute", treeBytes, "bytes");
    report.add(workload, "server_bytes_per_attribute", serverBytes, "bytes");
    report.add(workload, "client_bytes_per_attribute", clientBytes, "bytes");
    report.add(workload, "bytes_per_attribute", std::max(serverBytes, clientBytes), "bytes");
    report.target(workload, "target_tree_bytes_per_attribute",
                  "the tree and its watching at most 250 bytes per attribute",
                  ok && treeBytes <= 250);
    report.target(workload, "target_bytes_per_attribute",
                  "session memory at most 120 bytes per attribute on each side",
                  ok && serverBytes <= 120 && clientBytes <= 120);
    return ok ? CommandLine::Success : CommandLine::Failure;
}

// The heap once it has stopped shrinking: what the session keeps, without the bytes
// still in flight when the copy became whole (answers this side is still sending,
// bundles being released), which drain within a second or two.
double settledHeapBytes() {
    double last = heapInUseBytes();
    for (int step = 0; step < 50; ++step) {
        std::this_thread::sleep_for(std::chrono::milliseconds(200));
        const double now = heapInUseBytes();
        if (now > last * 0.998)
            return std::min(now, last);
        last = now;
    }
    return last;
}

int runPeer(const BenchOptions& options, BenchReport& report) {
    const QString workload = options.workload;
    std::atomic<bool> stopped{false};
    waitForRelease();
    const double heapBefore = heapInUseBytes();
    MirrorClient mirror;
    QElapsedTimer timer;
    timer.start();
    mirror.connectToHost(options.peerHost, options.peerPort);
    // The first piece of the server's first pass read: what the connection's start and
    // the server's pass took before this side could begin (within a millisecond).
    const Dovel::SessionStats& counters = mirror.client().stats();
    double firstPiece = -1;
    if (waitUntil([&] { return counters.batchesReceived.load() > 0 || mirror.hasFailed(); },
                  SetupMs) &&
        counters.batchesReceived.load() > 0)
        firstPiece = double(timer.nsecsElapsed()) / 1e9;
    // The copy is whole when the first batch is applied; the count checks it.
    int held = 0;
    const int expected = options.attributes + ControlAttributes;
    // What the wait for the first piece took comes off the setup's allowance.
    if (!mirror.waitInitialState(std::max(0, SetupMs - int(timer.elapsed()))))
        return CommandLine::fail(
            CommandLine::Failure,
            QStringLiteral("bench peer: no session (%1)").arg(mirror.failureReason()));
    // Read before the count: that walk queues behind whatever the tree thread does next
    // (this side's own first output pass, announcing what it now holds).
    const double seconds = double(timer.nsecsElapsed()) / 1e9;
    mirror.driver().call([&] { held = countAttributes(mirror.node()); });
    const double heapAfter = settledHeapBytes();
    if (held != expected)
        return CommandLine::fail(CommandLine::Failure,
                                 QStringLiteral("bench peer: the copy holds %1 of %2 attributes")
                                     .arg(held)
                                     .arg(expected));
    bool found = false;
    mirror.driver().call([&] {
        auto* done = typedAt<int32_t>(mirror.node(), "control/converged");
        auto* stop = typedAt<int32_t>(mirror.node(), "control/stop");
        found = done && stop;
        if (!found)
            return;
        stop->addListener([&stopped] { stopped.store(true); }, Tessel::Attribute::RoleChange);
        done->setValue(1, Layer);
    });
    if (found && options.reconnect) {
        // Dropped by the server, the client comes back: timed from its new session's
        // start to that session's first batch applied.
        const Dovel::SessionStats& stats = mirror.client().stats();
        // What the first session still had queued is applied once it ended (before the
        // next attempt, a retry pause later): the next batch applied is the new one's.
        if (!waitUntil([&] { return stats.sessionsEnded.load() >= 1; }, SetupMs) ||
            !mirror.driver().call([] {}))
            return CommandLine::fail(CommandLine::Failure,
                                     QStringLiteral("bench peer: the server never dropped it"));
        const uint64_t appliedBefore = stats.batchesApplied.load();
        if (!waitUntil([&] { return stats.sessionsStarted.load() >= 2; }, SetupMs))
            return CommandLine::fail(CommandLine::Failure,
                                     QStringLiteral("bench peer: no second session"));
        QElapsedTimer again;
        again.start();
        if (!waitUntil([&] { return stats.batchesApplied.load() > appliedBefore; }, SetupMs) ||
            !mirror.driver().call([] {}))
            return CommandLine::fail(CommandLine::Failure,
                                     QStringLiteral("bench peer: the second copy never came"));
        report.add(workload, "reconnect_seconds", double(again.nsecsElapsed()) / 1e9, "s");
        mirror.driver().call([&] {
            if (auto* done = typedAt<int32_t>(mirror.node(), "control/converged"))
                done->setValue(2, Layer);
        });
    }
    if (!found || !waitUntil([&] { return stopped.load(); }, SetupMs))
        return CommandLine::fail(CommandLine::Failure,
                                 QStringLiteral("bench peer: the server never ended the run"));
    report.add(workload, "seconds", seconds, "s");
    report.add(workload, "first_piece_seconds", firstPiece, "s");
    report.add(workload, "client_peak_rss_mb", peakRssMb(), "MiB");
    report.add(workload, "client_heap_per_attribute", (heapAfter - heapBefore) / options.attributes,
               "bytes");
    mirror.stop();
    return CommandLine::Success;
}

} // namespace

int runInitialBench(const BenchOptions& options, BenchReport& report) {
    return options.isPeer() ? runPeer(options, report) : runServer(options, report);
}

} // namespace DovelTool
