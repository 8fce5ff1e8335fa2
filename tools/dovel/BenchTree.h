// What the tree workloads of `dovel bench` share: the server process's tree, tree
// thread and session server on loopback, a client joining it, attribute lookup by
// path, waiting for a
// condition, a clock that every process on the machine reads alike, and percentiles.
//
// BenchServer: not thread-safe; the command's main thread owns it, and its tree is
// changed only on its driver's thread.
#pragma once

#include "BenchCommand.h"
#include "MirrorClient.h"

#include "Dovel/session/SessionDriver.h"
#include "Dovel/session/SessionServer.h"
#include "Dovel/sync/RemoteNode.h"

#include "Tessel/AttributeT.h"

#include <QByteArray>

#include <cstdint>
#include <functional>
#include <memory>
#include <vector>

namespace DovelTool {

class BenchServer {
public:
    BenchServer();
    // Stops the server before the tree thread, the thread before the tree.
    ~BenchServer();

    // Starts the session server on 127.0.0.1 and an ephemeral port; false when it cannot.
    bool listen();
    int port() const;

    Dovel::RemoteNode& root() { return tree; }
    Dovel::SessionDriver& driver() { return treeThread; }
    Dovel::SessionServer& server() { return *session; }

private:
    Dovel::RemoteNode tree; // declared first: it outlives the thread and the server
    Dovel::SessionDriver treeThread;
    std::unique_ptr<Dovel::SessionServer> session;
};

// The attribute of that type at a slash-separated path under `root`, or null.
template <typename T> Tessel::AttributeT<T>* typedAt(Tessel::Node& root, const QByteArray& path) {
    return dynamic_cast<Tessel::AttributeT<T>*>(Dovel::attributeAt(root, path));
}

// Connects `mirror` to the benchmark's server (options.peerHost, peerPort) and waits up to
// `ms` for the server's tree; false, with a line on standard error, when none comes.
bool joinServer(MirrorClient& mirror, const BenchOptions& options, int ms);

// Checks `condition` every millisecond until it holds or `ms` have passed; false then.
bool waitUntil(const std::function<bool()>& condition, int ms);

// Nanoseconds of CLOCK_MONOTONIC: the same clock in every process of the machine, so
// that a time taken by the server compares with one taken by a client.
int64_t monotonicNs();

// The value below which `fraction` (0..1) of `samples` lie; 0 for no samples. Sorts.
double percentile(std::vector<double>& samples, double fraction);

} // namespace DovelTool
