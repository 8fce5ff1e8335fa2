// One TCP connection to one peer, run on a thread of its own: it opens (a client) or
// takes (a server) the socket, runs the login (LoginHandshake), answers "ping" and hands
// every other text line to parse(); subclasses read what follows a line through line(),
// readData(), readMap() and skip() (a LineReader over the socket). Everything sent after
// the login goes through the owned WriterThread. A client (made with a null socket and
// started by connectToHost) tries again after every failure until stop(), paced by its
// ReconnectPolicy; a server-side connection (made around an accepted socket) serves once.
//
// Threads: the connection's own thread reads (line, readData, readMap, skip are only
// called from it, typically inside parse) and runs the hooks; the writer thread writes;
// the owner's thread may call queue, writeBuffer*, stop, connectToHost and the accessors
// at any time. Always owned by a std::shared_ptr; others keep std::weak_ptr.
//
// Shutdown: shutdown() is the one sequence that ends a connection for good: stop(), then
// wait for the connection's thread (unless called on it) and the writer's. It may run
// any number of times. The base's destructor runs it and then frees the writer and the
// socket. A subclass whose hooks use its own members calls shutdown() first in its
// destructor, so that no hook runs on a half-destroyed object; a subclass that runs
// threads of its own overrides shutdown() to call the base's and then wait for them.
//
// Events for the owner are the Listener's callbacks, on the connection's thread.
#pragma once

#include "Dovel/transport/LineReader.h"
#include "Dovel/transport/PeerFailure.h"
#include "Dovel/transport/PeerState.h"
#include "Dovel/transport/ReconnectPolicy.h"
#include "Dovel/transport/WriterThread.h"

#include "Basalt/Mutex.h"
#include "Basalt/TCPSocket.h"
#include "Basalt/Thread.h"
#include "Basalt/TimeStamp.h"

#include <QByteArray>
#include <QList>
#include <QMap>
#include <QString>

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>

