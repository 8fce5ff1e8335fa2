#include "BenchWorkloads.h"

#include "CommandLine.h"

namespace DovelTool {

int runFilesBench(const BenchOptions&, BenchReport&) {
    return CommandLine::fail(CommandLine::Failure, QStringLiteral("bench files: not built yet"));
}

} // namespace DovelTool
