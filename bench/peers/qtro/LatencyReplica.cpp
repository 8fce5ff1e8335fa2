#include "LatencyReplica.h"

#include "ProcessProbe.h"
#include "RawPing.h"

#include <QTcpSocket>

namespace QtroBench {

LatencyReplica::LatencyReplica(const QUrl& host) {
    node.connectToNode(host);
    replica.reset(node.acquire<EchoFeedReplica>(QStringLiteral("latency")));
    connect(replica.get(), &QRemoteObjectReplica::initialized, this,
            [this] { replica->replicaReady(); });
    connect(replica.get(), &EchoFeedReplica::valueChanged, this,
            [this](int key, float value) { replica->echo(key, value); });
    connect(replica.get(), &EchoFeedReplica::rawPingRequested, this,
            &LatencyReplica::answerRawPing);
    connect(replica.get(), &QRemoteObjectReplica::stateChanged, this,
            [this](QRemoteObjectReplica::State state) {
                if (state == QRemoteObjectReplica::Suspect)
                    emit broken(QStringLiteral("replica: lost the source"));
            });
}

void LatencyReplica::answerRawPing(int port, int count) {
    QTcpSocket socket;
    socket.connectToHost(QStringLiteral("127.0.0.1"), quint16(port));
    if (!socket.waitForConnected(10000)) {
        emit broken(QStringLiteral("replica: raw ping: %1").arg(socket.errorString()));
        return;
    }
    const int fd = int(socket.socketDescriptor());
    tcpNoDelay(fd, true);
    QString error;
    if (!RawPing::answer(fd, count, error)) {
        emit broken(QStringLiteral("replica: %1").arg(error));
        return;
    }
    emit done();
}

} // namespace QtroBench
