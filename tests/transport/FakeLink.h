// Stand-ins for a connection, so that a reader or a protocol handler runs without
// sockets or threads: FakeSource hands out bytes fed to it, FakeLink reads through a
// LineReader over one and keeps what the handler writes.
#pragma once

#include "Dovel/transport/ConnectionHandler.h"
#include "Dovel/transport/LineReader.h"

#include "Basalt/Mutex.h"

#include <QByteArray>
#include <QStringList>

#include <algorithm>
#include <cstring>

namespace TransportTest {

// Hands out the bytes fed to it at most `piece` bytes per read, then reports the end.
class FakeSource : public Dovel::ByteSource {
public:
    FakeSource(QByteArray bytes, int piece) : bytes(std::move(bytes)), piece(piece) {}

    int read(char* dst, int size, bool) override {
        ++reads;
        const int n = std::min({size, piece, int(bytes.size() - offset)});
        if (n <= 0)
            return 0;
        std::memcpy(dst, bytes.constData() + offset, size_t(n));
        offset += n;
        return n;
    }
    QString peerName() const override { return QStringLiteral("fake:1"); }

    void feed(const QByteArray& more) { bytes += more; }
    bool exhausted() const { return offset >= bytes.size(); }

    int reads = 0;

private:
    QByteArray bytes;
    int piece;
    int offset = 0;
};

// A link to a peer of version 2.6.1 whose bytes the test feeds; the handler's writes are
// kept in order, and stop or abortConnection end the link. The test's thread reads.
class FakeLink : public Dovel::ConnectionLink {
public:
    FakeLink() : source(QByteArray(), 16384), reader(source) {
        peer_.setAddress(QStringLiteral("fake"), 1);
        peer_.setRemoteVersion(2, 6, 1, QString());
    }

    void feed(const QByteArray& bytes) { source.feed(bytes); }
    // Hands every line fed so far to `handler`, as a connection's reading loop does;
    // the lines it did not understand are kept in `refused`.
    void pump(Dovel::ConnectionHandler& handler) {
        while (!ended && (reader.hasBuffered() || !source.exhausted())) {
            const QString text = line();
            if (text.isEmpty())
                break;
            if (!handler.parse(text))
                refused.append(text);
        }
    }
    // What the handler wrote since the last call.
    QByteArray takeWritten() {
        Basalt::Guard guard(mutex);
        QByteArray out;
        out.swap(written);
        return out;
    }

    QString line() override { return settle(reader.line()).value_or(QString()); }
    QByteArray readData(int size) override {
        return settle(reader.readData(size)).value_or(QByteArray());
    }
    bool readData(uint8_t* dst, int size) override { return check(reader.readData(dst, size)); }
    bool skip(int size) override { return check(reader.skip(size)); }
    std::optional<QMap<QString, QString>> readMap(int count) override {
        return settle(reader.readMap(count, true));
    }

    void writeBufferData(const QByteArray& data, const QByteArray&) override {
        Basalt::Guard guard(mutex);
        written += data;
    }
    void writeBuffer(const QList<QByteArray>& parts, const QByteArray& key) override {
        for (const QByteArray& part : parts)
            writeBufferData(part, key);
    }
    int64_t bufferedDataSize() const override { return 0; }
    int64_t bufferedItemCount() const override { return waitingItems; }
    bool callWhenDrained(int64_t, std::function<void()>) override { return false; }
    void removeFromBuffer(const QByteArray&) override {}
    void ping(const QByteArray&) override {}
    bool isPingSupported() const override { return false; }
    void updateLastPacketTimestamp() override {}
    double secondsSinceLastPacket() const override { return quietSeconds; }

    void stop() override { ended = true; }
    void abortConnection() override { ended = true; }
    bool isConnected() const override { return !ended; }
    bool isLive() const override { return !ended; }
    bool isServerSide() const override { return serverSide; }
    bool isStopping() const override { return false; }
    double timeoutSeconds() const override { return timeout; }
    void setTimeoutSeconds(double seconds) override { timeout = seconds; }
    Dovel::PeerState& peer() override { return peer_; }
    const Dovel::PeerState& peer() const override { return peer_; }
    std::weak_ptr<Dovel::ConnectionLink> weakLink() override { return {}; }

    QStringList refused;
    bool ended = false;
    int64_t waitingItems = 0;  // what the writer is taken to hold, untaken, for the handler
    double quietSeconds = 0.0; // since the peer was last heard from, for the handler
    bool serverSide = true;

private:
    template <class T> T settle(T read) {
        check(true);
        return read;
    }
    bool check(bool read) {
        if (reader.takeFailure() != Dovel::LineReader::Failure::None)
            ended = true;
        return read;
    }

    FakeSource source;
    Dovel::LineReader reader;
    Dovel::PeerState peer_{"key"};
    double timeout = 10.0;
    Basalt::Mutex mutex;
    QByteArray written; // guarded by mutex
};

} // namespace TransportTest
