// One TCP connection to one peer, run on a thread of its own: the greeting, version
// and login exchange, the ping/pong keep-alive, and the reading loop that hands every
// text line to parse(). Everything sent after the handshake goes through the owned
// WriterThread. A client (made with a null socket and started by connectToHost)
// reconnects after every failure until stop(); a server-side connection (made around
// an accepted socket) serves once.
//
// Threads: the connection's own thread reads (line, readData, readMap, skip are only
// called from it, typically inside parse); the writer thread writes; the owner's thread
// may call queue, writeBuffer*, stop, connectToHost and the accessors at any time.
// Always owned by a std::shared_ptr; others keep std::weak_ptr. The destructor stops and
// joins the connection's thread (unless it runs on it) and the writer's; a subclass whose
// hooks use its own members calls shutdown() first in its destructor.
//
// Out-events (sent on the connection's thread): "connected" after a successful
// handshake, "disconnected" when that connection's reading loop has ended, and
// "handshake-failed" when a handshake failed (so an owner can retire a connection that
// never connected).
#pragma once

#include "Dovel/transport/PeerFailure.h"
#include "Dovel/transport/WriterThread.h"

#include "Basalt/BinaryData.h"
#include "Basalt/Condition.h"
#include "Basalt/Mutex.h"
#include "Basalt/TCPSocket.h"
#include "Basalt/Thread.h"
#include "Basalt/TimeStamp.h"
#include "Tessel/Node.h"

#include <QByteArray>
#include <QList>
#include <QMap>
#include <QString>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <vector>

