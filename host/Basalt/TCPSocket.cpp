#include "Basalt/TCPSocket.h"

#include "Basalt/SocketAddress.h"
#include "Basalt/SocketError.h"
#include "Basalt/Trace.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>

namespace Basalt {

namespace {

void setNoDelay(int fd) {
    int one = 1;
    ::setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
}

// Resolves an IPv4 address; "" means the local host.
bool resolve(const char* host, int port, sockaddr_in& address) {
    const char* name = (host == nullptr || *host == '\0') ? "127.0.0.1" : host;
    return resolveIPv4(name, port, address);
}

// Waits for a connect() under way on a non-blocking socket to finish, asking
// `cancelled` (when given) between waits.
bool awaitConnect(int fd, const std::function<bool()>& cancelled) {
    for (;;) {
        pollfd p{fd, POLLOUT, 0};
        const int rc = ::poll(&p, 1, cancelled ? TCPSocket::CancelPollMs : -1);
        if (rc < 0 && errno == EINTR)
            continue;
        if (rc < 0)
            return false;
        if (rc == 0) {
            if (cancelled()) {
                errno = ECANCELED;
                return false;
            }
            continue;
        }
        int error = 0;
        socklen_t length = sizeof error;
        if (::getsockopt(fd, SOL_SOCKET, SO_ERROR, &error, &length) != 0)
            return false;
        errno = error;
        return error == 0;
    }
}

} // namespace

TCPSocket::TCPSocket() = default;

TCPSocket::TCPSocket(int connectedFd) {
    if (connectedFd >= 0) {
        setNoDelay(connectedFd);
        fd.store(connectedFd);
        open_.store(true);
    }
}

TCPSocket::~TCPSocket() {
    close();
    release();
}

void TCPSocket::release() {
    const int old = fd.exchange(-1);
    if (old >= 0)
        ::close(old);
}

int TCPSocket::open(const char* host, int port, const std::function<bool()>& cancelled) {
    close();
    release();
    hungUp.store(false);
    if (port <= 0 || port > 65535) {
        lastOpenError.store(EINVAL);
        return -1;
    }
    sockaddr_in address;
    if (!resolve(host, port, address)) {
        lastOpenError.store(HostNotFound);
        return -1;
    }
    // Non-blocking while it connects, so that the wait can be cancelled; blocking after.
    const int s = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    if (s < 0) {
        lastOpenError.store(errno);
        Trace::warning("TCPSocket::open # socket() failed: %s", std::strerror(errno));
        return -1;
    }
    const int rc = ::connect(s, reinterpret_cast<const sockaddr*>(&address), sizeof address);
    const bool ok =
        (rc == 0 || ((errno == EINPROGRESS || errno == EINTR) && awaitConnect(s, cancelled))) &&
        ::fcntl(s, F_SETFL, ::fcntl(s, F_GETFL) & ~O_NONBLOCK) == 0;
    if (!ok) {
        lastOpenError.store(errno);
        Trace::debug("TCPSocket::open # Cannot connect to %s:%d: %s", host ? host : "", port,
                     std::strerror(errno));
        ::close(s);
        return -1;
    }
    setNoDelay(s);
    fd.store(s);
    open_.store(true);
    lastOpenError.store(0);
    return 0;
}

int TCPSocket::read(void* buffer, int bytes, bool waitAll) {
    const int s = fd.load();
    if (s < 0 || !open_.load())
        return -1;
    if (bytes <= 0)
        return 0;
    char* out = static_cast<char*>(buffer);
    int total = 0;
    while (total < bytes) {
        const ssize_t n = ::recv(s, out + total, size_t(bytes - total), 0);
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0) {
            hungUp.store(true);
            // A local close() shows up as end of stream; it is a failure for the reader.
            if (!open_.load() && total == 0)
                return -1;
            return (n < 0 && total == 0) ? -1 : total;
        }
        total += int(n);
        rx.fetch_add(static_cast<unsigned long>(n));
        if (!waitAll)
            break;
    }
    return total;
}

