// The source of `updates`: holds the values and sets every one of them once a round to
// the round's number, each change a signal of its own. At most two rounds stay
// unacknowledged; once its time is up it starts no more rounds, and when the last is
// acknowledged it tells the replica how many there were and emits done().
// Main thread only: the host calls its slots there.
#pragma once

#include "rep_bench_source.h"

#include <QElapsedTimer>
#include <QVector>

namespace QtroBench {

class UpdatesSource : public UpdateFeedSource {
    Q_OBJECT
public:
    UpdatesSource(int keys, double seconds);

    void replicaReady() override;
    void roundApplied(int round) override;

    int rounds() const { return sent; }
    // CPU seconds of this process from the replica's first ready to the last acknowledgement.
    double cpuUsed() const { return cpu; }

signals:
    void done();
    void broken(const QString& reason);

private:
    void sendRounds();

    static constexpr int MaxUnacknowledged = 2;
    QVector<float> values;
    qint64 runMs;
    QElapsedTimer clock;
    double cpuStart = 0;
    double cpu = 0;
    int sent = 0;
    int acknowledged = 0;
};

} // namespace QtroBench
