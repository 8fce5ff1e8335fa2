#include "BenchWorkloads.h"

#include "CommandLine.h"

namespace DovelTool {

int runInitialBench(const BenchOptions&, BenchReport&) {
    return CommandLine::fail(CommandLine::Failure, QStringLiteral("bench: not built yet"));
}

} // namespace DovelTool
