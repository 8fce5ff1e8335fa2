// A listening TCP socket (IPv4, POSIX, SO_REUSEADDR). Accepting happens on one
// thread; close() may be called from any thread and ends a pending wait.
#pragma once

#include <atomic>

namespace Basalt {

class TCPSocket;

class TCPServerSocket {
public:
    TCPServerSocket();
    ~TCPServerSocket();
    TCPServerSocket(const TCPServerSocket&) = delete;
    TCPServerSocket& operator=(const TCPServerSocket&) = delete;

    // Binds and listens on host:port ("" or "0.0.0.0" for every interface) with the
    // given backlog; port 0 picks a free port, which port() then reports. 0 on
    // success, -1 on failure.
    int open(const char* host, int port, int backlog);
    // Why the last open failed (SocketError.h: errno or HostNotFound); 0 after a
    // success.
    int openError() const { return lastOpenError.load(); }
    // Waits up to `ms` milliseconds for a connection to accept.
    bool isPendingConnection(unsigned int ms);
    // The next connection, owned by the caller; null when none could be taken, with the
    // system's error (errno) in `error` when given (0 when the peer gave up meanwhile).
    TCPSocket* accept(int* error = nullptr);
    bool close();
    bool isOpen() const { return fd.load() >= 0 && !closed.load(); }
    // The port actually bound (useful after open with port 0); 0 when not open.
    int port() const { return boundPort.load(); }

private:
    std::atomic<int> fd{-1};
    std::atomic<bool> closed{false};
    std::atomic<int> boundPort{0};
    std::atomic<int> lastOpenError{0};
};

} // namespace Basalt
