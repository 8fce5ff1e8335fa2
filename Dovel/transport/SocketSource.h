// A connection's socket as the ByteSource of its LineReader. Every byte that arrives
// stamps the connection's last-packet time, and while a login runs each read waits no
// longer than the login's deadline (the connection's time-out from the login's start),
// so that a peer that stalls its login cannot hold the connection's thread.
//
// Threads: the connection's own thread only.
#pragma once

#include "Dovel/transport/LineReader.h"

#include <chrono>

namespace Dovel {

class ConnectionThread;

class SocketSource : public ByteSource {
public:
    explicit SocketSource(ConnectionThread& connection) : connection(connection) {}

    int read(char* dst, int size, bool all) override;
    QString peerName() const override;
    bool wasStopped() const override;

    // Bounds the reads of a login to `seconds` from now, until endLogin().
    void startLogin(double seconds);
    void endLogin() { loginDeadline = std::chrono::steady_clock::time_point(); }

private:
    bool loginBounded() const { return loginDeadline != std::chrono::steady_clock::time_point(); }
    // Waits for input until the login's deadline; false (logged once) when it passed.
    bool awaitLoginInput();

    ConnectionThread& connection;
    std::chrono::steady_clock::time_point loginDeadline; // none outside a login
    bool loginTimedOut = false;
};

} // namespace Dovel
