#include "UpdatesSource.h"

#include "ProcessProbe.h"

namespace QtroBench {

UpdatesSource::UpdatesSource(int keys, double seconds)
    : values(keys, 0.0f), runMs(qint64(seconds * 1000)) {}

void UpdatesSource::replicaReady() {
    if (clock.isValid())
        return;
    cpuStart = cpuSeconds();
    clock.start();
    sendRounds();
}

void UpdatesSource::roundApplied(int round) {
    if (round != acknowledged + 1 || round > sent) {
        emit broken(QStringLiteral("source: round %1 acknowledged after %2 of %3 sent")
                        .arg(round)
                        .arg(acknowledged)
                        .arg(sent));
        return;
    }
    acknowledged = round;
    sendRounds();
}

void UpdatesSource::sendRounds() {
    while (sent - acknowledged < MaxUnacknowledged && clock.elapsed() < runMs) {
        const float round = float(++sent);
        for (int key = 0; key < values.size(); ++key) {
            values[key] = round;
            emit valueChanged(key, round);
        }
    }
    if (acknowledged == sent && clock.elapsed() >= runMs) {
        cpu = cpuSeconds() - cpuStart;
        emit finished(sent);
        emit done();
    }
}

} // namespace QtroBench
