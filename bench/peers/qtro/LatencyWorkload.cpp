#include "BenchOptions.h"
#include "BenchReport.h"
#include "LatencyReplica.h"
#include "LatencySource.h"
#include "ProcessProbe.h"
#include "RawPing.h"
#include "ReplicaProcess.h"
#include "WorkloadLoop.h"
#include "Workloads.h"

#include <QRemoteObjectHost>
#include <QTcpServer>
#include <QTcpSocket>

#include <algorithm>
#include <cmath>

namespace QtroBench {

namespace {

// Warm-up trips before the timed ones, of each kind.
int warmUpTrips(int trips) {
    return qMin(1000, trips);
}

// The q-th quantile (0..1) of `samples`, in microseconds; sorts them.
double quantileUs(QVector<qint64>& samples, double q) {
    if (samples.isEmpty())
        return 0;
    std::sort(samples.begin(), samples.end());
    const int index = qBound(0, int(std::ceil(q * samples.size())) - 1, samples.size() - 1);
    return double(samples[index]) / 1000.0;
}

int runReplica(const BenchOptions& options) {
    LatencyReplica replica{QUrl(options.peer)};
    WorkloadLoop loop(QStringLiteral("latency replica"));
    QObject::connect(&replica, &LatencyReplica::done, &loop, &WorkloadLoop::finish);
    QObject::connect(&replica, &LatencyReplica::broken, &loop, &WorkloadLoop::fail);
    // Generous: a round trip on loopback takes well under a millisecond.
    return loop.run(SlackSeconds + 2 * options.trips / 1000.0) ? 0 : 1;
}

} // namespace

int runLatency(const BenchOptions& options, BenchReport& report) {
    if (options.isReplica())
        return runReplica(options);

    const int warmUp = warmUpTrips(options.trips);
    const double expected = 2 * options.trips / 1000.0;
    QRemoteObjectHost host(QUrl(QStringLiteral("tcp://127.0.0.1:0")));
    LatencySource source(warmUp, options.trips);
    if (!host.enableRemoting(&source, QStringLiteral("latency"))) {
        std::fprintf(stderr, "qtro-bench: latency source could not be shared\n");
        return 1;
    }
    QTcpServer rawServer;
    if (!rawServer.listen(QHostAddress::LocalHost, 0)) {
        std::fprintf(stderr, "qtro-bench: latency source: %s\n",
                     qPrintable(rawServer.errorString()));
        return 1;
    }

    WorkloadLoop trips(QStringLiteral("latency source"));
    QObject::connect(&source, &LatencySource::done, &trips, &WorkloadLoop::finish);
    QObject::connect(&source, &LatencySource::broken, &trips, &WorkloadLoop::fail);
    ReplicaProcess replica;
    QObject::connect(&replica, &ReplicaProcess::ended, &trips, &WorkloadLoop::fail);
    if (!replica.start(options, host.hostUrl().toString()))
        return 1;
    if (!trips.run(SlackSeconds + expected))
        return 1;

    // The raw ping-pong starts once the request has left through the event loop and the
    // replica has connected; then it blocks this thread until it is over.
    WorkloadLoop connecting(QStringLiteral("latency source, raw ping"));
    QObject::connect(&rawServer, &QTcpServer::newConnection, &connecting, &WorkloadLoop::finish);
    QObject::connect(&replica, &ReplicaProcess::ended, &connecting, &WorkloadLoop::fail);
    emit source.rawPingRequested(int(rawServer.serverPort()), warmUp + options.trips);
    if (!connecting.run(SlackSeconds))
        return 1;
    std::unique_ptr<QTcpSocket> raw(rawServer.nextPendingConnection());
    tcpNoDelay(int(raw->socketDescriptor()), true);
    QVector<qint64> rawSamples;
    QString error;
    if (!RawPing::ping(int(raw->socketDescriptor()), warmUp, warmUp + options.trips, rawSamples,
                       error)) {
        std::fprintf(stderr, "qtro-bench: latency source: %s\n", qPrintable(error));
        return 1;
    }
    if (!replica.waitForExit(int(SlackSeconds * 1000)))
        return 1;

    QVector<qint64> samples = source.roundTrips();
    const QString workload = QStringLiteral("latency");
    const QString us = QStringLiteral("us");
    report.add(workload, QStringLiteral("rtt_p50_us"), quantileUs(samples, 0.50), us);
    report.add(workload, QStringLiteral("rtt_p99_us"), quantileUs(samples, 0.99), us);
    report.add(workload, QStringLiteral("rtt_max_us"), quantileUs(samples, 1.0), us);
    report.add(workload, QStringLiteral("tcp_rtt_p50_us"), quantileUs(rawSamples, 0.50), us);
    return 0;
}

} // namespace QtroBench
