// `dovel bench` as a process: one short workload runs to its end and reports its figures
// as JSON lines, and usage errors exit 2. The figures themselves belong to the benchmark
// script: a short run proves nothing about them.
#include "ToolProcess.h"

#include "dovel/BenchReport.h"

#include <gtest/gtest.h>

namespace {

using ToolTest::ToolRunner;

TEST(BenchCommand, AShortRunPrintsItsFiguresAndUsageErrorsExit2) {
    DOVEL_REQUIRE_TOOL();
    ToolRunner tool;
    const ToolTest::ToolRun run = tool.run({"bench", "latency", "--trips", "20", "--json"}, 120000);
    ASSERT_EQ(run.exitCode, 0) << run.err.constData();
    // Every line is a figure object: {"workload", "metric", "value", "unit"}.
    DovelTool::BenchReport report;
    EXPECT_EQ(report.readJsonLines(run.out), run.out.trimmed().split('\n').size())
        << run.out.constData();
    EXPECT_EQ(report.value("latency", "trips"), 20);
    EXPECT_TRUE(report.has("latency", "rtt_p50_us")) << run.out.constData();

    const ToolTest::ToolRun unknown = tool.run({"bench", "sideways"});
    EXPECT_EQ(unknown.exitCode, 2);
    EXPECT_TRUE(unknown.err.contains("unknown workload 'sideways'")) << unknown.err.constData();
}

} // namespace