namespace Dovel {

class ConnectionThread : public Basalt::Thread,
                         public Tessel::Node,
                         public std::enable_shared_from_this<ConnectionThread> {
public:
    // The key both ends of a login hold unless the application sets another one.
    static constexpr const char DefaultLoginKey[] = "Dovel2Sync";

    // `socket` is an accepted socket (owned from here on) with serverSide true, or null
    // for a client that connectToHost will open.
    ConnectionThread(Basalt::TCPSocket* socket, bool serverSide);
    ~ConnectionThread() override;

    // The secret both ends of a login hold; DefaultLoginKey unless set. The login proves
    // it without sending it (an MD5 over a random challenge and the key), which keeps
    // it off the wire but encrypts nothing. Thread-safe; affects handshakes that start
    // afterwards. An empty key restores the default.
    void setLoginKey(const QByteArray& key);
    QByteArray loginKey() const;
    // Server side: waits this long before the greeting (a back-off after failed
    // logins from the peer's address); stop() ends the wait. Set before the thread runs.
    void setLoginDelay(double seconds) { loginDelay.store(seconds); }
    // Server side: called on the connection's thread with the verdict on the peer's
    // login, before the peer is told: true when it logged in, false when its user name
    // or proof was wrong (not when it stalled or went away). Set before the thread runs.
    void setLoginObserver(std::function<void(bool)> observer) {
        loginObserver = std::move(observer);
    }

    // Client: connects (and keeps reconnecting) to host:port. Restarts a stopped client;
    // breaks the current connection of a running one so that it moves to the new address.
    void connectToHost(const QString& host, int port);
    // Ends the connection and, for a client, its retry loop. Does not wait.
    virtual void stop();
    // stop(), then waits for the connection's thread (unless called on it) and the
    // writer's. Each destructor down the hierarchy calls it (as its own class's: a
    // subclass that runs threads of its own waits for them too).
    virtual void shutdown();

    // Sends `text` (UTF-8, as is: the caller supplies any line end) through the writer,
    // or keeps it until the next handshake when not connected.
    void queue(const QString& text);
    // Hand data to the writer under `key` (see WriterThread); empty data is dropped.
    void writeBufferData(const QByteArray& data, const QByteArray& key);
    void writeBuffer(const QString& text, const QByteArray& key);
    void writeBuffer(const QList<QByteArray>& parts, const QByteArray& key);
    // The map's header line and body in the form the peer's version reads.
    QByteArray buildMapBuffer(const QString& name, const QMap<QString, QString>& map) const;
    // The same in the binary form (peers of 1.9.1 on) or the text form.
    static QByteArray encodeMap(const QString& name, const QMap<QString, QString>& map,
                                bool binary);
    void writeMapBuffer(const QString& name, const QMap<QString, QString>& map);
    // Sends "ping" (with " " + payload when the payload is not empty) through the writer.
    void ping(const QByteArray& payload);

    // Direct socket writes, for the handshake, pong replies and writer update functions;
    // the caller holds writeMutex() so that nothing interleaves. False (and the
    // connection ends) when the socket takes fewer bytes, or when it took nothing for
    // the time-out while the peer sent nothing either (see writeStalled).
    bool writeData(const void* data, int size);
    bool puts(const QString& text);

    // Reads for the connection's own thread (inside parse): buffered bytes first, then
    // the socket. A failure, or a size above the limits of Dovel/Limits.h, ends the
    // connection and yields an empty result, false or no map.
    QString line();
    QByteArray readData(int size);
    bool readData(uint8_t* dst, int size);
    bool skip(int size);
    // The map of `count` entries that follows a map line; none when it could not be read
    // (a map of no entries is a map).
    std::optional<QMap<QString, QString>> readMap(int count);
    // Ends the connection at once, after the caller logged why: from a subclass's framing
    // when the peer announced something it must not send, or from any thread when the
    // peer misbehaves otherwise. As a failed read does: the socket closes so that nothing
    // more is read, and a client goes on to its next attempt.
    void abortConnection();

    void setRemoteVersion(int major, int minor, int patch, const QString& suffix);
    QString remoteVersion() const;
    // The suffix of the peer's version ("pellux" in "2.0.4-pellux"); empty when none.
    QString remoteVersionSuffix() const;
    // Client side: a suffix for the version line this side sends ("Heliotrope
    // 2.6.1-SUFFIX"), by which a client tells a server what kind of client it is. Empty
    // (the default): the plain version line. Set before connecting.
    void setVersionSuffix(const QString& suffix);
    // True when the peer's version is at least major.minor.patch.
    bool remoteVersion(int major, int minor, int patch) const;
    bool isDovel15Supported() const;
    bool isPingSupported() const { return usePing_.load() && pongReceived.load(); }
    bool usePing() const { return usePing_.load(); }
    void setUsePing(bool use) { usePing_.store(use); }

    QString hostName() const;
    int port() const;
    // Why the last attempt to reach the peer failed, kept until the next failure (none
    // before the first).
    PeerFailure lastFailure() const;
    bool isConnected() const { return connected_.load(); }
    // False from the moment the current connection is ended (a failed read or write,
    // abortConnection, stop) until the next one starts, while isConnected() may still
    // hold until the connection's thread has noticed.
    bool isLive() const { return running.load(); }
    bool isServerSide() const { return serverSide; }
    // The user name the peer logged in with (server side).
    QString loginUserName() const;
    uint32_t rxBytes() const;
    uint32_t txBytes() const;
    int64_t bufferedDataSize() const { return writer->bufferedDataSize(); }
    // When a byte last came from the peer, on the wall clock (for display); intervals
    // are measured with secondsSinceLastPacket(), on the monotonic one.
    Basalt::TimeStamp lastPacketTimestamp() const;
    double secondsSinceLastPacket() const;
    void updateLastPacketTimestamp();
    // Whether a write that has made no progress for `seconds` should give up: the peer
    // has read nothing and sent nothing for longer than the time-out, so it is taken to
    // be gone (logged once). A peer that holds its reading but still sends (pings while
    // its tree thread catches up) is waited for.
    bool writeStalled(double seconds);
    double timeoutSeconds() const { return timeout.load(); }
    void setTimeoutSeconds(double seconds) { timeout.store(seconds); }
    Basalt::Mutex& writeMutex() { return writeMutex_; }
    WriterThread* writerThread() { return writer.get(); }

    // Handles the writer's events: "write-error" ends the connection, "data-written" is
    // swallowed; anything else goes to the node's own handling.
    void eventProcess(const QByteArray& name, Basalt::BinaryData& data) override;

protected:
    void childLoop() override;
    virtual bool openConnection();
    virtual bool handshake();
    virtual void handleConnection();

    // Subclass hooks, called on the connection's thread. parse returns false for a line
    // it does not understand.
    virtual bool parse(const QString& line);
    virtual void pong(const QByteArray& payload);
    virtual void connected();
    virtual void disconnected();
    virtual void connectionFailed();
    // Between lines, when nothing is buffered: while wantsIdle() holds, idle() is called
    // whenever the peer stays quiet for IdlePollMs. (A peer quiet in the middle of a
    // line is waited for.)
    virtual bool wantsIdle();
    virtual void idle();
    static constexpr unsigned int IdlePollMs = 20;
    virtual void retryProgress(double secondsLeft);

    void setKeepRetrying(bool keep) { keepRetrying.store(keep); }
    // Records why the peer cannot be served, for lastFailure().
    void notePeerFailure(const PeerFailure& failure);
    bool isStopping() const { return stopping.load(); }

private:
    friend class WriterThread;

    bool serverHandshake();
    // Tells the observer and then the peer that its login is refused; returns false.
    bool refuseLogin();
    // False with `why` set when the failure has a reason of its own.
    bool clientHandshake(PeerFailure& why);
    // The pause before a server's greeting; false when the connection was stopped.
    bool waitLoginDelay();
    // While a login runs, every read waits at most until its deadline (the
    // connection's time-out from the start of the login); false (logged once) when it
    // has passed.
    bool awaitLoginInput();
    bool loginBounded() const { return loginDeadline != std::chrono::steady_clock::time_point(); }
    // Ends the connection after a failed read or write: the writer stops, running clears.
    void failConnection();
    // As failConnection, after logging that the peer broke a size limit.
    void rejectSize(const char* operation, const char* what, int64_t size, int64_t limit);
    // Reads exactly `size` bytes into dst, buffered ones first; `got` counts them.
    bool readExact(char* dst, int size, int& got);
    bool fillReceiveBuffer();
    void logReadError(int size, int got);
    Basalt::TCPSocket* socket() const { return socket_.load(); }
    void closeSocket();

    std::atomic<Basalt::TCPSocket*> socket_;
    std::atomic<bool> running{false};
    std::atomic<bool> connected_{false};
    const bool serverSide;
    std::atomic<bool> keepRetrying{true};
    std::atomic<bool> stopping{false};

    // Guards the address, the remote version, the login user name and the last failure.
    mutable Basalt::Mutex stateMutex;
    QString host;
    int port_ = 5000;
    int remoteMajor = 0;
    int remoteMinor = 0;
    int remotePatch = 0;
    QString remoteSuffix;
    QString ownSuffix;
    QString userName;
    QByteArray loginKey_{DefaultLoginKey};
    PeerFailure failure;

    Basalt::Mutex writeMutex_;
    // The pause between client attempts; connectToHost and stop end it early.
    Basalt::Mutex retryMutex;
    Basalt::Condition retryCondition;
    bool retryNow = false; // guarded by retryMutex
    // Guards pendingLines and the switch of connected_, so that no queued line is lost
    // between the check and the drain after a handshake.
    Basalt::Mutex queueMutex;
    QList<QByteArray> pendingLines;
    bool linesFlowing = false; // after the pending lines were handed to the writer
    // Whether the client loop runs; guards its exit against a concurrent connectToHost.
    Basalt::Mutex loopMutex;
    bool loopActive = false;

    std::unique_ptr<WriterThread> writer;
    std::atomic<int64_t> lastPacket{0}; // Basalt::Stopwatch nanoseconds
    std::atomic<bool> pongReceived{false};
    std::atomic<bool> usePing_{true};
    std::atomic<double> timeout{10.0};
    std::atomic<double> loginDelay{0.0};
    std::function<void(bool)> loginObserver;
    // The connection's own thread only: the end of the login under way (none outside
    // a login), and whether its passing was logged.
    std::chrono::steady_clock::time_point loginDeadline;
    bool loginTimedOut = false;
    std::atomic<bool> stallLogged{false};

    // Bytes received but not yet consumed; touched only by the connection's own thread.
    std::vector<char> receiveBuffer;
    int receiveBegin = 0;
    int receiveEnd = 0;
    QByteArray lastLine; // the raw bytes of the line that line() returned last
};

} // namespace Dovel
