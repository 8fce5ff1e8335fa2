#include "BenchOptions.h"
#include "BenchReport.h"
#include "ProcessProbe.h"
#include "ReplicaProcess.h"
#include "UpdatesReplica.h"
#include "UpdatesSource.h"
#include "WorkloadLoop.h"
#include "Workloads.h"

#include <QRemoteObjectHost>

namespace QtroBench {

namespace {

int runReplica(const BenchOptions& options, BenchReport& report) {
    UpdatesReplica replica(options.attributeCount(), QUrl(options.peer));
    WorkloadLoop loop(QStringLiteral("updates replica"));
    QObject::connect(&replica, &UpdatesReplica::done, &loop, &WorkloadLoop::finish);
    QObject::connect(&replica, &UpdatesReplica::broken, &loop, &WorkloadLoop::fail);
    if (!loop.run(options.seconds + SlackSeconds))
        return 1;
    report = replica.figures();
    return 0;
}

} // namespace

int runUpdates(const BenchOptions& options, BenchReport& report) {
    if (options.isReplica())
        return runReplica(options, report);

    QRemoteObjectHost host(QUrl(QStringLiteral("tcp://127.0.0.1:0")));
    UpdatesSource source(options.attributeCount(), options.seconds);
    if (!host.enableRemoting(&source, QStringLiteral("updates"))) {
        std::fprintf(stderr, "qtro-bench: updates source could not be shared\n");
        return 1;
    }
    WorkloadLoop loop(QStringLiteral("updates source"));
    QObject::connect(&source, &UpdatesSource::done, &loop, &WorkloadLoop::finish);
    QObject::connect(&source, &UpdatesSource::broken, &loop, &WorkloadLoop::fail);
    ReplicaProcess replica;
    QObject::connect(&replica, &ReplicaProcess::ended, &loop, &WorkloadLoop::fail);
    if (!replica.start(options, host.hostUrl().toString()))
        return 1;
    if (!loop.run(options.seconds + SlackSeconds))
        return 1;
    const double cpu = source.cpuUsed();
    if (!replica.waitForExit(int(SlackSeconds * 1000)))
        return 1;
    report.readJsonLines(replica.output());
    report.add(QStringLiteral("updates"), QStringLiteral("server_cpu_s"), cpu, QStringLiteral("s"));
    return 0;
}

} // namespace QtroBench
