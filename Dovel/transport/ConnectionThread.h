// One TCP connection to one peer, run on a thread of its own: it opens (a client) or
// takes (a server) the socket, runs the login (LoginHandshake), answers "ping" and hands
// every other text line to its ConnectionHandler, the protocol it owns, which reads what
// follows a line through the ConnectionLink this class implements (a LineReader over the
// socket). Everything sent after the login goes through the owned WriterThread. A client
// (made with a null socket and started by connectToHost) tries again after every failure
// until stop(), paced by its ReconnectPolicy; a server-side connection (made around an
// accepted socket) serves once.
//
// Threads: the connection's own thread reads (line, readData, readMap, skip are only
// called from it, typically inside the handler's parse) and runs the handler's hooks;
// the writer thread writes; the owner's thread may call queue, writeBuffer*, stop,
// connectToHost and the accessors at any time. Always owned by a std::shared_ptr; others
// keep std::weak_ptr. An owner that also needs the protocol's own API holds the handler
// through handlerOf(), which shares the connection's ownership.
//
// Shutdown: shutdown() is the one sequence that ends a connection for good: stop(), then
// wait for the connection's thread (unless called on it) and the writer's. It may run
// any number of times. The destructor runs it, then destroys the handler (whose hooks
// can no longer run), then frees the writer and the socket. The one exception is an
// owner that drops the last reference on the connection's own thread, from a Listener
// callback: the thread cannot join itself, so the connection touches nothing of its own
// after calling the owner (the hooks have all run by then).
//
// Events for the owner are the Listener's callbacks, on the connection's thread.
#pragma once

#include "Dovel/transport/ConnectionHandler.h"
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