int TCPSocket::write(const void* data, int bytes, const std::function<bool(double)>& giveUp) {
    const int s = fd.load();
    if (s < 0 || !open_.load())
        return -1;
    const char* in = static_cast<const char*>(data);
    // Bounded writes never block in send(): they wait for room in slices instead.
    const int flags = MSG_NOSIGNAL | (giveUp ? MSG_DONTWAIT : 0);
    using Clock = std::chrono::steady_clock;
    Clock::time_point progress = Clock::now();
    int total = 0;
    while (total < bytes) {
        const ssize_t n = ::send(s, in + total, size_t(bytes - total), flags);
        if (n < 0 && errno == EINTR)
            continue;
        if (n < 0 && giveUp && (errno == EAGAIN || errno == EWOULDBLOCK) && open_.load()) {
            pollfd p{s, POLLOUT, 0};
            if (::poll(&p, 1, StallPollMs) == 0 &&
                giveUp(std::chrono::duration<double>(Clock::now() - progress).count())) {
                hungUp.store(true);
                break;
            }
            continue;
        }
        if (n <= 0) {
            hungUp.store(true);
            break;
        }
        total += int(n);
        progress = Clock::now();
        tx.fetch_add(static_cast<unsigned long>(n));
    }
    return total;
}

bool TCPSocket::isOpen() const {
    return fd.load() >= 0 && open_.load();
}

bool TCPSocket::isHungUp() const {
    if (!isOpen() || hungUp.load())
        return true;
    pollfd p{fd.load(), POLLRDHUP, 0};
    if (::poll(&p, 1, 0) <= 0)
        return false;
    return (p.revents & (POLLRDHUP | POLLHUP | POLLERR | POLLNVAL)) != 0;
}

bool TCPSocket::isPendingInput(unsigned int ms) {
    const int s = fd.load();
    if (s < 0 || !open_.load())
        return false;
    using Clock = std::chrono::steady_clock;
    const auto deadline = Clock::now() + std::chrono::milliseconds(ms);
    for (;;) {
        const auto left =
            std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now()).count();
        pollfd p{s, POLLIN, 0};
        const int rc = ::poll(&p, 1, left > 0 ? int(std::min<long long>(left, 1 << 30)) : 0);
        if (rc < 0 && errno == EINTR)
            continue;
        if (rc <= 0)
            return false;
        // After a local close() the wake-up is ours, not input.
        return open_.load() && (p.revents & (POLLIN | POLLHUP | POLLERR | POLLRDHUP)) != 0;
    }
}

bool TCPSocket::close() {
    if (!open_.exchange(false))
        return false;
    const int s = fd.load();
    if (s >= 0)
        ::shutdown(s, SHUT_RDWR);
    return true;
}

bool TCPSocket::setKeepAlive(int idleSeconds, int intervalSeconds, int probes) {
    const int s = fd.load();
    if (s < 0 || !open_.load())
        return false;
    const int on = 1;
    const int idle = std::max(1, idleSeconds);
    const int interval = std::max(1, intervalSeconds);
    const int count = std::max(1, probes);
    return ::setsockopt(s, SOL_SOCKET, SO_KEEPALIVE, &on, sizeof on) == 0 &&
           ::setsockopt(s, IPPROTO_TCP, TCP_KEEPIDLE, &idle, sizeof idle) == 0 &&
           ::setsockopt(s, IPPROTO_TCP, TCP_KEEPINTVL, &interval, sizeof interval) == 0 &&
           ::setsockopt(s, IPPROTO_TCP, TCP_KEEPCNT, &count, sizeof count) == 0;
}

int TCPSocket::localPort() const {
    sockaddr_in address;
    socklen_t length = sizeof address;
    const int s = fd.load();
    if (s < 0 || ::getsockname(s, reinterpret_cast<sockaddr*>(&address), &length) != 0)
        return 0;
    return ntohs(address.sin_port);
}

int TCPSocket::peerPort() const {
    sockaddr_in address;
    socklen_t length = sizeof address;
    const int s = fd.load();
    if (s < 0 || ::getpeername(s, reinterpret_cast<sockaddr*>(&address), &length) != 0)
        return 0;
    return ntohs(address.sin_port);
}

QString TCPSocket::peerAddress() const {
    sockaddr_in address;
    socklen_t length = sizeof address;
    const int s = fd.load();
    if (s < 0 || ::getpeername(s, reinterpret_cast<sockaddr*>(&address), &length) != 0)
        return QString();
    char text[INET_ADDRSTRLEN] = {};
    if (::inet_ntop(AF_INET, &address.sin_addr, text, sizeof text) == nullptr)
        return QString();
    return QString::fromLatin1(text);
}

} // namespace Basalt
