// The source of `latency`: changes one value, waits until the replica's answer carries
// that value back, and times each such round trip; one trip at a time, the first
// `warmUp` untimed. Emits done() after the last. Main thread only: the host calls its
// slots there.
#pragma once

#include "rep_bench_source.h"

#include <QElapsedTimer>
#include <QVector>

namespace QtroBench {

class LatencySource : public EchoFeedSource {
    Q_OBJECT
public:
    LatencySource(int warmUp, int trips);

    void replicaReady() override;
    void echo(int key, float value) override;

    // Round trips in nanoseconds, warm-up excluded.
    const QVector<qint64>& roundTrips() const { return samples; }

signals:
    void done();
    void broken(const QString& reason);

private:
    void send();

    int warmUp;
    int total;
    int sent = 0;
    QElapsedTimer clock;
    qint64 sentAt = 0;
    QVector<qint64> samples;
};

} // namespace QtroBench
