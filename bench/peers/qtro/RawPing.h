// A ping-pong of one byte each way on a plain connected TCP socket, the floor that the
// round trips of `latency` are compared with. Blocking calls on the caller's thread;
// the socket's descriptor must stay open for the call.
#pragma once

#include <QString>
#include <QVector>

namespace QtroBench {

class RawPing {
public:
    // Sends a byte and waits for the answer `count` times; the round trips after the
    // first `warmUp` go to `samples` in nanoseconds.
    static bool ping(int fd, int warmUp, int count, QVector<qint64>& samples, QString& error);
    // Answers `count` bytes, each as it comes.
    static bool answer(int fd, int count, QString& error);

private:
    static bool readByte(int fd, QString& error);
    static bool writeByte(int fd, QString& error);
};

} // namespace QtroBench
