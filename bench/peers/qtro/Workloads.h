// The workloads, each in a unit of its own. Each runs the side that `options` asks for:
// the source (which starts its replica) or, with --peer, the replica. The source adds
// every figure of the run to `report`, the replica its own. Returns the exit status.
// Main thread only.
#pragma once

namespace QtroBench {

struct BenchOptions;
class BenchReport;

int runUpdates(const BenchOptions& options, BenchReport& report);
int runLatency(const BenchOptions& options, BenchReport& report);
int runInitial(const BenchOptions& options, BenchReport& report);

// How long a side may wait beyond what the workload is expected to take.
constexpr double SlackSeconds = 60;

} // namespace QtroBench
