// Helpers for the transport tests: deadline waits, a raw socket end that writes and
// reads protocol bytes by hand, a connection and a server that record what reaches
// their hooks, and the two halves of the login played by hand.
#pragma once

#include "Dovel/transport/ConnectionThread.h"
#include "Dovel/transport/ServerBase.h"

#include "Basalt/Mutex.h"
#include "Basalt/TCPServerSocket.h"
#include "Basalt/TCPSocket.h"

#include "basalt/WaitUtil.h"

#include <QCryptographicHash>
#include <QStringList>

#include <gtest/gtest.h>

#include <chrono>
#include <memory>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

namespace TransportTest {

using BasaltTest::waitUntil;

// An element-wise copy of a list shared with another thread, so that no implicitly
// shared array crosses threads.
template <typename List> List copyOf(const List& list) {
    List copy;
    for (const auto& item : list)
        copy.append(item);
    return copy;
}

// One end of a TCP connection driven by the test: exact bytes out, exact bytes in.
class RawPeer {
public:
    explicit RawPeer(Basalt::TCPSocket* socket) : sock(socket) {}

    static std::unique_ptr<RawPeer> connect(int port) {
        auto socket = std::make_unique<Basalt::TCPSocket>();
        if (socket->open("127.0.0.1", port) != 0)
            return nullptr;
        return std::make_unique<RawPeer>(socket.release());
    }

    bool send(const QByteArray& bytes) {
        return sock->write(bytes.constData(), bytes.size()) == bytes.size();
    }
    // Sends what the other end takes of `bytes` until it has taken nothing for `seconds`;
    // the count sent. Reading goes on as before.
    int sendUntilStalled(const QByteArray& bytes, double seconds) {
        return sock->write(bytes.constData(), bytes.size(),
                           [seconds](double stalled) { return stalled >= seconds; });
    }

    // One line without its "\n"; a null array when none came within `ms`.
    QByteArray readLine(int ms = 5000) {
        return take([this] { return pending.indexOf('\n'); }, 1, ms);
    }
    // Exactly `size` bytes; a null array when they did not come within `ms`.
    QByteArray readExact(int size, int ms = 5000) {
        return take([this, size] { return pending.size() >= size ? size : -1; }, 0, ms);
    }
    // True when the other end closed the connection within `ms` (what still arrives before
    // the end is kept for unread()).
    bool waitClosed(int ms = 5000) {
        const auto start = std::chrono::steady_clock::now();
        int got;
        while ((got = fill(start, ms)) > 0) {
        }
        return got == 0;
    }
    // What came and was not read.
    const QByteArray& unread() const { return pending; }

    // True when nothing arrives within `ms`.
    bool quietFor(int ms) { return pending.isEmpty() && !sock->isPendingInput(ms); }

private:
    // The first `end()` bytes once `end()` is not negative, dropping `extra` more after
    // them; a null array when that did not happen within `ms`.
    template <typename End> QByteArray take(End end, int extra, int ms) {
        const auto start = std::chrono::steady_clock::now();
        while (end() < 0)
            if (fill(start, ms) <= 0)
                return QByteArray();
        const int size = end();
        const QByteArray out = pending.left(size);
        pending.remove(0, size + extra);
        return out;
    }
    // Waits for bytes within what is left of `ms`: 1 when some came, 0 when the other end
    // closed, -1 when the time ran out.
    int fill(std::chrono::steady_clock::time_point start, int ms) {
        for (;;) {
            const std::chrono::duration<double> gone = std::chrono::steady_clock::now() - start;
            const double left = ms / 1000.0 - gone.count();
            if (left <= 0.0)
                return -1;
            if (!sock->isPendingInput(static_cast<unsigned>(left * 1000.0) + 1))
                continue;
            char chunk[16384];
            const int n = sock->read(chunk, sizeof chunk, false);
            if (n <= 0)
                return 0;
            pending.append(chunk, n);
            return 1;
        }
    }

