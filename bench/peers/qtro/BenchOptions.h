// What one qtro-bench run is asked to do, read from its command line. The source
// process hands the same options, plus the address of its host, to the replica it starts.
// A plain value; no thread contract.
#pragma once

#include <QString>
#include <QStringList>

namespace QtroBench {

struct BenchOptions {
    QString workload;   // updates, latency or initial
    double seconds = 5; // how long updates runs
    int attributes = 0; // 0: the workload's default
    int trips = 10000;  // timed round trips of latency
    bool json = false;  // figures as JSON lines instead of a table
    QString peer;       // non-empty: this process is the replica of the host at this URL

    bool isReplica() const { return !peer.isEmpty(); }
    // --attributes, or the workload's own default.
    int attributeCount() const;
    // The arguments that start the replica of this run against `hostUrl`.
    QStringList replicaArguments(const QString& hostUrl) const;

    // Reads `args` (without the program name). On a usage error returns false and
    // sets `error` to one line.
    static bool parse(const QStringList& args, BenchOptions& options, QString& error);
    static QString usage();
};

} // namespace QtroBench
