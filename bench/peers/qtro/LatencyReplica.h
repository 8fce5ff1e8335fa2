// The replica of `latency`: answers every change of the source's value with the value
// it saw, through a slot call, and then serves the source's raw TCP ping-pong on a
// connection of its own. Emits done() when the ping-pong is over. Main thread only.
#pragma once

#include "rep_bench_replica.h"

#include <QRemoteObjectNode>
#include <QUrl>

#include <memory>

namespace QtroBench {

class LatencyReplica : public QObject {
    Q_OBJECT
public:
    explicit LatencyReplica(const QUrl& host);

signals:
    void done();
    void broken(const QString& reason);

private:
    void answerRawPing(int port, int count);

    QRemoteObjectNode node;
    std::unique_ptr<EchoFeedReplica> replica;
};

} // namespace QtroBench