namespace Dovel {

class SocketSource;

class ConnectionThread : public Basalt::Thread,
                         public std::enable_shared_from_this<ConnectionThread> {
public:
    // The key both ends of a login hold unless the application sets another one.
    static constexpr const char DefaultLoginKey[] = "Dovel2Sync";

    // `socket` is an accepted socket (owned from here on) with serverSide true, or null
    // for a client that connectToHost will open.
    ConnectionThread(Basalt::TCPSocket* socket, bool serverSide);
    ~ConnectionThread() override;

    // What the owner hears, on the connection's thread: `connected` after a successful
    // login (after the connected() hook), `disconnected` when that connection's reading
    // loop has ended (after disconnected()), and `handshakeFailed` when a login failed,
    // so that an owner can retire a connection that never connected. Empty members are
    // not called, and none is once the connection's destructor has begun. Set before the
    // thread runs.
    struct Listener {
        std::function<void()> connected;
        std::function<void()> disconnected;
        std::function<void()> handshakeFailed;
    };
    void setListener(Listener listener) { listener_ = std::move(listener); }

    // The secret both ends of a login hold; DefaultLoginKey unless set. The login proves
    // it without sending it (an MD5 over a random challenge and the key), which keeps
    // it off the wire but encrypts nothing. Thread-safe; affects handshakes that start
    // afterwards. An empty key restores the default.
    void setLoginKey(const QByteArray& key) {
        peer.setLoginKey(key.isEmpty() ? QByteArray(DefaultLoginKey) : key);
    }
    QByteArray loginKey() const { return peer.loginKey(); }
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
    // writer's (see Shutdown above).
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

    // Reads for the connection's own thread (inside parse), through its LineReader:
    // buffered bytes first, then the socket. A failure, or a size above the limits of
    // Dovel/Limits.h, ends the connection and yields an empty result, false or no map.
    QString line();
    QByteArray readData(int size);
    bool readData(uint8_t* dst, int size);
    bool skip(int size);
    // The map of `count` entries that follows a map line; none when it could not be read
    // (a map of no entries is a map). A block that holds fewer entries than announced is
    // logged and yields none but keeps the connection, which stays in frame.
    std::optional<QMap<QString, QString>> readMap(int count);
    // Ends the connection at once, after the caller logged why: from a subclass's framing
    // when the peer announced something it must not send, or from any thread when the
    // peer misbehaves otherwise. As a failed read does: the socket closes so that nothing
    // more is read, and a client goes on to its next attempt.
    void abortConnection();

    void setRemoteVersion(int major, int minor, int patch, const QString& suffix) {
        peer.setRemoteVersion(major, minor, patch, suffix);
    }
    QString remoteVersion() const { return peer.remoteVersion(); }
    // The suffix of the peer's version ("pellux" in "2.0.4-pellux"); empty when none.
    QString remoteVersionSuffix() const { return peer.remoteVersionSuffix(); }
    // Client side: a suffix for the version line this side sends ("Heliotrope
    // 2.6.1-SUFFIX"), by which a client tells a server what kind of client it is. Empty
    // (the default): the plain version line. Set before connecting.
    void setVersionSuffix(const QString& suffix) { peer.setVersionSuffix(suffix); }
    // True when the peer's version is at least major.minor.patch.
    bool remoteVersion(int major, int minor, int patch) const {
        return peer.remoteVersion(major, minor, patch);
    }
    bool isDovel15Supported() const { return peer.isDovel15Supported(); }
    bool isPingSupported() const { return usePing_.load() && pongReceived.load(); }
    bool usePing() const { return usePing_.load(); }
    void setUsePing(bool use) { usePing_.store(use); }

    QString hostName() const { return peer.hostName(); }
    int port() const { return peer.port(); }
    // Why the last attempt to reach the peer failed, kept until the next failure (none
    // before the first).
    PeerFailure lastFailure() const { return peer.lastFailure(); }
    bool isConnected() const { return connected_.load(); }
    // False from the moment the current connection is ended (a failed read or write,
    // abortConnection, stop) until the next one starts, while isConnected() may still
    // hold until the connection's thread has noticed.
    bool isLive() const { return running.load(); }
    bool isServerSide() const { return serverSide; }
    // The user name the peer logged in with (server side).
    QString loginUserName() const { return peer.userName(); }
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

    void setKeepRetrying(bool keep) { retry.setKeepRetrying(keep); }
    // Records why the peer cannot be served, for lastFailure().
    void notePeerFailure(const PeerFailure& failure) { peer.noteFailure(failure); }
    bool isStopping() const { return stopping.load(); }

private:
    friend class WriterThread;
    friend class SocketSource;

    // The pause before a server's greeting; false when the connection was stopped.
    bool waitLoginDelay();
    // Runs the reading loop of a connection whose login succeeded.
    void serve();
    // Ends the connection as the reader's last failure asks, if it failed.
    void settleReads();
    // Ends the connection after a failed read or write: the writer stops, running clears.
    void failConnection();
    Basalt::TCPSocket* socket() const { return socket_.load(); }
    void closeSocket();

    std::atomic<Basalt::TCPSocket*> socket_; // owned; deleted by the destructor
    std::atomic<bool> running{false};
    std::atomic<bool> connected_{false};
    const bool serverSide;
    std::atomic<bool> stopping{false};

    PeerState peer{DefaultLoginKey};

    Basalt::Mutex writeMutex_;
    // The pause between client attempts (and a server's login delay); connectToHost and
    // stop end it early.
    ReconnectPolicy retry;
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
    Listener listener_;
    // Cleared when destruction begins: the owner hears nothing from a dying connection.
    std::atomic<bool> notifying{true};
    // Calls one of listener_'s members while notifying holds.
    void notify(const std::function<void()>& callback) const;
    // The writer's report of a failed write: the link is over.
    void writeFailed() { running.store(false); }
    std::atomic<bool> stallLogged{false};

    // The connection's own thread only.
    std::unique_ptr<SocketSource> source;
    LineReader reader;
};

} // namespace Dovel
