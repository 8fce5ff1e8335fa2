#include "Dovel/transport/ConnectionThread.h"

#include "Dovel/Limits.h"
#include "Dovel/transport/LoginHandshake.h"
#include "Dovel/transport/MapBlock.h"
#include "Dovel/transport/SocketSource.h"

#include "Basalt/Stopwatch.h"
#include "Basalt/Trace.h"

#include <algorithm>

namespace Dovel {

namespace {

// "ping" or "ping <payload>" (and the same for "pong"), on the raw bytes of a line.
bool isKeepAlive(const QByteArray& line, const char* word) {
    if (!line.startsWith(word))
        return false;
    return line.size() == 4 || (line.size() > 5 && line.at(4) == ' ');
}

} // namespace

ConnectionThread::ConnectionThread(Basalt::TCPSocket* socket, bool serverSide)
    : Basalt::Thread(QStringLiteral("ConnectionThread")), socket_(socket), serverSide(serverSide),
      writer(new WriterThread(this)), handler_(std::make_unique<ConnectionHandler>(*this)),
      source(new SocketSource(*this)), reader(*source) {
    if (socket && socket->isOpen()) {
        // An accepted socket: name the peer in log lines.
        peer_.setAddress(socket->peerAddress(), socket->peerPort());
    }
}

ConnectionThread::~ConnectionThread() {
    notifying.store(false);
    shutdown();
    handler_.reset(); // no hook runs any more: the threads have ended
    writer.reset();
    delete socket_.exchange(nullptr);
}

void ConnectionThread::setHandler(std::unique_ptr<ConnectionHandler> handler) {
    if (handler) // the stand-in stays rather than a null that every hook would call
        handler_ = std::move(handler);
}

void ConnectionThread::notify(const std::function<void()>& callback) const {
    if (callback && notifying.load())
        callback();
}

void ConnectionThread::shutdown() {
    stop();
    if (!isCurrentThread())
        waitEnd(-1);
    if (!writer->isCurrentThread())
        writer->waitEnd(-1);
}

void ConnectionThread::connectToHost(const QString& host, int port) {
    peer_.setAddress(host, port);
    Basalt::Guard loop(loopMutex);
    stopping.store(false);
    if (loopActive) {
        // Break the current attempt; the retry loop then moves to the new address.
        writer->stop();
        closeSocket();
        running.store(false);
        retry.requestMove();
        return;
    }
    waitEnd(-1); // a previous run may still be leaving childLoop
    loopActive = true;
    running.store(true);
    run();
}

void ConnectionThread::stop() {
    stopping.store(true);
    running.store(false);
    writer->stop();
    retry.wake();
    closeSocket();
}

void ConnectionThread::closeSocket() {
    if (Basalt::TCPSocket* s = socket())
        s->close();
}

void ConnectionThread::failConnection() {
    writer->stop();
    running.store(false);
}

void ConnectionThread::abortConnection() {
    failConnection();
    closeSocket();
}

// ---- the thread body ----

void ConnectionThread::childLoop() {
    if (serverSide) {
        if (!stopping.load())
            running.store(true);
        handleConnection(); // may have ended with this object's destruction
        return;
    }

    int retries = 0;
    for (;;) {
        {
            Basalt::Guard loop(loopMutex);
            if (retry.takeMoveRequest() && !stopping.load())
                running.store(true);
            if (stopping.load() || (!running.load() && !retry.keepRetrying())) {
                loopActive = false;
                break;
            }
        }
        if (retries > 3)
            Basalt::Trace::debug("ConnectionThread::childLoop# %d connection retries to %s",
                                 retries, hostName().toUtf8().constData());

        const Basalt::Stopwatch start;
        if (retry.keepRetrying() && !stopping.load())
            running.store(true);
        const bool opened = openConnection();
        const bool moved = retry.moveRequested(); // connectToHost named another address
        // A stop() that came before the socket was open could not close it.
        if (!opened || !running.load() || stopping.load() || moved) {
            if (opened)
                closeSocket(); // stopped or moved while connecting
            handler_->connectionFailed();
        } else {
            handleConnection();
        }
        if (!stopping.load())
            running.store(retry.keepRetrying());

        retry.pause(
            start, [this] { return !(retry.keepRetrying() || running.load()) || stopping.load(); },
            [this](double secondsLeft) { handler_->retryProgress(secondsLeft); });
        ++retries;
    }
    running.store(false);
}

bool ConnectionThread::openConnection() {
    handler_->connecting();
    writer->stop();
    writer->waitEnd(-1);
    reader.reset();

    const QByteArray address = peer_.hostName().toUtf8();
    const int port = peer_.port();
    // stop() and a move to another address clear running: a host that does not answer
    // must not hold either up until the system gives up on it.
    const auto cancelled = [this] { return stopping.load() || !running.load(); };
    if (Basalt::TCPSocket* s = socket()) {
        if (s->open(address.constData(), port, cancelled) != 0)
            notePeerFailure({PeerFailure::Connect, s->openError(), QString()});
        if (!s->isOpen())
            return false;
    } else {
        auto fresh = std::make_unique<Basalt::TCPSocket>();
        if (fresh->open(address.constData(), port, cancelled) != 0) {
            notePeerFailure({PeerFailure::Connect, fresh->openError(), QString()});
            return false;
        }
        socket_.store(fresh.release());
    }
    handler_->opened();
    return true;
}

bool ConnectionThread::handshake() {
    LoginHandshake login(
        {[this] { return line(); }, [this](int size) { return readData(size); },
         [this](const QByteArray& bytes) { return writeData(bytes.constData(), bytes.size()); },
         [this](const LoginHandshake::Version& v) {
             setRemoteVersion(v.major, v.minor, v.patch, v.suffix);
         },
         [this] {
             Basalt::TCPSocket* s = socket();
             return s && s->isHungUp();
         }});
    if (serverSide) {
        return login.serve(loginKey(), [this](bool accepted, const QString& user) {
            if (accepted)
                peer_.setUserName(user);
            if (loginObserver)
                loginObserver(accepted);
        });
    }
    PeerFailure why;
    if (login.logIn(loginKey(), peer_.versionSuffix(), why))
        return true;
    // A login that broke off without a reason of its own: the server went away or quiet.
    notePeerFailure(why.isSet() ? why : PeerFailure{PeerFailure::LoginCut, 0, QString()});
    return false;
}

bool ConnectionThread::waitLoginDelay() {
    return retry.sleep(loginDelay.load(), [this] { return stopping.load(); });
}

void ConnectionThread::handleConnection() {
    pongReceived.store(false); // a new peer has not answered a ping yet
    {
        Basalt::Guard guard(pongMutex); // what the last peer asked goes with it
        waitingPongs.clear();
    }
    stallLogged.store(false);
    bool shaken = serverSide ? waitLoginDelay() : !stopping.load();
    updateLastPacketTimestamp();
    if (shaken) {
        source->startLogin(timeoutSeconds());
        Basalt::Guard guard(writeMutex_);
        shaken = handshake();
        if (!shaken)
            handler_->loginFailed();
    }
    source->endLogin();
    settleReads();
    if (!shaken) {
        Basalt::Trace::warning("Handshake failed, closing connection");
        closeSocket();
        writer->stop();
        running.store(false);
        handler_->attemptEnded();
        // The owner may drop its last reference here, on this thread: nothing touches
        // this object after it has heard.
        notify(listener_.handshakeFailed);
        return;
    }

    // A peer that never answers a ping would otherwise never be found gone: the system
    // probes the idle connection instead, at about the connection's time-out.
    if (Basalt::TCPSocket* s = socket()) {
        const int seconds = std::max(1, int(timeoutSeconds()));
        s->setKeepAlive(seconds, std::max(1, seconds / 3), 3);
    }
    connected_.store(true);
    handler_->connected();
    writer->start();
    notify(listener_.connected);
    if (usePing_.load())
        ping(QByteArrayLiteral("initialized"));
    {
        // Lines queued meanwhile wait here too, so that they keep their order.
        Basalt::Guard guard(queueMutex);
        while (running.load() && !pendingLines.isEmpty())
            writer->writeData(pendingLines.takeFirst(), QByteArray());
        linesFlowing = true;
    }

    serve();

    {
        Basalt::Guard guard(queueMutex);
        linesFlowing = false;
        connected_.store(false);
    }
    // The link is over: the writer has nothing left to do, and the peer sees the end.
    writer->stop();
    closeSocket();
    writer->waitEnd(-1);
    handler_->disconnected();
    handler_->attemptEnded();
    if (serverSide)
        running.store(false);
    notify(listener_.disconnected); // the last touch of this object (see above)
}

void ConnectionThread::serve() {
    while (running.load()) {
        // With nothing buffered, a handler finishes work of its own while the peer is
        // quiet, instead of waiting for a line that may not come.
        Basalt::TCPSocket* const s = socket();
        if (!reader.hasBuffered() && s && s->isOpen() && handler_->wantsIdle() &&
            !s->isPendingInput(IdlePollMs)) {
            handler_->idle();
            continue;
        }
        const QString text = line();
        if (text.isEmpty())
            break;
        updateLastPacketTimestamp();
        const QByteArray& raw = reader.lastLine(); // valid until the next read
        if (usePing_.load() && isKeepAlive(raw, "ping")) {
            QByteArray reply = raw; // the same payload, byte for byte
            reply[1] = 'o';
            reply.append('\n');
            answerPing(reply);
        } else if (usePing_.load() && isKeepAlive(raw, "pong")) {
            pongReceived.store(true);
            handler_->pong(raw.mid(5));
        } else if (!handler_->parse(text)) {
            Basalt::Trace::warning("Failed to parse command '%s'", text.toUtf8().constData());
        }
    }
}

// ---- sending ----

void ConnectionThread::answerPing(const QByteArray& reply) {
    // At once, unless the writer is inside an item (a peer that holds its reading can
    // keep it there): then after it, and reading goes on meanwhile; but only up to a
    // limit, past which this thread waits for the writer like any other.
    if (!writeMutex_.tryLock()) {
        bool waits = false;
        {
            Basalt::Guard guard(pongMutex);
            if (waitingPongs.size() + reply.size() <= Limits::MaxWaitingPongBytes) {
                waitingPongs += reply;
                waits = true;
            }
        }
        if (waits) {
            writer->update(QStringLiteral("pong"), [this] { writeWaitingPongs(); });
            return;
        }
        writeMutex_.lock();
    }
    if (writeWaitingPongs()) // earlier answers first
        writeData(reply.constData(), reply.size());
    writeMutex_.unlock();
}

bool ConnectionThread::writeWaitingPongs() {
    QByteArray waiting;
    {
        Basalt::Guard guard(pongMutex);
        waiting.swap(waitingPongs);
    }
    return writeData(waiting.constData(), waiting.size()); // true for none
}

void ConnectionThread::queue(const QString& text) {
    const QByteArray bytes = text.toUtf8();
    Basalt::Guard guard(queueMutex);
    if (running.load() && linesFlowing)
        writer->writeData(bytes, QByteArray());
    else
        pendingLines.append(bytes);
}

void ConnectionThread::writeBufferData(const QByteArray& data, const QByteArray& key) {
    if (!data.isEmpty())
        writer->writeData(data, key);
}

void ConnectionThread::writeBuffer(const QList<QByteArray>& parts, const QByteArray& key) {
    if (!parts.isEmpty())
        writer->writeData(parts, key);
}

QByteArray ConnectionThread::buildMapBuffer(const QString& name,
                                            const QMap<QString, QString>& map) const {
    return encodeMap(name, map, remoteVersion(1, 9, 1));
}

QByteArray ConnectionThread::encodeMap(const QString& name, const QMap<QString, QString>& map,
                                       bool binary) {
    QByteArray out =
        (name + QLatin1Char(' ') + QString::number(map.size()) + QLatin1Char('\n')).toUtf8();
    if (binary) {
        out += MapBlock::encode(map);
    } else {
        for (auto it = map.constBegin(); it != map.constEnd(); ++it) {
            QString key = it.key();
            QString value = it.value();
            key.remove(QLatin1Char('\n'));
            value.remove(QLatin1Char('\n'));
            out += (key + QLatin1Char('\n') + value + QLatin1Char('\n')).toUtf8();
        }
    }
    return out;
}

void ConnectionThread::writeMapBuffer(const QString& name, const QMap<QString, QString>& map) {
    writeBufferData(buildMapBuffer(name, map), QByteArray());
}

void ConnectionThread::ping(const QByteArray& payload) {
    writeBufferData(payload.isEmpty() ? QByteArrayLiteral("ping\n")
                                      : QByteArrayLiteral("ping ") + payload + '\n',
                    QByteArray());
}

bool ConnectionThread::writeData(const void* data, int size) {
    if (size < 1)
        return true;
    Basalt::TCPSocket* s = socket();
    const int written =
        s ? s->write(data, size, [this](double stalled) { return writeStalled(stalled); }) : -1;
    if (written != size) {
        Basalt::Trace::debug("ConnectionThread::writeData # Write error");
        failConnection();
        return false;
    }
    return true;
}

bool ConnectionThread::puts(const QString& text) {
    const QByteArray bytes = (text + QLatin1Char('\n')).toUtf8();
    return writeData(bytes.constData(), bytes.size());
}

// ---- receiving (the connection's own thread only) ----

void ConnectionThread::settleReads() {
    switch (reader.takeFailure()) {
    case LineReader::Failure::None:
        return;
    case LineReader::Failure::Ended:
        failConnection();
        return;
    case LineReader::Failure::Rejected:
        abortConnection();
        return;
    }
}

QString ConnectionThread::line() {
    const std::optional<QString> read = reader.line();
    settleReads();
    return read.value_or(QString());
}

QByteArray ConnectionThread::readData(int size) {
    const std::optional<QByteArray> read = reader.readData(size);
    settleReads();
    return read.value_or(QByteArray());
}

bool ConnectionThread::readData(uint8_t* dst, int size) {
    const bool read = reader.readData(dst, size);
    settleReads();
    return read;
}

bool ConnectionThread::skip(int size) {
    const bool skipped = reader.skip(size);
    settleReads();
    return skipped;
}

std::optional<QMap<QString, QString>> ConnectionThread::readMap(int count) {
    std::optional<QMap<QString, QString>> read = reader.readMap(count, remoteVersion(1, 9, 1));
    settleReads();
    return read;
}

// ---- version and state ----

uint32_t ConnectionThread::rxBytes() const {
    Basalt::TCPSocket* s = socket();
    return s ? static_cast<uint32_t>(s->rxBytes()) : 0;
}

uint32_t ConnectionThread::txBytes() const {
    Basalt::TCPSocket* s = socket();
    return s ? static_cast<uint32_t>(s->txBytes()) : 0;
}

void ConnectionThread::updateLastPacketTimestamp() {
    lastPacket.store(Basalt::Stopwatch::now());
}

bool ConnectionThread::writeStalled(double seconds) {
    const double limit = timeoutSeconds();
    if (!running.load())
        return true;
    if (seconds <= limit || secondsSinceLastPacket() <= limit)
        return false;
    if (!stallLogged.exchange(true))
        Basalt::Trace::warning("ConnectionThread::writeData # %s:%d has read nothing and sent "
                               "nothing for %g s, disconnecting",
                               hostName().toUtf8().constData(), port(), limit);
    abortConnection(); // the reading side waits for the peer too
    return true;
}

double ConnectionThread::secondsSinceLastPacket() const {
    return Basalt::Stopwatch(lastPacket.load()).elapsedSeconds();
}

Basalt::TimeStamp ConnectionThread::lastPacketTimestamp() const {
    const Basalt::TimeStamp now = Basalt::TimeStamp::currentTime();
    return Basalt::TimeStamp(now.value() - int64_t(secondsSinceLastPacket() * 1e6));
}

} // namespace Dovel
