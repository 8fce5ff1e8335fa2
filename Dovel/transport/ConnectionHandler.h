// The two sides of a protocol spoken over one connection. A ConnectionHandler is the
// protocol: the connection (ConnectionThread) hands it every text line that is not a
// keep-alive and tells it what happens to the link. A ConnectionLink is what the handler
// reads from and writes to: the connection implements it over its socket and writer; a
// test implements it over a LineReader on a fake ByteSource and a list of written items,
// so that a protocol runs without sockets or threads.
//
// Threads: the hooks run on the connection's own thread (or a test's), one at a time;
// the link's reads belong to that thread too, its writes and state to any thread. The
// link outlives its handler: a connection joins its threads before it destroys the
// handler it owns (see ConnectionThread for the one case where its own thread ends it).
#pragma once

#include "Dovel/transport/PeerFailure.h"
#include "Dovel/transport/PeerState.h"

#include <QByteArray>
#include <QList>
#include <QMap>
#include <QString>

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>

namespace Dovel {

class ConnectionLink {
public:
    virtual ~ConnectionLink() = default;

    // Reads, on the reading thread only (inside the handler's parse): buffered bytes
    // first, then the peer. A failure, or a size above the limits of Dovel/Limits.h,
    // ends the link and yields an empty result, false or no map.
    virtual QString line() = 0;
    virtual QByteArray readData(int size) = 0;
    virtual bool readData(uint8_t* dst, int size) = 0;
    virtual bool skip(int size) = 0;
    // The map of `count` entries that follows a map line, in the form the peer's
    // version sends; none when it could not be read (a map of no entries is a map).
    virtual std::optional<QMap<QString, QString>> readMap(int count) = 0;

    // Hands data to the writer under `key` (see WriterThread); empty data is dropped.
    virtual void writeBufferData(const QByteArray& data, const QByteArray& key) = 0;
    virtual void writeBuffer(const QList<QByteArray>& parts, const QByteArray& key) = 0;
    void writeBuffer(const QString& text, const QByteArray& key) {
        writeBufferData(text.toUtf8(), key);
    }
    // Bytes handed to the writer that the peer has not taken yet.
    virtual int64_t bufferedDataSize() const = 0;
    // Items handed to the writer that it has not taken yet: each costs memory of its
    // own beyond its bytes.
    virtual int64_t bufferedItemCount() const = 0;
    // Calls `callback` once no more than `bytes` wait for the peer; false (and no call)
    // when that holds already. See WriterThread::callWhenDrained.
    virtual bool callWhenDrained(int64_t bytes, std::function<void()> callback) = 0;

    // Drops what waits in the writer under `key`.
    virtual void removeFromBuffer(const QByteArray& key) = 0;
    // Sends "ping" (with " " + payload when the payload is not empty).
    virtual void ping(const QByteArray& payload) = 0;
    // Whether the peer answers pings (it answered one on this link).
    virtual bool isPingSupported() const = 0;
    // Counts the peer as heard from now (a reader that holds back its reads on purpose
    // keeps the link from timing out).
    virtual void updateLastPacketTimestamp() = 0;
    // Seconds since the peer was last heard from, keep-alive pings included.
    virtual double secondsSinceLastPacket() const = 0;

    // Ends the link; a client may try again. Does not wait.
    virtual void stop() = 0;
    // Ends the link at once after the caller logged why the peer misbehaved.
    virtual void abortConnection() = 0;

    virtual bool isConnected() const = 0;
    // False from the moment the link is ended until the next one starts, while
    // isConnected() may still hold until the reading side has noticed.
    virtual bool isLive() const = 0;
    virtual bool isServerSide() const = 0;
    // True from stop() until the link is started again.
    virtual bool isStopping() const = 0;
    virtual double timeoutSeconds() const = 0;
    virtual void setTimeoutSeconds(double seconds) = 0;
    // What is known of the peer: its address, its version, why it last failed.
    virtual PeerState& peer() = 0;
    virtual const PeerState& peer() const = 0;
    // Work that outlives a call (a task on the background pool) holds the link through
    // this, and does nothing once it is gone. Empty for a link that nothing shares.
    virtual std::weak_ptr<ConnectionLink> weakLink() = 0;

    QString hostName() const { return peer().hostName(); }
    int port() const { return peer().port(); }
    QString remoteVersion() const { return peer().remoteVersion(); }
    // True when the peer's version is at least major.minor.patch.
    bool remoteVersion(int major, int minor, int patch) const {
        return peer().remoteVersion(major, minor, patch);
    }
    // The suffix of the peer's version ("pellux" in "2.0.4-pellux"); empty when none.
    QString remoteVersionSuffix() const { return peer().remoteVersionSuffix(); }
    bool isDovel15Supported() const { return peer().isDovel15Supported(); }
    // Why the last attempt to reach the peer failed, kept until the next failure (none
    // before the first).
    PeerFailure lastFailure() const { return peer().lastFailure(); }
    // Records why the peer cannot be served, for lastFailure().
    void notePeerFailure(const PeerFailure& failure) { peer().noteFailure(failure); }
};

class ConnectionHandler {
public:
    explicit ConnectionHandler(ConnectionLink& link) : link_(link) {}
    virtual ~ConnectionHandler() = default;
    ConnectionHandler(const ConnectionHandler&) = delete;
    ConnectionHandler& operator=(const ConnectionHandler&) = delete;

    // A text line from the peer; false when the protocol does not understand it.
    virtual bool parse(const QString& line);
    // The payload of a "pong" from the peer.
    virtual void pong(const QByteArray& payload);

    // A client is about to open its socket / has opened it (a login follows unless the
    // client is stopped or moved meanwhile: then connectionFailed() does).
    virtual void connecting();
    virtual void opened();
    // The login ran and failed (not called when it could not start).
    virtual void loginFailed();
    // A client's attempt ended before a login: the socket did not open, or the client
    // was stopped or moved meanwhile.
    virtual void connectionFailed();
    // After a successful login, before anything queued is written / when the link that
    // connected has ended, its writer stopped.
    virtual void connected();
    virtual void disconnected();
    // An attempt that reached its login (or a server's login delay) has ended, whether or
    // not the login succeeded (after disconnected()).
    virtual void attemptEnded();

    // Between lines, when nothing is buffered: while wantsIdle() holds, idle() is called
    // whenever the peer stays quiet for a short while. (A peer quiet in the middle of a
    // line is waited for.)
    virtual bool wantsIdle();
    virtual void idle();
    // A client waits `secondsLeft` more before its next attempt.
    virtual void retryProgress(double secondsLeft);

protected:
    ConnectionLink& link() const { return link_; }

private:
    ConnectionLink& link_;
};

} // namespace Dovel
