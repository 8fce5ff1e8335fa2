// The far end of a fuzzed line connection: a loopback listener and a raw peer socket
// that writes the fuzzer's bytes while draining whatever our side answers, so that
// neither end can block the other. The peer half-closes after the last byte; our side
// then reads end of stream and its reading loop ends by itself.
//
// The first input byte is a mode:
//   bit 0     our side is the client (1) or the server (0)
//   bit 1     the peer logs in properly before the rest (1), or the rest is the raw
//             handshake (0); a fuzzer cannot compute the login digest itself
//   bits 2-3  the version the peer claims when it logs in: 1.9.0 (no version line,
//             text maps), 1.9.1, 2.6.1, 2.0.4-pellux
//   bit 4     ping off on our side
// Used by one fuzz iteration at a time (one thread).
#pragma once

#include "Dovel/transport/ConnectionThread.h"

#include <QByteArray>
#include <QCryptographicHash>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>

namespace LinePeer {

// An iteration that takes longer than this has hung.
constexpr int DeadlineMs = 8000;

struct Mode {
    bool client = false;
    bool login = false;
    int version = 0;
    bool noPing = false;
};

inline Mode decodeMode(uint8_t byte) {
    Mode mode;
    mode.client = (byte & 1) != 0;
    mode.login = (byte & 2) != 0;
    mode.version = (byte >> 2) & 3;
    mode.noPing = (byte & 16) != 0;
    return mode;
}

[[noreturn]] inline void hang(const char* what) {
    std::fprintf(stderr, "LinePeer: %s did not finish within %d ms\n", what, DeadlineMs);
    std::abort();
}

class Deadline {
public:
    Deadline() : start(std::chrono::steady_clock::now()) {}
    int leftMs() const {
        const auto spent = std::chrono::duration_cast<std::chrono::milliseconds>(
                               std::chrono::steady_clock::now() - start)
                               .count();
        return spent >= DeadlineMs ? 0 : int(DeadlineMs - spent);
    }

private:
    std::chrono::steady_clock::time_point start;
};

// poll() for one descriptor until the deadline; libFuzzer's timer signals interrupt
// waits, which are resumed. The revents, or 0 at the deadline.
inline short waitFor(int fd, short events, const Deadline& deadline) {
    for (;;) {
        pollfd p{fd, events, 0};
        const int ready = ::poll(&p, 1, deadline.leftMs());
        if (ready > 0)
            return p.revents;
        if (ready == 0 || errno != EINTR)
            return 0;
    }
}

// A listening socket on 127.0.0.1 with an ephemeral port, made once per process.
class Listener {
public:
    Listener() {
        fd = ::socket(AF_INET, SOCK_STREAM, 0);
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t size = sizeof address;
        if (fd < 0 || ::bind(fd, reinterpret_cast<sockaddr*>(&address), size) != 0 ||
            ::listen(fd, 16) != 0 ||
            ::getsockname(fd, reinterpret_cast<sockaddr*>(&address), &size) != 0) {
            std::perror("LinePeer: listen");
            std::abort();
        }
        port = ntohs(address.sin_port);
    }
    ~Listener() { ::close(fd); }

    // The next connection, or -1 when none came before the deadline.
    int accept(const Deadline& deadline) {
        for (;;) {
            if (waitFor(fd, POLLIN, deadline) == 0)
                return -1;
            const int accepted = ::accept(fd, nullptr, nullptr);
            if (accepted >= 0 || errno != EINTR)
                return accepted;
        }
    }
    // A peer socket connected to this listener.
    int connect() {
        const int peer = ::socket(AF_INET, SOCK_STREAM, 0);
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        address.sin_port = htons(uint16_t(port));
        int rc =
            peer < 0 ? -1 : ::connect(peer, reinterpret_cast<sockaddr*>(&address), sizeof address);
        if (rc != 0 && errno == EINTR) {
            // The connection goes on in the background; wait until it is writable.
            pollfd p{peer, POLLOUT, 0};
            while ((rc = ::poll(&p, 1, DeadlineMs)) < 0 && errno == EINTR) {
            }
            rc = rc == 1 ? 0 : -1;
        }
        if (rc != 0) {
            std::perror("LinePeer: connect");
            std::abort();
        }
        return peer;
    }

