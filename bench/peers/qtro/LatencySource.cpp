#include "LatencySource.h"

namespace QtroBench {

LatencySource::LatencySource(int warmUp, int trips) : warmUp(warmUp), total(warmUp + trips) {
    samples.reserve(trips);
}

void LatencySource::replicaReady() {
    if (clock.isValid())
        return;
    clock.start();
    send();
}

void LatencySource::echo(int key, float value) {
    const qint64 now = clock.nsecsElapsed();
    if (key != 0 || value != float(sent)) {
        emit broken(
            QStringLiteral("source: answer %1=%2 to change %3").arg(key).arg(value).arg(sent));
        return;
    }
    if (sent > warmUp)
        samples.append(now - sentAt);
    if (sent == total)
        emit done();
    else
        send();
}

void LatencySource::send() {
    // Values stay exact in a float up to 2^24 trips, far more than a run makes.
    ++sent;
    sentAt = clock.nsecsElapsed();
    emit valueChanged(0, float(sent));
}

} // namespace QtroBench