    std::unique_ptr<Basalt::TCPSocket> sock;
    QByteArray pending;
};

// The next line from a peer that is not a keep-alive ping.
inline QByteArray nextLine(RawPeer& peer, int ms = 5000) {
    for (;;) {
        const QByteArray line = peer.readLine(ms);
        if (!line.startsWith("ping"))
            return line;
    }
}

// A listening socket on 127.0.0.1 with an ephemeral port, for fake servers.
class RawListener {
public:
    RawListener() { server.open("127.0.0.1", 0, 4); } // a failure shows as port 0
    int port() const { return server.port(); }
    std::unique_ptr<RawPeer> accept(int ms = 5000) {
        if (!server.isPendingConnection(static_cast<unsigned>(ms)))
            return nullptr;
        Basalt::TCPSocket* socket = server.accept();
        return socket ? std::make_unique<RawPeer>(socket) : nullptr;
    }

private:
    Basalt::TCPServerSocket server;
};

// A port on 127.0.0.1 held by a socket that is bound but never listens: connections to
// it are refused, and no socket bound to port 0 (in this process or another) is given
// it while it is held. Held `shared`, a server that reuses addresses (as ours do) may
// still listen on it beside the holder: that keeps a port between one server going
// and the next one taking it, and reserves a port for a server started later.
class HeldPort {
public:
    explicit HeldPort(int port = 0, bool shared = false)
        : fd(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        address.sin_port = htons(uint16_t(port));
        socklen_t length = sizeof address;
        const int one = 1;
        if (fd >= 0 &&
            (!shared || ::setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &one, sizeof one) == 0) &&
            ::bind(fd, reinterpret_cast<sockaddr*>(&address), length) == 0 &&
            ::getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length) == 0)
            number = ntohs(address.sin_port);
    }
    ~HeldPort() { release(); }
    HeldPort(const HeldPort&) = delete;
    HeldPort& operator=(const HeldPort&) = delete;
    int port() const { return number; } // 0 if the socket could not be bound
    void release() {
        if (fd >= 0)
            ::close(fd);
        fd = -1;
    }

private:
    int fd;
    int number = 0;
};

// The 64 challenge bytes the fake servers send: every value class of a byte.
inline QByteArray fixedChallenge() {
    QByteArray challenge(64, '\0');
    for (int i = 0; i < 64; ++i)
        challenge[i] = static_cast<char>((i * 37 + 11) & 0xff);
    return challenge;
}

// The login proof, computed here independently: MD5(first 32, key, last 32).
inline QByteArray loginProof(const QByteArray& challenge,
                             const QByteArray& key = QByteArrayLiteral("Dovel2Sync")) {
    return QCryptographicHash::hash(challenge.left(32) + key + challenge.mid(32, 32),
                                    QCryptographicHash::Md5);
}

// The server's half of the login for a client ConnectionThread, by hand. Checks that
// the client sends the version line exactly when `expectVersionLine`.
inline bool serveLogin(RawPeer& peer, const QByteArray& greeting, bool expectVersionLine) {
    const QByteArray challenge = fixedChallenge();
    if (!peer.send(greeting + "\n" + challenge))
        return false;
    QByteArray line = peer.readLine();
    if (expectVersionLine) {
        EXPECT_EQ(line, QByteArray("Heliotrope 2.6.1"));
        if (line != "Heliotrope 2.6.1")
            return false;
        line = peer.readLine();
    }
    EXPECT_EQ(line, QByteArray("pavro"));
    const QByteArray proof = peer.readExact(16);
    EXPECT_EQ(proof.toHex(), loginProof(challenge).toHex());
    if (line != "pavro" || proof != loginProof(challenge))
        return false;
    return peer.send("ok\n");
}

// The client's half of the login against a server, by hand: reads the greeting and
// the challenge and sends `versionLine` (skipped when empty), the user name and the
// proof. Returns the server's answer line. Without `readGreeting` the caller has read
// the greeting line already.
inline QByteArray clientLogin(RawPeer& peer,
                              const QByteArray& versionLine = QByteArrayLiteral("Heliotrope 2.6.1"),
                              const QByteArray& user = QByteArrayLiteral("pavro"),
                              const QByteArray& key = QByteArrayLiteral("Dovel2Sync"),
                              bool readGreeting = true) {
    if (readGreeting) {
        EXPECT_EQ(peer.readLine(), QByteArray("Heliotrope 2.6.1"));
    }
    const QByteArray challenge = peer.readExact(64);
    EXPECT_EQ(challenge.size(), 64);
    QByteArray out;
    if (!versionLine.isEmpty())
        out += versionLine + "\n";
    out += user + "\n" + loginProof(challenge, key);
    peer.send(out);
    return peer.readLine();
}

