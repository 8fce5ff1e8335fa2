// The replica of `initial`: connects, waits until it holds the whole tree, then checks
// every path and value against TreeContent and reports the time it took from starting
// to connect, its peak resident size and the heap it grew by per attribute.
// Main thread only.
#pragma once

#include "BenchReport.h"
#include "rep_bench_replica.h"

#include <QElapsedTimer>
#include <QRemoteObjectNode>
#include <QUrl>

#include <memory>

namespace QtroBench {

class TreeReplica : public QObject {
    Q_OBJECT
public:
    TreeReplica(int attributes, const QUrl& host);

    // Valid once done() was emitted.
    const BenchReport& figures() const { return report; }

signals:
    void done();
    void broken(const QString& reason);

private:
    void onInitialized();
    // The first path or value that differs from TreeContent, or an empty string.
    QString difference() const;

    int attributes;
    double heapStart;
    QElapsedTimer clock;
    QRemoteObjectNode node;
    std::unique_ptr<TreeStoreReplica> replica;
    BenchReport report;
};

} // namespace QtroBench
