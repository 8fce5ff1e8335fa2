#include "Basalt/TCPServerSocket.h"

#include "Basalt/SocketAddress.h"
#include "Basalt/SocketError.h"
#include "Basalt/TCPSocket.h"
#include "Basalt/Trace.h"

#include <arpa/inet.h>
#include <netdb.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>

namespace Basalt {

namespace {

// A waiter polls in slices this long, so that close() from another thread ends the
// wait promptly even where shutting a listening socket down does not wake poll().
constexpr int kPollSliceMs = 100;

bool resolveListen(const char* host, int port, sockaddr_in& address) {
    if (host != nullptr && *host != '\0')
        return resolveIPv4(host, port, address);
    std::memset(&address, 0, sizeof address);
    address.sin_family = AF_INET;
    address.sin_port = htons(uint16_t(port));
    address.sin_addr.s_addr = htonl(INADDR_ANY);
    return true;
}

} // namespace

TCPServerSocket::TCPServerSocket() = default;

TCPServerSocket::~TCPServerSocket() {
    close();
    const int old = fd.exchange(-1);
    if (old >= 0)
        ::close(old);
}

int TCPServerSocket::open(const char* host, int port, int backlog) {
    close();
    const int old = fd.exchange(-1);
    if (old >= 0)
        ::close(old);
    boundPort.store(0);
    if (port < 0 || port > 65535) {
        lastOpenError.store(EINVAL);
        return -1;
    }
    sockaddr_in address;
    if (!resolveListen(host, port, address)) {
        lastOpenError.store(HostNotFound);
        Trace::debug("TCPServerSocket::open # Cannot resolve '%s'", host);
        return -1;
    }
    const int s = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (s < 0) {
        lastOpenError.store(errno);
        return -1;
    }
    int one = 1;
    ::setsockopt(s, SOL_SOCKET, SO_REUSEADDR, &one, sizeof one);
    if (::bind(s, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0 ||
        ::listen(s, std::max(backlog, 1)) != 0) {
        lastOpenError.store(errno);
        Trace::debug("TCPServerSocket::open # Cannot listen on %s:%d: %s", host ? host : "", port,
                     std::strerror(errno));
        ::close(s);
        return -1;
    }
    sockaddr_in bound;
    socklen_t length = sizeof bound;
    if (::getsockname(s, reinterpret_cast<sockaddr*>(&bound), &length) == 0)
        boundPort.store(ntohs(bound.sin_port));
    fd.store(s);
    closed.store(false);
    lastOpenError.store(0);
    return 0;
}

bool TCPServerSocket::isPendingConnection(unsigned int ms) {
    const int s = fd.load();
    if (s < 0)
        return false;
    using Clock = std::chrono::steady_clock;
    const auto deadline = Clock::now() + std::chrono::milliseconds(ms);
    for (;;) {
        if (closed.load())
            return false;
        const auto left =
            std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now()).count();
        pollfd p{s, POLLIN, 0};
        const int rc = ::poll(&p, 1, int(std::clamp<long long>(left, 0, kPollSliceMs)));
        if (rc < 0 && errno != EINTR)
            return false;
        if (rc > 0)
            return !closed.load() && (p.revents & POLLIN) != 0;
        if (left <= 0)
            return false;
    }
}

TCPSocket* TCPServerSocket::accept(int* error) {
    if (error)
        *error = 0;
    const int s = fd.load();
    if (s < 0 || closed.load())
        return nullptr;
    for (;;) {
        const int c = ::accept4(s, nullptr, nullptr, SOCK_CLOEXEC);
        if (c >= 0)
            return new TCPSocket(c);
        if (errno == EINTR)
            continue;
        // The peer may have given up between poll and accept: not worth a line.
        if (errno != ECONNABORTED && errno != EINVAL && !closed.load()) {
            Trace::debug("TCPServerSocket::accept # %s", std::strerror(errno));
            if (error)
                *error = errno;
        }
        return nullptr;
    }
}

bool TCPServerSocket::close() {
    const int s = fd.load();
    if (s < 0 || closed.exchange(true))
        return false;
    // Wakes a thread blocked in accept(); the descriptor stays until the destructor
    // or the next open(), so its number cannot be reused under a waiter.
    ::shutdown(s, SHUT_RDWR);
    return true;
}

} // namespace Basalt
