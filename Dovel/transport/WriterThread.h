// The sending side of one ConnectionThread: callers on any thread hand it items (lists
// of byte parts under a key) and named update functions and return at once; its own
// thread runs the updates first (newest per name), then writes the items in order, in
// chunks of 16384 bytes, under the parent's write mutex. It also sends the keep-alive
// ping while idle and ends the connection when the peer stays silent too long. Between
// items that follow each other closely it polls for the next before sleeping
// (Basalt::SpinWait).
//
// It reports through two callbacks, both called on the writer's thread: a write error
// (a short write or a ping time-out, after which the writer has stopped) and, after each
// chunk, the item's key and the chunk's size.
//
// Thread-safe; the buffer and the updates are guarded by `mutex`. The writer never holds
// `mutex` together with the parent's write mutex. The callbacks are set before start().
#pragma once

#include "Basalt/Condition.h"
#include "Basalt/Mutex.h"
#include "Basalt/Stopwatch.h"
#include "Basalt/Thread.h"

#include <QByteArray>
#include <QList>
#include <QString>

#include <atomic>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>

namespace Dovel {

class ConnectionThread;

class WriterThread : public Basalt::Thread {
public:
    // Largest write handed to the socket at once; onDataWritten reports each.
    static constexpr int ChunkSize = 16384;
    static constexpr double DefaultPingIntervalSeconds = 5.0;

    explicit WriterThread(ConnectionThread* parent);
    ~WriterThread() override;

    // Appends one item; its parts are written one after another.
    void writeData(const QList<QByteArray>& parts, const QByteArray& key);
    void writeData(const QByteArray& data, const QByteArray& key);
    // Runs `function` on the writer thread before any buffered item, holding the parent's
    // write mutex; a newer function under the same name replaces a waiting one.
    void update(const QString& name, std::function<void()> function);
    // Drops every waiting item whose key equals `key`; an item being written stays.
    void removeFromBuffer(const QByteArray& key);
    // Bytes of the waiting items (see childLoop for why it may go below zero).
    int64_t bufferedDataSize() const;
    // The waiting items.
    int64_t bufferedItemCount() const;
    // Arms `callback` to run once as soon as no more than `bytes` wait: on the writer
    // thread after it took an item (or when it ends), or on the caller's thread after
    // removeFromBuffer. A later call replaces an armed callback;
    // false, and nothing armed, when no more than that waits now. Lets a producer hold
    // its output back while the peer reads slowly.
    bool callWhenDrained(int64_t bytes, std::function<void()> callback);

    // A short write or a ping time-out ended the writer, after the connection was told
    // (an observer; the connection does not need it).
    void onWriteError(std::function<void()> callback) { writeError = std::move(callback); }
    // A chunk of the item under `key` went to the socket.
    void onDataWritten(std::function<void(const QByteArray& key, int bytes)> callback) {
        dataWritten = std::move(callback);
    }

    // Sets running and starts the thread. Waiting updates are dropped at the start;
    // buffered items are kept.
    void start();
    // Clears running and wakes the thread; does not wait.
    void stop();
    bool isActive() const { return running.load(); }

    // Seconds of silence from the peer before a ping; shorter only in tests.
    void setPingIntervalSeconds(double seconds);
    double pingIntervalSeconds() const;
    // Seconds of silence from the peer, pings included, after which the connection ends
    // whether or not the peer ever answered a ping (whose time-out needs one); 0, the
    // default, for none. For a client that waits on a server of the same kind, which
    // pings a quiet peer: a session peer may be of a version that never pings.
    void setSilenceLimitSeconds(double seconds);

protected:
    void childLoop() override;

private:
    struct Item {
        QList<QByteArray> parts;
        QByteArray key;
    };

    // Writes one item under the parent's write mutex; false after a short write.
    bool writeItem(const Item& item, Basalt::Stopwatch& pingTime);
    // Idle wait slice: a second, shorter when the ping interval is shortened.
    unsigned long idleWaitMs() const;

    mutable Basalt::Mutex mutex;
    Basalt::Condition condition;
    std::deque<Item> buffer;
    std::map<QString, std::function<void()>> updates;
    ConnectionThread* const parent;
    std::atomic<bool> running{true};
    // Counts the calls that wake the thread, so that it can poll for one without `mutex`.
    std::atomic<uint64_t> posts{0};
    int64_t bufferedSize = 0;
    int64_t drainedBytes = 0;
    std::function<void()> drained; // armed by callWhenDrained
    double pingInterval = DefaultPingIntervalSeconds;
    double silenceLimit = 0.0;
    std::function<void()> writeError;
    std::function<void(const QByteArray&, int)> dataWritten;
};

} // namespace Dovel
