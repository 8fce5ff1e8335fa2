// The replica of `updates`: mirrors the source's values, counts the changes that alter
// a value, acknowledges every complete round and, when the source says it has finished,
// reports its figures (changes per second, CPU time, bytes on the wire per change).
// Main thread only.
#pragma once

#include "BenchReport.h"
#include "rep_bench_replica.h"

#include <QElapsedTimer>
#include <QRemoteObjectNode>
#include <QUrl>
#include <QVector>

#include <memory>

namespace QtroBench {

class UpdatesReplica : public QObject {
    Q_OBJECT
public:
    UpdatesReplica(int keys, const QUrl& host);

    // Valid once done() was emitted.
    const BenchReport& figures() const { return report; }

signals:
    void done();
    void broken(const QString& reason);

private:
    void onInitialized();
    void onValueChanged(int key, float value);
    void onFinished(int rounds);

    QRemoteObjectNode node;
    std::unique_ptr<UpdateFeedReplica> replica;
    QVector<float> values;
    QElapsedTimer clock;
    qint64 firstNs = -1;
    qint64 lastNs = -1;
    qint64 distinct = 0;
    qint64 received = 0;
    int inRound = 0;
    int rounds = 0;
    int socket = -1;
    int64_t bytesStart = -1;
    double cpuStart = 0;
    BenchReport report;
};

} // namespace QtroBench
