// The entries of the `dovel bench` workloads (see BenchCommand.h), one unit each.
#pragma once

#include "BenchCommand.h"

namespace DovelTool {

// updates, coalesce and fanout: rounds of changes to 10,000 float attributes.
int runUpdatesBench(const BenchOptions& options, BenchReport& report);
// latency: round trips through a mirrored attribute, next to a raw TCP ping-pong.
int runLatencyBench(const BenchOptions& options, BenchReport& report);
// initial: a client's first copy of a large tree.
int runInitialBench(const BenchOptions& options, BenchReport& report);
// files: folder mirroring, cold and warm, next to rsync when it is installed.
int runFilesBench(const BenchOptions& options, BenchReport& report);

} // namespace DovelTool
