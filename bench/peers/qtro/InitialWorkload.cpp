#include "BenchOptions.h"
#include "BenchReport.h"
#include "ProcessProbe.h"
#include "ReplicaProcess.h"
#include "TreeReplica.h"
#include "TreeSource.h"
#include "WorkloadLoop.h"
#include "Workloads.h"

#include <QRemoteObjectHost>

#include <memory>

namespace QtroBench {

namespace {

// What the workload may take at most before the slack: 20 us an attribute is far more
// than either side needs.
double expectedSeconds(int attributes) {
    return attributes * 20e-6;
}

int runReplica(const BenchOptions& options, BenchReport& report) {
    WorkloadLoop loop(QStringLiteral("initial replica"));
    TreeReplica replica(options.attributeCount(), QUrl(options.peer));
    QObject::connect(&replica, &TreeReplica::done, &loop, &WorkloadLoop::finish);
    QObject::connect(&replica, &TreeReplica::broken, &loop, &WorkloadLoop::fail);
    if (!loop.run(SlackSeconds + expectedSeconds(options.attributeCount())))
        return 1;
    report = replica.figures();
    return 0;
}

} // namespace

int runInitial(const BenchOptions& options, BenchReport& report) {
    if (options.isReplica())
        return runReplica(options, report);

    const int attributes = options.attributeCount();
    QRemoteObjectHost host(QUrl(QStringLiteral("tcp://127.0.0.1:0")));
    const double heapStart = heapInUseBytes();
    TreeSource source(attributes);
    if (!host.enableRemoting(&source, QStringLiteral("initial"))) {
        std::fprintf(stderr, "qtro-bench: initial source could not be shared\n");
        return 1;
    }
    // The replica times itself and checks what it holds; the source serves it until it
    // has ended and then measures what holding and serving the tree cost.
    ReplicaProcess replica;
    if (!replica.start(options, host.hostUrl().toString()))
        return 1;
    if (!replica.waitForExit(int((SlackSeconds + expectedSeconds(attributes)) * 1000)))
        return 1;
    const double heapGrowth = heapInUseBytes() - heapStart;

    report.readJsonLines(replica.output());
    const QString workload = QStringLiteral("initial");
    report.add(workload, QStringLiteral("server_peak_rss_mb"), peakRssMb(), QStringLiteral("MiB"));
    report.add(workload, QStringLiteral("server_bytes_per_attribute"), heapGrowth / attributes,
               QStringLiteral("B"));
    return 0;
}

} // namespace QtroBench
