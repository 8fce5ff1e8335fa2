// A blocking TCP stream socket (IPv4, POSIX). One thread reads while another writes;
// close() may be called from any thread and unblocks a reader or writer at once.
// Byte counters are atomic.
#pragma once

#include <QString>

#include <atomic>
#include <functional>

namespace Basalt {

class TCPSocket {
public:
    TCPSocket();
    // Takes ownership of a connected descriptor (used by TCPServerSocket::accept).
    explicit TCPSocket(int connectedFd);
    virtual ~TCPSocket();
    TCPSocket(const TCPSocket&) = delete;
    TCPSocket& operator=(const TCPSocket&) = delete;

    // Connects to host:port (a name or dotted address); 0 on success, -1 on failure.
    // Reopening a socket first releases the previous descriptor. A host that does not
    // answer keeps the call waiting until the system gives up (minutes); `cancelled`,
    // when given, is asked every CancelPollMs meanwhile, and true ends the attempt.
    int open(const char* host, int port, const std::function<bool()>& cancelled = {});
    static constexpr int CancelPollMs = 50;
    // Why the last open failed (SocketError.h: errno or HostNotFound); 0 after a
    // success.
    int openError() const { return lastOpenError.load(); }

    // Reads up to `bytes` bytes. With waitAll false it returns what is there as soon as
    // something arrived; with waitAll true it keeps reading until `bytes` arrived or
    // the stream failed, and returns the count read. Returns 0 at end of stream and
    // -1 on a failure or on a closed socket (a short count with waitAll true means the
    // stream ended in between).
    int read(void* buffer, int bytes, bool waitAll = false);
    // Writes all `bytes` bytes; returns the count written, less on failure. Never
    // raises SIGPIPE. With `giveUp`, a write that makes no progress (the peer reads
    // nothing) asks it every StallPollMs with the seconds since the last progress, and
    // returns short when it says true.
    int write(const void* data, int bytes, const std::function<bool(double)>& giveUp = {});
    static constexpr int StallPollMs = 100;

    bool isOpen() const;
    // The peer closed its end, or the socket failed.
    bool isHungUp() const;
    // Waits up to `ms` milliseconds for input (or end of stream); true when a read
    // would not block.
    bool isPendingInput(unsigned int ms);
    // Shuts the connection down so that blocked calls return; the descriptor itself is
    // released by the destructor or the next open(). True when it was open.
    bool close();
    // Has the system probe an idle connection: after `idleSeconds` without traffic, a
    // probe every `intervalSeconds`, and the connection fails after `probes` unanswered
    // ones, so that a peer that vanished is noticed even when nothing is being sent.
    // False when the socket is not open or the system refuses.
    bool setKeepAlive(int idleSeconds, int intervalSeconds, int probes);

    // Bytes actually read and written since construction.
    unsigned long rxBytes() const { return rx.load(); }
    unsigned long txBytes() const { return tx.load(); }

    // Local and peer port of an open socket (0 when unknown).
    int localPort() const;
    int peerPort() const;
    QString peerAddress() const;

private:
    void release();

    std::atomic<int> fd{-1};
    std::atomic<bool> open_{false};
    std::atomic<bool> hungUp{false};
    std::atomic<unsigned long> rx{0};
    std::atomic<unsigned long> tx{0};
    std::atomic<int> lastOpenError{0};
};

} // namespace Basalt
