#include "ProcessProbe.h"

#include <QTcpSocket>

#include <linux/tcp.h>
#include <malloc.h>
#include <netinet/in.h>
#include <sys/resource.h>
#include <sys/socket.h>

namespace QtroBench {

double cpuSeconds() {
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    return double(usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) +
           double(usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) / 1e6;
}

double peakRssMb() {
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    return double(usage.ru_maxrss) / 1024.0; // KiB on Linux
}

double heapInUseBytes() {
    const struct mallinfo2 info = mallinfo2();
    return double(info.uordblks) + double(info.hblkhd);
}

int tcpSocketOf(const QObject& owner) {
    for (const QTcpSocket* socket : owner.findChildren<QTcpSocket*>())
        if (socket->state() == QAbstractSocket::ConnectedState)
            return int(socket->socketDescriptor());
    return -1;
}

int64_t tcpBytesReceived(int fd) {
    tcp_info info{};
    socklen_t size = sizeof info;
    if (fd < 0 || getsockopt(fd, IPPROTO_TCP, TCP_INFO, &info, &size) != 0)
        return -1;
    // Older kernels fill a shorter structure that ends before the byte counters.
    if (size < offsetof(tcp_info, tcpi_bytes_received) + sizeof info.tcpi_bytes_received)
        return -1;
    return int64_t(info.tcpi_bytes_received);
}

bool tcpNoDelay(int fd, bool set) {
    int on = 1;
    if (set)
        setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    on = 0;
    socklen_t size = sizeof on;
    return getsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, &size) == 0 && on != 0;
}

} // namespace QtroBench
