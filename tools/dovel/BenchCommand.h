// `dovel bench WORKLOAD`: measures the library as users run it, a server and its
// clients as separate processes on loopback (this process is the server and starts the
// clients as copies of itself with --peer). Prints a table, or JSON lines with --json
// (see BenchReport).
//
// Workloads: updates, coalesce, latency, initial, fanout, files. Each lives in a unit
// of its own and is picked here by name.
#pragma once

#include <QString>
#include <QStringList>

namespace DovelTool {

class BenchReport;

// What a workload is asked to do. A peer process gets the same options plus its peer
// address and index.
struct BenchOptions {
    QString workload;
    double seconds = 5; // how long a timed workload runs
    int attributes = 0; // 0: the workload's default
    int clients = 0;    // 0: the workload's default
    int trips = 10000;  // round trips of `latency`
    bool json = false;
    QString peerHost; // non-empty: this process is peer number `peerIndex`
    int peerPort = 0;
    int peerIndex = 0;
    QString scratch;        // files: the folder to work in (empty: a temporary one)
    bool reconnect = false; // initial: the client also reconnects, holding the tree

    bool isPeer() const { return !peerHost.isEmpty(); }
    // The words that start a peer of this run, without the program.
    QStringList peerArguments(int port, int index) const;
};

// A workload's entry: runs the server side (starting peers as needed) or, with
// options.isPeer(), one peer. Adds its figures and targets to `report`; returns an
// exit status (CommandLine::Status).
using BenchWorkload = int (*)(const BenchOptions& options, BenchReport& report);

// `args` are the words after "bench".
int runBench(const QStringList& args);

} // namespace DovelTool