class ConnectionThread final : public Basalt::Thread,
                               public ConnectionLink,
                               public std::enable_shared_from_this<ConnectionThread> {
public:
    // The key both ends of a login hold unless the application sets another one.
    static constexpr const char DefaultLoginKey[] = "Dovel2Sync";

    // `socket` is an accepted socket (owned from here on) with serverSide true, or null
    // for a client that connectToHost will open.
    ConnectionThread(Basalt::TCPSocket* socket, bool serverSide);
    ~ConnectionThread() override;

    // A connection that owns a new H, made from the connection and `args`.
    template <class H, class... Args>
    static std::shared_ptr<ConnectionThread> create(Basalt::TCPSocket* socket, bool serverSide,
                                                    Args&&... args) {
        auto connection = std::make_shared<ConnectionThread>(socket, serverSide);
        connection->setHandler(std::make_unique<H>(*connection, std::forward<Args>(args)...));
        return connection;
    }
    // The handler the connection owns (never null).
    ConnectionHandler* handler() const { return handler_.get(); }
    // The connection's handler as an H, sharing the connection's ownership; null when it
    // is none.
    template <class H>
    static std::shared_ptr<H> handlerOf(const std::shared_ptr<ConnectionThread>& connection) {
        H* handler = connection ? dynamic_cast<H*>(connection->handler()) : nullptr;
        return handler ? std::shared_ptr<H>(connection, handler) : nullptr;
    }

    // What the owner hears, on the connection's thread: `connected` after a successful
    // login (after the handler's connected()), `disconnected` when that connection's
    // reading loop has ended (after the handler's disconnected()), and `handshakeFailed`
    // when a login failed, so that an owner can retire a connection that never
    // connected. Empty members are not called, and none is once the connection's
    // destructor has begun. Set before the thread runs.
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
        peer_.setLoginKey(key.isEmpty() ? QByteArray(DefaultLoginKey) : key);
    }
    QByteArray loginKey() const { return peer_.loginKey(); }
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
    void stop() override;
    // stop(), then waits for the connection's thread (unless called on it) and the
    // writer's (see Shutdown above).
    void shutdown();

    // Sends `text` (UTF-8, as is: the caller supplies any line end) through the writer,
    // or keeps it until the next handshake when not connected.
    void queue(const QString& text);
    // Hand data to the writer under `key` (see WriterThread); empty data is dropped.
    void writeBufferData(const QByteArray& data, const QByteArray& key) override;
    using ConnectionLink::writeBuffer;
    void writeBuffer(const QList<QByteArray>& parts, const QByteArray& key) override;
    // The map's header line and body in the form the peer's version reads.
    QByteArray buildMapBuffer(const QString& name, const QMap<QString, QString>& map) const;
    // The same in the binary form (peers of 1.9.1 on) or the text form.
    static QByteArray encodeMap(const QString& name, const QMap<QString, QString>& map,
                                bool binary);
    void writeMapBuffer(const QString& name, const QMap<QString, QString>& map);
    // Sends "ping" (with " " + payload when the payload is not empty) through the writer.
    void ping(const QByteArray& payload) override;

    // Direct socket writes, for the handshake, pong replies and writer update functions;
    // the caller holds writeMutex() so that nothing interleaves. False (and the
    // connection ends) when the socket takes fewer bytes, or when it took nothing for
    // the time-out while the peer sent nothing either (see writeStalled).
    bool writeData(const void* data, int size);
    bool puts(const QString& text);

    // Reads for the connection's own thread (inside parse), through its LineReader (see
    // ConnectionLink). A map block that holds fewer entries than announced is logged and
    // yields none but keeps the connection, which stays in frame.
    QString line() override;
    QByteArray readData(int size) override;
    bool readData(uint8_t* dst, int size) override;
    bool skip(int size) override;
    std::optional<QMap<QString, QString>> readMap(int count) override;
    // Ends the connection at once, after the caller logged why: from a handler's framing
    // when the peer announced something it must not send, or from any thread when the
    // peer misbehaves otherwise. As a failed read does: the socket closes so that nothing
    // more is read, and a client goes on to its next attempt.
    void abortConnection() override;

    void setRemoteVersion(int major, int minor, int patch, const QString& suffix) {
        peer_.setRemoteVersion(major, minor, patch, suffix);
    }
    // Client side: a suffix for the version line this side sends ("Heliotrope
    // 2.6.1-SUFFIX"), by which a client tells a server what kind of client it is. Empty
    // (the default): the plain version line. Set before connecting.
    void setVersionSuffix(const QString& suffix) { peer_.setVersionSuffix(suffix); }
    bool isPingSupported() const override { return usePing_.load() && pongReceived.load(); }
    bool usePing() const { return usePing_.load(); }
    void setUsePing(bool use) { usePing_.store(use); }

    PeerState& peer() override { return peer_; }
    const PeerState& peer() const override { return peer_; }
    bool isConnected() const override { return connected_.load(); }
    // False from the moment the current connection is ended (a failed read or write,
    // abortConnection, stop) until the next one starts, while isConnected() may still
    // hold until the connection's thread has noticed.
    bool isLive() const override { return running.load(); }
    bool isServerSide() const override { return serverSide; }
    // The user name the peer logged in with (server side).
    QString loginUserName() const { return peer_.userName(); }
    uint32_t rxBytes() const;
    uint32_t txBytes() const;
    int64_t bufferedDataSize() const override { return writer->bufferedDataSize(); }
    int64_t bufferedItemCount() const override { return writer->bufferedItemCount(); }
    void removeFromBuffer(const QByteArray& key) override { writer->removeFromBuffer(key); }
    bool callWhenDrained(int64_t bytes, std::function<void()> callback) override {
        return writer->callWhenDrained(bytes, std::move(callback));
    }
    // When a byte last came from the peer, on the wall clock (for display); intervals
    // are measured with secondsSinceLastPacket(), on the monotonic one.
    Basalt::TimeStamp lastPacketTimestamp() const;
    double secondsSinceLastPacket() const override;
    void updateLastPacketTimestamp() override;
    // Whether a write that has made no progress for `seconds` should give up: the peer
    // has read nothing and sent nothing for longer than the time-out, so it is taken to
    // be gone (logged once). A peer that holds its reading but still sends (pings while
    // its tree thread catches up) is waited for.
    bool writeStalled(double seconds);
    double timeoutSeconds() const override { return timeout.load(); }
    void setTimeoutSeconds(double seconds) override { timeout.store(seconds); }
    std::weak_ptr<ConnectionLink> weakLink() override { return weak_from_this(); }
    Basalt::Mutex& writeMutex() { return writeMutex_; }
    WriterThread* writerThread() { return writer.get(); }

    // Client: whether a failed or ended attempt is followed by another; true by default.
    // Set before connecting.
    void setKeepRetrying(bool keep) { retry.setKeepRetrying(keep); }
    // True from stop() until the next connectToHost.
    bool isStopping() const override { return stopping.load(); }

    // How long the peer may stay quiet before a handler that wants it idles.
    static constexpr unsigned int IdlePollMs = 20;

private:
    // The protocol spoken over this connection, owned from here on; create() sets it
    // before the thread runs. Until then a handler that understands no line stands in.
    void setHandler(std::unique_ptr<ConnectionHandler> handler);
    friend class WriterThread;
    friend class SocketSource;

    void childLoop() override;
    bool openConnection();
    bool handshake();
    void handleConnection();

    // The pause before a server's greeting; false when the connection was stopped.
    bool waitLoginDelay();
    // Runs the reading loop of a connection whose login succeeded.
    void serve();
    // Answers a ping with `reply` (see serve).
    void answerPing(const QByteArray& reply);
    // Writes the waiting answers to pings; the caller holds writeMutex_. False after a
    // failed write.
    bool writeWaitingPongs();
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

    PeerState peer_{DefaultLoginKey};

    Basalt::Mutex writeMutex_;
    // Answers to pings that wait for the writer to finish an item; written, in order,
    // before anything else once it has (or by the reading thread, past the limit).
    Basalt::Mutex pongMutex; // taken after writeMutex_ where both are held
    QByteArray waitingPongs; // guarded by pongMutex
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

    // Set before the thread runs; its hooks run on the connection's thread only.
    std::unique_ptr<ConnectionHandler> handler_;
    // The connection's own thread only.
    std::unique_ptr<SocketSource> source;
    LineReader reader;
};

} // namespace Dovel
