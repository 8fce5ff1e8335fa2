// qtro-bench: Dovel's benchmark workloads written with Qt Remote Objects, so that the
// benchmark script can print both side by side. See README.md beside this file.

#include "BenchOptions.h"
#include "BenchReport.h"
#include "Workloads.h"

#include <QCoreApplication>

#include <cstdio>

int main(int argc, char** argv) {
    QCoreApplication app(argc, argv);
    using namespace QtroBench;

    BenchOptions options;
    QString error;
    if (!BenchOptions::parse(app.arguments().mid(1), options, error)) {
        std::fprintf(stderr, "qtro-bench: %s\n%s\n", qPrintable(error),
                     qPrintable(BenchOptions::usage()));
        return 2;
    }

    BenchReport report;
    int status = 1;
    if (options.workload == QLatin1String("updates"))
        status = runUpdates(options, report);
    else if (options.workload == QLatin1String("latency"))
        status = runLatency(options, report);
    else
        status = runInitial(options, report);
    if (status != 0)
        return status;
    // The replica always reports in JSON lines: the source reads them.
    report.print(options.json || options.isReplica());
    return 0;
}
