#include "UpdatesReplica.h"

#include "ProcessProbe.h"

namespace QtroBench {

UpdatesReplica::UpdatesReplica(int keys, const QUrl& host) : values(keys, 0.0f) {
    node.connectToNode(host);
    replica.reset(node.acquire<UpdateFeedReplica>(QStringLiteral("updates")));
    connect(replica.get(), &QRemoteObjectReplica::initialized, this,
            &UpdatesReplica::onInitialized);
    connect(replica.get(), &UpdateFeedReplica::valueChanged, this, &UpdatesReplica::onValueChanged);
    connect(replica.get(), &UpdateFeedReplica::finished, this, &UpdatesReplica::onFinished);
    connect(replica.get(), &QRemoteObjectReplica::stateChanged, this,
            [this](QRemoteObjectReplica::State state) {
                if (state == QRemoteObjectReplica::Suspect)
                    emit broken(QStringLiteral("replica: lost the source"));
            });
}

void UpdatesReplica::onInitialized() {
    socket = tcpSocketOf(node);
    bytesStart = tcpBytesReceived(socket);
    cpuStart = cpuSeconds();
    clock.start();
    replica->replicaReady();
}

void UpdatesReplica::onValueChanged(int key, float value) {
    if (key < 0 || key >= values.size()) {
        emit broken(QStringLiteral("replica: key %1 out of range").arg(key));
        return;
    }
    ++received;
    if (values[key] != value) {
        values[key] = value;
        ++distinct;
        lastNs = clock.nsecsElapsed();
        if (firstNs < 0)
            firstNs = lastNs;
    }
    // Signals arrive in the order they were sent: a round is complete after one change
    // of every key.
    if (++inRound == values.size()) {
        inRound = 0;
        replica->roundApplied(++rounds);
    }
}

void UpdatesReplica::onFinished(int sourceRounds) {
    const double cpu = cpuSeconds() - cpuStart;
    const int64_t bytesEnd = tcpBytesReceived(socket);
    if (sourceRounds != rounds || received != qint64(rounds) * values.size()) {
        emit broken(QStringLiteral("replica: %1 changes in %2 rounds, the source sent %3 rounds")
                        .arg(received)
                        .arg(rounds)
                        .arg(sourceRounds));
        return;
    }
    const QString workload = QStringLiteral("updates");
    const double seconds = double(lastNs - firstNs) / 1e9;
    report.add(workload, QStringLiteral("changes_per_second"),
               seconds > 0 ? double(distinct) / seconds : 0, QStringLiteral("changes/s"));
    report.add(workload, QStringLiteral("client_cpu_s"), cpu, QStringLiteral("s"));
    if (bytesStart >= 0 && bytesEnd >= 0 && distinct > 0)
        report.add(workload, QStringLiteral("wire_bytes_per_change"),
                   double(bytesEnd - bytesStart) / double(distinct), QStringLiteral("B"));
    emit done();
}

} // namespace QtroBench
