// What the benchmark workloads share about processes: starting their peers (copies of
// this program with --peer) and reading the figures they print, and this process's
// own CPU time, peak resident size and heap in use.
//
// Not thread-safe; the command's main thread owns it.
#pragma once

#include "BenchCommand.h"
#include "BenchReport.h"

#include <QProcess>

#include <memory>
#include <vector>

namespace DovelTool {

class BenchPeers {
public:
    BenchPeers(const BenchOptions& options, int port);
    // Kills peers that are still running.
    ~BenchPeers();

    // Starts `count` peers; false (with a note on stderr) when one does not start.
    bool start(int count);
    // Lets peers that wait for it (waitForRelease) go on: writes one line to each one's
    // standard input. A workload that builds a large tree starts its peers first and
    // releases them once the tree is built, so that starting a process does not copy
    // the page tables of a big one (and fault on every page it writes afterwards).
    void release();
    // What one peer printed: its figures, and the whole text for workloads that pass
    // more than figures.
    struct Result {
        BenchReport figures;
        QByteArray output;
    };
    // Waits up to `ms` for every peer to end and returns what each printed, in the order
    // they were started. False when one failed, crashed or ran over; its standard error
    // goes to ours.
    bool finish(std::vector<Result>& results, int ms);
    // Peers started and not finished yet.
    int running() const;

private:
    BenchOptions options;
    int port;
    std::vector<std::unique_ptr<QProcess>> processes;
};

// In a peer: blocks until the server process calls release (or its pipe closes).
void waitForRelease();
// CPU seconds (user + system) this process has used so far.
double cpuSeconds();
// The peak resident set size of this process so far, in MiB.
double peakRssMb();
// Bytes the heap has handed out and not taken back.
double heapInUseBytes();

} // namespace DovelTool