    int port = 0;

private:
    int fd = -1;
};

inline Listener& listener() {
    static Listener instance;
    return instance;
}

// Reads until `out` ends with a line end and then `extra` more bytes follow; false at
// end of stream.
inline bool readGreeting(int fd, QByteArray& line, QByteArray& extra, int extraBytes,
                         const Deadline& deadline) {
    bool inLine = true;
    while (inLine || extra.size() < extraBytes) {
        if (waitFor(fd, POLLIN, deadline) == 0)
            hang("the greeting");
        char c;
        const ssize_t n = ::recv(fd, &c, 1, 0);
        if (n < 0 && errno == EINTR)
            continue;
        if (n != 1)
            return false;
        if (inLine) {
            if (c == '\n')
                inLine = false;
            else
                line.append(c);
        } else {
            extra.append(c);
        }
    }
    return true;
}

inline QByteArray versionLine(int version) {
    static const char* const texts[] = {"Heliotrope 1.9.0\n", "Heliotrope 1.9.1\n",
                                        "Heliotrope 2.6.1\n", "Heliotrope 2.0.4-pellux\n"};
    return QByteArray(texts[version & 3]);
}

// What a proper client sends to our server: reads the server's greeting and challenge
// and answers with the version line (unless 1.9.0), the user name and the digest.
// Empty when the server ended the stream first.
inline QByteArray clientLogin(int fd, int version, const Deadline& deadline) {
    QByteArray greeting;
    QByteArray challenge;
    if (!readGreeting(fd, greeting, challenge, 64, deadline))
        return QByteArray();
    QCryptographicHash hash(QCryptographicHash::Md5);
    hash.addData(challenge.left(32));
    hash.addData(Dovel::ConnectionThread::DefaultLoginKey);
    hash.addData(challenge.mid(32));
    QByteArray out = version == 0 ? QByteArray() : versionLine(version);
    return out + "pavro\n" + hash.result();
}

// What a proper server sends to our client: the greeting, a challenge and "ok" (the
// client's answer is drained and not checked).
inline QByteArray serverLogin(int version) {
    return versionLine(version) + QByteArray(64, '\x5a') + "ok\n";
}

// Writes `bytes`, half-closes, and drains until our side closes the stream.
inline void feed(int fd, const QByteArray& bytes, const Deadline& deadline) {
    int sent = 0;
    bool halfClosed = false;
    char scratch[16384];
    for (;;) {
        if (!halfClosed && sent == bytes.size()) {
            ::shutdown(fd, SHUT_WR);
            halfClosed = true;
        }
        const short revents = waitFor(fd, short(POLLIN | (halfClosed ? 0 : POLLOUT)), deadline);
        if (revents == 0)
            hang("the line connection");
        if (revents & (POLLIN | POLLHUP | POLLERR)) {
            const ssize_t n = ::recv(fd, scratch, sizeof scratch, MSG_DONTWAIT);
            if (n == 0 || (n < 0 && errno != EAGAIN && errno != EWOULDBLOCK && errno != EINTR))
                return; // our side has closed (or reset) the stream
        }
        if (!halfClosed && (revents & POLLOUT)) {
            const ssize_t n = ::send(fd, bytes.constData() + sent, size_t(bytes.size() - sent),
                                     MSG_DONTWAIT | MSG_NOSIGNAL);
            if (n > 0)
                sent += int(n);
            else if (n < 0 && errno != EAGAIN && errno != EWOULDBLOCK && errno != EINTR)
                sent = bytes.size(); // our side is gone; drain what is left
        }
    }
}

// Runs one iteration: our connection `make(socket, serverSide)` talks to a peer that
// sends `stream` after the optional login. Returns when our side has ended and is gone.
template <typename Make> void run(const Mode& mode, const QByteArray& stream, Make&& make) {
    Listener& l = listener();
    const Deadline deadline;
    std::shared_ptr<Dovel::ConnectionThread> connection;
    int peer = -1;
    if (mode.client) {
        connection = make(nullptr, false);
        connection->setUsePing(!mode.noPing);
        connection->connectToHost(QStringLiteral("127.0.0.1"), l.port);
        peer = l.accept(deadline);
        if (peer < 0)
            hang("the client's connect");
        feed(peer, mode.login ? serverLogin(mode.version) + stream : stream, deadline);
    } else {
        peer = l.connect();
        const int accepted = l.accept(deadline);
        if (accepted < 0)
            hang("the accept");
        connection = make(new Basalt::TCPSocket(accepted), true);
        connection->setUsePing(!mode.noPing);
        connection->run();
        QByteArray bytes = stream;
        if (mode.login) {
            const QByteArray login = clientLogin(peer, mode.version, deadline);
            bytes = login.isEmpty() ? QByteArray() : login + stream;
        }
        feed(peer, bytes, deadline);
    }
    if (!connection->waitEnd(deadline.leftMs()))
        hang("the connection's thread");
    connection.reset();
    ::close(peer);
}

} // namespace LinePeer
