#include "RawPing.h"

#include <QElapsedTimer>

#include <cerrno>
#include <cstring>
#include <poll.h>
#include <sys/socket.h>

namespace QtroBench {

namespace {

constexpr int ByteTimeoutMs = 10000;

} // namespace

bool RawPing::ping(int fd, int warmUp, int count, QVector<qint64>& samples, QString& error) {
    QElapsedTimer clock;
    clock.start();
    for (int i = 0; i < count; ++i) {
        const qint64 start = clock.nsecsElapsed();
        if (!writeByte(fd, error) || !readByte(fd, error))
            return false;
        if (i >= warmUp)
            samples.append(clock.nsecsElapsed() - start);
    }
    return true;
}

bool RawPing::answer(int fd, int count, QString& error) {
    for (int i = 0; i < count; ++i)
        if (!readByte(fd, error) || !writeByte(fd, error))
            return false;
    return true;
}

bool RawPing::readByte(int fd, QString& error) {
    // The socket may be non-blocking (Qt made it): wait for the byte, then take it.
    for (;;) {
        char byte = 0;
        const ssize_t got = recv(fd, &byte, 1, 0);
        if (got == 1)
            return true;
        if (got == 0) {
            error = QStringLiteral("raw ping: the peer closed the connection");
            return false;
        }
        if (errno == EINTR)
            continue;
        if (errno != EAGAIN && errno != EWOULDBLOCK) {
            error = QStringLiteral("raw ping: %1").arg(std::strerror(errno));
            return false;
        }
        pollfd wait{fd, POLLIN, 0};
        if (poll(&wait, 1, ByteTimeoutMs) == 0) {
            error = QStringLiteral("raw ping: no answer within %1 s").arg(ByteTimeoutMs / 1000);
            return false;
        }
    }
}

bool RawPing::writeByte(int fd, QString& error) {
    const char byte = 1;
    for (;;) {
        if (send(fd, &byte, 1, MSG_NOSIGNAL) == 1)
            return true;
        if (errno == EINTR)
            continue;
        if (errno != EAGAIN && errno != EWOULDBLOCK) {
            error = QStringLiteral("raw ping: %1").arg(std::strerror(errno));
            return false;
        }
        pollfd wait{fd, POLLOUT, 0};
        poll(&wait, 1, ByteTimeoutMs);
    }
}

} // namespace QtroBench
