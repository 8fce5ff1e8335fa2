// `dovel bench` end to end, in short runs: the server and its clients as real processes,
// the figures read back from the JSON lines. The speeds are not checked here (they belong
// to the benchmark script), only that every workload completes and loses nothing.
#include "ToolProcess.h"

#include "dovel/BenchReport.h"

#include <gtest/gtest.h>

namespace {

using DovelTool::BenchReport;
using ToolTest::DovelTool;

BenchReport runBench(const QStringList& args) {
    DovelTool tool;
    const ToolTest::ToolRun run =
        tool.run(QStringList{"bench"} + args + QStringList{"--json"}, 120000);
    EXPECT_EQ(run.exitCode, 0) << run.err.constData();
    BenchReport report;
    report.readJsonLines(run.out);
    return report;
}

TEST(BenchCommand, RoundsReachEveryClientWhole) {
    if (!ToolTest::toolBuilt())
        GTEST_SKIP() << "the dovel tool is not built";
    const BenchReport updates = runBench({"updates", "--seconds", "0.3"});
    EXPECT_GT(updates.value("updates", "rounds"), 0);
    EXPECT_EQ(updates.value("updates", "changes_lost", -1), 0);
    EXPECT_GT(updates.value("updates", "changes_per_second"), 0);
    // A float change is its 4-byte symbol and 4-byte value, plus a share of the headers.
    EXPECT_GE(updates.value("updates", "wire_bytes_per_change"), 8.0);
    EXPECT_LT(updates.value("updates", "wire_bytes_per_change"), 9.0);
    EXPECT_EQ(updates.value("updates", "target_every_round"), 1);

    const BenchReport fanout = runBench({"fanout", "--clients", "3", "--seconds", "0.3"});
    EXPECT_GT(fanout.value("fanout", "rounds"), 0);
    EXPECT_EQ(fanout.value("fanout", "changes_lost", -1), 0);

    const BenchReport coalesce = runBench({"coalesce", "--seconds", "0.3"});
    EXPECT_GT(coalesce.value("coalesce", "source_changes_per_second"), 0);
    EXPECT_GT(coalesce.value("coalesce", "staleness_p50_us"), 0);
}

TEST(BenchCommand, LatencyAndInitialCopy) {
    if (!ToolTest::toolBuilt())
        GTEST_SKIP() << "the dovel tool is not built";
    const BenchReport latency = runBench({"latency", "--trips", "200"});
    EXPECT_EQ(latency.value("latency", "trips"), 200);
    EXPECT_GT(latency.value("latency", "rtt_p50_us"), 0);
    EXPECT_GT(latency.value("latency", "tcp_rtt_p50_us"), 0);
    EXPECT_LE(latency.value("latency", "rtt_p50_us"), latency.value("latency", "rtt_p99_us"));

    const BenchReport initial = runBench({"initial", "--attributes", "2000", "--reconnect"});
    EXPECT_EQ(initial.value("initial", "attributes"), 2000);
    EXPECT_GT(initial.value("initial", "seconds"), 0);
    EXPECT_GT(initial.value("initial", "reconnect_seconds"), 0);
    EXPECT_GT(initial.value("initial", "client_peak_rss_mb"), 0);
}

TEST(BenchCommand, UsageErrors) {
    if (!ToolTest::toolBuilt())
        GTEST_SKIP() << "the dovel tool is not built";
    DovelTool tool;
    EXPECT_EQ(tool.run({"bench"}).exitCode, 2);
    const ToolTest::ToolRun unknown = tool.run({"bench", "sideways"});
    EXPECT_EQ(unknown.exitCode, 2);
    EXPECT_TRUE(unknown.err.contains("unknown workload 'sideways'")) << unknown.err.constData();
    EXPECT_EQ(tool.run({"bench", "updates", "--clients", "0"}).exitCode, 2);
}

} // namespace