// A handler that records what reaches its hooks. Lines "map N" and "skip N" make it
// read (and drop) a map or skip N bytes.
class TestHandler : public Dovel::ConnectionHandler {
public:
    explicit TestHandler(Dovel::ConnectionLink& link) : Dovel::ConnectionHandler(link) {}

    QStringList lines() const {
        Basalt::Guard guard(mutex);
        return copyOf(received);
    }
    QList<QByteArray> pongs() const {
        Basalt::Guard guard(mutex);
        return copyOf(receivedPongs);
    }

    std::atomic<int> connectedCount{0};
    std::atomic<int> disconnectedCount{0};
    std::atomic<int> failedCount{0};
    std::atomic<int> retryPauses{0}; // progress reports while waiting to retry

    bool parse(const QString& line) override {
        const QStringList words = line.split(QLatin1Char(' '));
        // A failed read has ended the connection already.
        if (words.size() == 2 && words[0] == QLatin1String("map")) {
            link().readMap(words[1].toInt());
            return true;
        }
        if (words.size() == 2 && words[0] == QLatin1String("skip")) {
            link().skip(words[1].toInt());
            return true;
        }
        Basalt::Guard guard(mutex);
        received.append(line);
        return true;
    }
    void pong(const QByteArray& payload) override {
        Basalt::Guard guard(mutex);
        receivedPongs.append(payload);
    }
    void connected() override { ++connectedCount; }
    void disconnected() override { ++disconnectedCount; }
    void connectionFailed() override { ++failedCount; }
    void retryProgress(double) override { ++retryPauses; }

private:
    mutable Basalt::Mutex mutex;
    QStringList received;
    QList<QByteArray> receivedPongs;
};

// A connection whose handler is a TestHandler.
using TestConnection = Dovel::ConnectionThread;
inline std::shared_ptr<TestConnection> makeTestConnection(Basalt::TCPSocket* socket,
                                                          bool serverSide) {
    return Dovel::ConnectionThread::create<TestHandler>(socket, serverSide);
}
// The recorder of a connection made by makeTestConnection.
inline TestHandler& hooks(const std::shared_ptr<TestConnection>& connection) {
    return *dynamic_cast<TestHandler*>(connection->handler());
}

// A server of TestConnections that counts its hooks.
class TestServer : public Dovel::ServerBase {
public:
    ~TestServer() override { shutdown(); }

    // The time-out of the connections made from now on (0: the default).
    std::atomic<double> timeout{0.0};
    std::atomic<int> removedTotal{0};
    std::atomic<int> connectedTotal{0};
    std::atomic<int> disconnectedTotal{0};

    // Listens on 127.0.0.1 with an ephemeral port; true once it does.
    bool runOnLoopback() {
        run(QStringLiteral("127.0.0.1"), 0);
        return waitListening(5000);
    }
    std::shared_ptr<TestConnection> first() const {
        const auto all = instances();
        return all.isEmpty() ? nullptr : all.first();
    }

protected:
    std::shared_ptr<Dovel::ConnectionThread> createConnection(Basalt::TCPSocket* socket) override {
        auto connection = makeTestConnection(socket, true);
        if (timeout.load() > 0.0)
            connection->setTimeoutSeconds(timeout.load());
        return connection;
    }
    void removedInstance(std::shared_ptr<Dovel::ConnectionThread>) override { ++removedTotal; }
    void connected(std::shared_ptr<Dovel::ConnectionThread>) override { ++connectedTotal; }
    void disconnected(std::shared_ptr<Dovel::ConnectionThread>) override { ++disconnectedTotal; }
};

// A server whose first connection finished the login with a hand-played client that
// announced `versionLine` (none: a client of 1.9.0), and got its "ping initialized".
struct LoggedIn {
    TestServer server;
    std::unique_ptr<RawPeer> peer;
    std::shared_ptr<TestConnection> accepted; // held: the server lets go once it closes

    bool start(const QByteArray& versionLine = QByteArrayLiteral("Heliotrope 2.6.1")) {
        if (!server.runOnLoopback())
            return false;
        peer = RawPeer::connect(server.port());
        if (!peer || clientLogin(*peer, versionLine) != "ok")
            return false;
        if (!waitUntil([&] { return server.first() && server.first()->isConnected(); }))
            return false;
        accepted = server.first();
        return peer->readLine() == "ping initialized";
    }
};

} // namespace TransportTest
