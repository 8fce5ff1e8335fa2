#include "Dovel/transport/ConnectionThread.h"

#include "Dovel/Limits.h"
#include "Dovel/Version.h"
#include "Dovel/transport/MapBlock.h"

#include "Basalt/Stopwatch.h"
#include "Basalt/Trace.h"

#include <QCryptographicHash>
#include <QRandomGenerator>
#include <QRegularExpression>

#include <algorithm>
#include <cstring>

namespace Dovel {

namespace {

const QString UserName = QStringLiteral("pavro");
const QString WrongLogin = QStringLiteral("Wrong username or password");
constexpr int ChallengeSize = 64;
constexpr int DigestSize = 16;
constexpr int ReceiveBufferSize = 16384;
// Long reads go to the socket in slices, so that the last-packet stamp keeps up.
constexpr int ReadSlice = 65536;
// A long readData grows its result by at most this much per step: memory follows the
// bytes that actually arrive, not the size the peer announced.
constexpr int ReadGrowth = 1 << 20;
constexpr double RetrySeconds = 3.0;

// The longest part of a stranger's greeting that a failure quotes.
constexpr int QuotedGreetingChars = 40;

// Why a greeting that is not ours failed: a peer that hung up before greeting (a
// server that does not admit us closes at once) or one that said something else.
PeerFailure greetingFailure(const QString& greeting, Basalt::TCPSocket* socket) {
    if (greeting.isEmpty() && socket && socket->isHungUp())
        return {PeerFailure::LoginCut, 0, QString()};
    QString quoted;
    for (const QChar c : greeting.left(QuotedGreetingChars))
        quoted += c.isPrint() ? c : QChar(u'?');
    return {PeerFailure::NotDovel, 0, quoted};
}

QString greeting() {
    return QStringLiteral("Heliotrope ") + QString::fromUtf8(version());
}

struct PeerVersion {
    int major = 0;
    int minor = 0;
    int patch = 0;
    QString suffix;
};

bool parseGreeting(const QString& line, PeerVersion& out) {
    const QRegularExpression expression(
        QStringLiteral("^Heliotrope (1|2)\\.(\\d+)\\.(\\d+)(-(.+))?$"));
    const QRegularExpressionMatch match = expression.match(line);
    if (!match.hasMatch())
        return false;
    out.major = match.captured(1).toInt();
    out.minor = match.captured(2).toInt();
    out.patch = match.captured(3).toInt();
    out.suffix = match.captured(5);
    return true;
}

// MD5 over the challenge's first half, the key and the challenge's second half.
QByteArray loginDigest(const QByteArray& challenge, const QByteArray& key) {
    QCryptographicHash hash(QCryptographicHash::Md5);
    hash.addData(challenge.left(ChallengeSize / 2));
    hash.addData(key);
    hash.addData(challenge.mid(ChallengeSize / 2, ChallengeSize / 2));
    return hash.result();
}

// Compares in a time that does not depend on where the bytes differ, so that an
// observer of the answer's timing learns nothing about a proof.
bool sameBytes(const QByteArray& a, const QByteArray& b) {
    if (a.size() != b.size())
        return false;
    unsigned char difference = 0;
    for (int i = 0; i < a.size(); ++i)
        difference |= static_cast<unsigned char>(a[i] ^ b[i]);
    return difference == 0;
}

// "ping" or "ping <payload>" (and the same for "pong"), on the raw bytes of a line.
bool isKeepAlive(const QByteArray& line, const char* word) {
    if (!line.startsWith(word))
        return false;
    return line.size() == 4 || (line.size() > 5 && line.at(4) == ' ');
}

} // namespace

ConnectionThread::ConnectionThread(Basalt::TCPSocket* socket, bool serverSide)
    : Basalt::Thread(QStringLiteral("ConnectionThread")), socket_(socket), serverSide(serverSide),
      writer(new WriterThread(this)), receiveBuffer(ReceiveBufferSize) {
    if (socket && socket->isOpen()) {
        // An accepted socket: name the peer in log lines.
        host = socket->peerAddress();
        port_ = socket->peerPort();
    }
    eventAddIn(QByteArrayLiteral("write-error"));
    eventAddIn(QByteArrayLiteral("data-written"));
    eventAddOut(QByteArrayLiteral("connected"));
    eventAddOut(QByteArrayLiteral("disconnected"));
    eventAddOut(QByteArrayLiteral("handshake-failed"));
    writer->eventAddListener(QByteArrayLiteral("error"), QByteArrayLiteral("write-error"), this,
                             Tessel::Node::Direct, nullptr);
    writer->eventAddListener(QByteArrayLiteral("data-written"), QByteArrayLiteral("data-written"),
                             this, Tessel::Node::Direct, nullptr);
}

ConnectionThread::~ConnectionThread() {
    aboutToBeDestroyed(); // deletion listeners see the real type; events stop here
    shutdown();
    writer.reset();
    delete socket_.exchange(nullptr);
}

void ConnectionThread::shutdown() {
    stop();
    if (!isCurrentThread())
        waitEnd(-1);
    if (!writer->isCurrentThread())
        writer->waitEnd(-1);
}

void ConnectionThread::setLoginKey(const QByteArray& key) {
    Basalt::Guard guard(stateMutex);
    loginKey_ = key.isEmpty() ? QByteArray(DefaultLoginKey) : key;
}

QByteArray ConnectionThread::loginKey() const {
    Basalt::Guard guard(stateMutex);
    return loginKey_;
}

void ConnectionThread::connectToHost(const QString& host, int port) {
    {
        Basalt::Guard guard(stateMutex);
        this->host = host;
        port_ = port;
    }
    Basalt::Guard loop(loopMutex);
    stopping.store(false);
    if (loopActive) {
        // Break the current attempt; the retry loop then moves to the new address.
        writer->stop();
        closeSocket();
        running.store(false);
        Basalt::Guard guard(retryMutex);
        retryNow = true;
        retryCondition.wakeAll(retryMutex);
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
    {
        Basalt::Guard guard(retryMutex);
        retryCondition.wakeAll(retryMutex);
    }
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

void ConnectionThread::rejectSize(const char* operation, const char* what, int64_t size,
                                  int64_t limit) {
    Basalt::Trace::warning("ConnectionThread::%s # %s of %lld from %s:%d exceeds the limit of "
                           "%lld, disconnecting",
                           operation, what, static_cast<long long>(size),
                           hostName().toUtf8().constData(), port(), static_cast<long long>(limit));
    failConnection();
    closeSocket();
}

// ---- the thread body ----

void ConnectionThread::childLoop() {
    if (serverSide) {
        if (!stopping.load())
            running.store(true);
        handleConnection();
        running.store(false);
        return;
    }

    int retries = 0;
    for (;;) {
        {
            Basalt::Guard loop(loopMutex);
            bool moveNow = false;
            {
                Basalt::Guard guard(retryMutex);
                std::swap(moveNow, retryNow);
            }
            if (moveNow && !stopping.load())
                running.store(true);
            if (stopping.load() || (!running.load() && !keepRetrying.load())) {
                loopActive = false;
                break;
            }
        }
        if (retries > 3)
            Basalt::Trace::debug("ConnectionThread::childLoop# %d connection retries to %s",
                                 retries, hostName().toUtf8().constData());

        const Basalt::Stopwatch start;
        if (keepRetrying.load() && !stopping.load())
            running.store(true);
        const bool opened = openConnection();
        bool moved;
        {
            Basalt::Guard guard(retryMutex);
            moved = retryNow; // connectToHost named another address meanwhile
        }
        // A stop() that came before the socket was open could not close it.
        if (!opened || !running.load() || stopping.load() || moved) {
            if (opened)
                closeSocket(); // stopped or moved while connecting
            connectionFailed();
        } else {
            handleConnection();
        }
        if (!stopping.load())
            running.store(keepRetrying.load());

        retryMutex.lock();
        for (;;) {
            if (!(keepRetrying.load() || running.load()) || stopping.load() || retryNow)
                break;
            const double remaining = RetrySeconds - start.elapsedSeconds();
            if (remaining <= 0.0)
                break;
            retryCondition.wait(retryMutex,
                                static_cast<unsigned long>(std::min(1.0, remaining) * 1000.0) + 1);
            retryMutex.unlock(); // the hook may call stop() or connectToHost()
            retryProgress(std::max(0.0, RetrySeconds - start.elapsedSeconds()));
            retryMutex.lock();
        }
        retryMutex.unlock();
        ++retries;
    }
    running.store(false);
}

bool ConnectionThread::openConnection() {
    writer->stop();
    writer->waitEnd(-1);
    receiveBegin = receiveEnd = 0;

    QByteArray address;
    int port;
    {
        Basalt::Guard guard(stateMutex);
        address = host.toUtf8();
        port = port_;
    }
    // stop() and a move to another address clear running: a host that does not answer
    // must not hold either up until the system gives up on it.
    const auto cancelled = [this] { return stopping.load() || !running.load(); };
    if (Basalt::TCPSocket* s = socket()) {
        if (s->open(address.constData(), port, cancelled) != 0)
            notePeerFailure({PeerFailure::Connect, s->openError(), QString()});
        return s->isOpen();
    }
    auto fresh = std::make_unique<Basalt::TCPSocket>();
    if (fresh->open(address.constData(), port, cancelled) != 0) {
        notePeerFailure({PeerFailure::Connect, fresh->openError(), QString()});
        return false;
    }
    socket_.store(fresh.release());
    return true;
}

bool ConnectionThread::handshake() {
    if (serverSide)
        return serverHandshake();
    PeerFailure why;
    if (clientHandshake(why))
        return true;
    // A login that broke off without a reason of its own: the server went away or quiet.
    notePeerFailure(why.isSet() ? why : PeerFailure{PeerFailure::LoginCut, 0, QString()});
    return false;
}

bool ConnectionThread::serverHandshake() {
    // From the system's cryptographic source: a challenge an observer could predict
    // would let a recorded proof be replayed.
    QByteArray challenge(ChallengeSize, '\0');
    QRandomGenerator::system()->fillRange(reinterpret_cast<quint32*>(challenge.data()),
                                          ChallengeSize / int(sizeof(quint32)));
    const QByteArray expected = loginDigest(challenge, loginKey());

    if (!puts(greeting()) || !writeData(challenge.constData(), ChallengeSize))
        return false;

    QString user = line();
    if (user.isEmpty())
        return false; // the peer stalled or went away: no answer
    if (user == UserName) {
        // An old client sends no version line.
        setRemoteVersion(1, 9, 0, QString());
    } else {
        PeerVersion peer;
        if (!parseGreeting(user, peer))
            return refuseLogin();
        setRemoteVersion(peer.major, peer.minor, peer.patch, peer.suffix);
        user = line();
    }

    const QByteArray proof = readData(DigestSize);
    if (proof.size() != DigestSize)
        return false;
    if (sameBytes(user.toUtf8(), UserName.toUtf8()) & sameBytes(proof, expected)) {
        {
            Basalt::Guard guard(stateMutex);
            userName = user;
        }
        if (loginObserver)
            loginObserver(true);
        return puts(QStringLiteral("ok"));
    }
    return refuseLogin();
}

bool ConnectionThread::refuseLogin() {
    // Before the answer: a peer that reconnects at once must find the refusal counted.
    if (loginObserver)
        loginObserver(false);
    puts(WrongLogin);
    return false;
}

bool ConnectionThread::clientHandshake(PeerFailure& why) {
    const QString first = line();
    PeerVersion peer;
    if (!parseGreeting(first, peer)) {
        Basalt::Trace::warning("Unknown server version '%s', expected \"Heliotrope (1|2).*.*\"",
                               first.toUtf8().constData());
        why = greetingFailure(first, socket());
        return false;
    }
    setRemoteVersion(peer.major, peer.minor, peer.patch, peer.suffix);

    const QByteArray head = readData(ChallengeSize / 2);
    if (head.size() != ChallengeSize / 2)
        return false;
    const QByteArray tail = readData(ChallengeSize / 2);
    if (tail.size() != ChallengeSize / 2)
        return false;
    const QByteArray digest = loginDigest(head + tail, loginKey());

    // An older server would take the version line for the user name.
    QString versionLine = greeting();
    {
        Basalt::Guard guard(stateMutex);
        if (!ownSuffix.isEmpty())
            versionLine += QLatin1Char('-') + ownSuffix;
    }
    if (remoteVersion(1, 9, 1) && !puts(versionLine))
        return false;
    if (!puts(UserName) || !writeData(digest.constData(), digest.size()))
        return false;

    const QString answer = line();
    if (answer != QLatin1String("ok")) {
        Basalt::Trace::warning("Remote host sent handshake error: %s", answer.toUtf8().constData());
        if (answer == WrongLogin)
            why = {PeerFailure::LoginRefused, 0, QString()};
        return false;
    }
    return true;
}

bool ConnectionThread::waitLoginDelay() {
    const double delay = loginDelay.load();
    if (delay <= 0.0)
        return !stopping.load();
    const auto end = std::chrono::steady_clock::now() +
                     std::chrono::duration_cast<std::chrono::steady_clock::duration>(
                         std::chrono::duration<double>(delay));
    Basalt::Guard guard(retryMutex);
    while (!stopping.load()) {
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
                              end - std::chrono::steady_clock::now())
                              .count();
        if (left <= 0)
            return true;
        retryCondition.wait(retryMutex, static_cast<unsigned long>(left) + 1);
    }
    return false;
}

bool ConnectionThread::awaitLoginInput() {
    if (!loginBounded())
        return true;
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
                          loginDeadline - std::chrono::steady_clock::now())
                          .count();
    Basalt::TCPSocket* s = socket();
    if (s && left > 0 && s->isPendingInput(static_cast<unsigned int>(left)))
        return true;
    if (!loginTimedOut && !stopping.load()) {
        loginTimedOut = true;
        Basalt::Trace::warning("ConnectionThread::handshake # No login from %s:%d within %g s, "
                               "closing",
                               hostName().toUtf8().constData(), port(), timeoutSeconds());
    }
    return false;
}

void ConnectionThread::handleConnection() {
    pongReceived.store(false); // a new peer has not answered a ping yet
    stallLogged.store(false);
    bool shaken = serverSide ? waitLoginDelay() : !stopping.load();
    updateLastPacketTimestamp();
    if (shaken) {
        loginTimedOut = false;
        loginDeadline = std::chrono::steady_clock::now() +
                        std::chrono::duration_cast<std::chrono::steady_clock::duration>(
                            std::chrono::duration<double>(timeoutSeconds()));
        Basalt::Guard guard(writeMutex_);
        shaken = handshake();
    }
    loginDeadline = std::chrono::steady_clock::time_point();
    if (!shaken) {
        Basalt::Trace::warning("Handshake failed, closing connection");
        closeSocket();
        writer->stop();
        running.store(false);
        eventSend(QByteArrayLiteral("handshake-failed"));
        return;
    }

    // A peer that never answers a ping would otherwise never be found gone: the system
    // probes the idle connection instead, at about the connection's time-out.
    if (Basalt::TCPSocket* s = socket()) {
        const int seconds = std::max(1, int(timeoutSeconds()));
        s->setKeepAlive(seconds, std::max(1, seconds / 3), 3);
    }
    connected_.store(true);
    connected();
    writer->start();
    eventSend(QByteArrayLiteral("connected"));
    if (usePing_.load())
        ping(QByteArrayLiteral("initialized"));
    {
        // Lines queued meanwhile wait here too, so that they keep their order.
        Basalt::Guard guard(queueMutex);
        while (running.load() && !pendingLines.isEmpty())
            writer->writeData(pendingLines.takeFirst(), QByteArray());
        linesFlowing = true;
    }

    while (running.load()) {
        // With nothing buffered, a subclass finishes work of its own while the peer is
        // quiet, instead of waiting for a line that may not come.
        Basalt::TCPSocket* const s = socket();
        if (receiveBegin == receiveEnd && s && s->isOpen() && wantsIdle() &&
            !s->isPendingInput(IdlePollMs)) {
            idle();
            continue;
        }
        const QString text = line();
        if (text.isEmpty())
            break;
        updateLastPacketTimestamp();
        if (usePing_.load() && isKeepAlive(lastLine, "ping")) {
            QByteArray reply = lastLine; // the same payload, byte for byte
            reply[1] = 'o';
            reply.append('\n');
            // At once, unless the writer is inside an item (a peer that holds its reading
            // can keep it there): then after it, and reading goes on meanwhile.
            if (writeMutex_.tryLock()) {
                writeData(reply.constData(), reply.size());
                writeMutex_.unlock();
            } else {
                writer->writeData(reply, QByteArray());
            }
        } else if (usePing_.load() && isKeepAlive(lastLine, "pong")) {
            pongReceived.store(true);
            pong(lastLine.mid(5));
        } else if (!parse(text)) {
            Basalt::Trace::warning("Failed to parse command '%s'", text.toUtf8().constData());
        }
    }

    {
        Basalt::Guard guard(queueMutex);
        linesFlowing = false;
        connected_.store(false);
    }
    // The link is over: the writer has nothing left to do, and the peer sees the end.
    writer->stop();
    closeSocket();
    writer->waitEnd(-1);
    disconnected();
    eventSend(QByteArrayLiteral("disconnected"));
}

// ---- sending ----

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

void ConnectionThread::writeBuffer(const QString& text, const QByteArray& key) {
    writeBufferData(text.toUtf8(), key);
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

bool ConnectionThread::fillReceiveBuffer() {
    Basalt::TCPSocket* s = socket();
    if (!s || !awaitLoginInput())
        return false;
    const int n = s->read(receiveBuffer.data(), static_cast<int>(receiveBuffer.size()), false);
    if (n <= 0)
        return false;
    receiveBegin = 0;
    receiveEnd = n;
    updateLastPacketTimestamp();
    return true;
}

QString ConnectionThread::line() {
    QByteArray gathered;
    for (;;) {
        if (receiveBegin == receiveEnd && !fillReceiveBuffer()) {
            Basalt::Trace::debug(
                "ConnectionThread::line # no reply from %s:%d (could not read from socket)",
                hostName().toUtf8().constData(), port());
            failConnection();
            lastLine.clear();
            return QString();
        }
        const char* begin = receiveBuffer.data() + receiveBegin;
        const char* end = receiveBuffer.data() + receiveEnd;
        const char* stop = std::find_if(begin, end, [](char c) { return c == '\n' || c == '\r'; });
        const int take = static_cast<int>(stop - begin);
        if (gathered.size() + take > Limits::MaxLineBytes) {
            rejectSize("line", "A line", gathered.size() + take, Limits::MaxLineBytes);
            lastLine.clear();
            return QString();
        }
        gathered.append(begin, take);
        receiveBegin += take;
        if (stop == end)
            continue;
        ++receiveBegin; // the line end
        if (!gathered.isEmpty()) {
            lastLine = gathered;
            return QString::fromUtf8(gathered.constData(), gathered.size());
        }
    }
}

bool ConnectionThread::readExact(char* dst, int size, int& got) {
    got = std::min(size, receiveEnd - receiveBegin);
    if (got > 0) {
        std::memcpy(dst, receiveBuffer.data() + receiveBegin, static_cast<size_t>(got));
        receiveBegin += got;
    }
    while (got < size) {
        Basalt::TCPSocket* s = socket();
        if (!s)
            return false;
        const int slice = std::min(size - got, ReadSlice);
        // During a login each read waits no longer than the login may take.
        const bool bounded = loginBounded();
        if (bounded && !awaitLoginInput())
            return false;
        const int n = s->read(dst + got, slice, !bounded);
        if (n > 0) {
            got += n;
            updateLastPacketTimestamp();
        }
        if (bounded ? n <= 0 : n != slice)
            return false;
    }
    return true;
}

void ConnectionThread::logReadError(int size, int got) {
    if (!stopping.load())
        Basalt::Trace::warning(
            "ConnectionThread::readData # Read error (%s:%d expected %d bytes, got %d bytes",
            hostName().toUtf8().constData(), port(), size, got);
    failConnection();
}

QByteArray ConnectionThread::readData(int size) {
    if (size <= 0)
        return QByteArray();
    if (size > Limits::MaxReadBytes) {
        rejectSize("readData", "A read", size, Limits::MaxReadBytes);
        return QByteArray();
    }
    QByteArray out;
    int got = 0;
    while (got < size) {
        const int target = std::min(size, got + ReadGrowth);
        out.resize(target);
        int n = 0;
        const bool ok = readExact(out.data() + got, target - got, n);
        got += n;
        if (!ok) {
            logReadError(size, got);
            return QByteArray();
        }
    }
    updateLastPacketTimestamp();
    return out;
}

bool ConnectionThread::readData(uint8_t* dst, int size) {
    if (size <= 0)
        return size == 0;
    if (size > Limits::MaxReadBytes) {
        rejectSize("readData", "A read", size, Limits::MaxReadBytes);
        return false;
    }
    int got = 0;
    if (!readExact(reinterpret_cast<char*>(dst), size, got)) {
        logReadError(size, got);
        return false;
    }
    updateLastPacketTimestamp();
    return true;
}

bool ConnectionThread::skip(int size) {
    if (size <= 0)
        return true;
    if (size > Limits::MaxReadBytes) {
        rejectSize("skip", "A skip", size, Limits::MaxReadBytes);
        return false;
    }
    char scratch[4096];
    int done = 0;
    while (done < size) {
        const int step = std::min(size - done, static_cast<int>(sizeof scratch));
        int got = 0;
        const bool ok = readExact(scratch, step, got);
        done += got;
        if (!ok) {
            logReadError(size, done);
            return false;
        }
    }
    updateLastPacketTimestamp();
    return true;
}

std::optional<QMap<QString, QString>> ConnectionThread::readMap(int count) {
    QMap<QString, QString> map;
    if (count < 0 || count > Limits::MaxMapEntries) {
        rejectSize("readMap", "A map count", count, Limits::MaxMapEntries);
        return std::nullopt;
    }
    auto failed = [] {
        Basalt::Trace::error("ConnectionThread::readMap # error while reading data");
        return std::nullopt;
    };

    if (!remoteVersion(1, 9, 1)) {
        // The text form is held to the same size as a binary block.
        int64_t held = 0;
        for (int i = 0; i < count; ++i) {
            const QString key = line();
            if (key.isEmpty())
                return failed();
            held += lastLine.size();
            const QString value = line();
            if (value.isEmpty())
                return failed();
            held += lastLine.size();
            if (held > Limits::MaxMapBlockBytes) {
                rejectSize("readMap", "A text map", held, Limits::MaxMapBlockBytes);
                return std::nullopt;
            }
            map.insert(key, value);
        }
        return map;
    }

    const QByteArray lengthItem = readData(MapBlock::LengthItemBytes);
    if (lengthItem.size() != MapBlock::LengthItemBytes)
        return failed();
    const int length = MapBlock::blockLength(lengthItem);
    if (length < 0) {
        // Without a valid length the rest of the stream cannot be framed.
        failed();
        failConnection();
        closeSocket();
        return std::nullopt;
    }
    if (length > Limits::MaxMapBlockBytes) {
        rejectSize("readMap", "A map block", length, Limits::MaxMapBlockBytes);
        return std::nullopt;
    }
    const int bodySize = length - MapBlock::LengthItemBytes;
    const QByteArray body = readData(bodySize);
    if (body.size() != bodySize || !MapBlock::parseEntries(body, count, map))
        return failed();
    return map;
}

// ---- version and state ----

PeerFailure ConnectionThread::lastFailure() const {
    Basalt::Guard guard(stateMutex);
    return failure;
}

void ConnectionThread::notePeerFailure(const PeerFailure& what) {
    Basalt::Guard guard(stateMutex);
    failure = what;
}

void ConnectionThread::setRemoteVersion(int major, int minor, int patch, const QString& suffix) {
    Basalt::Guard guard(stateMutex);
    remoteMajor = major;
    remoteMinor = minor;
    remotePatch = patch;
    remoteSuffix = suffix;
}

QString ConnectionThread::remoteVersionSuffix() const {
    Basalt::Guard guard(stateMutex);
    return remoteSuffix;
}

void ConnectionThread::setVersionSuffix(const QString& suffix) {
    Basalt::Guard guard(stateMutex);
    ownSuffix = suffix;
}

QString ConnectionThread::remoteVersion() const {
    Basalt::Guard guard(stateMutex);
    QString text = QStringLiteral("%1.%2.%3").arg(remoteMajor).arg(remoteMinor).arg(remotePatch);
    if (!remoteSuffix.isEmpty())
        text += QLatin1Char('-') + remoteSuffix;
    return text;
}

bool ConnectionThread::remoteVersion(int major, int minor, int patch) const {
    Basalt::Guard guard(stateMutex);
    if (remoteMajor != major)
        return remoteMajor > major;
    if (remoteMinor != minor)
        return remoteMinor > minor;
    return remotePatch >= patch;
}

bool ConnectionThread::isDovel15Supported() const {
    if (remoteVersion(2, 2, 0))
        return true;
    if (!remoteVersion(2, 0, 4))
        return false;
    Basalt::Guard guard(stateMutex);
    return remoteSuffix.contains(QLatin1String("pellux"));
}

QString ConnectionThread::hostName() const {
    Basalt::Guard guard(stateMutex);
    return host;
}

int ConnectionThread::port() const {
    Basalt::Guard guard(stateMutex);
    return port_;
}

QString ConnectionThread::loginUserName() const {
    Basalt::Guard guard(stateMutex);
    return userName;
}

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

void ConnectionThread::eventProcess(const QByteArray& name, Basalt::BinaryData& data) {
    if (name == "write-error") {
        running.store(false);
        return;
    }
    if (name == "data-written")
        return;
    Tessel::Node::eventProcess(name, data);
}

// ---- subclass hooks ----

bool ConnectionThread::parse(const QString&) {
    return false;
}

void ConnectionThread::pong(const QByteArray&) {}

void ConnectionThread::connected() {}

void ConnectionThread::disconnected() {}

bool ConnectionThread::wantsIdle() {
    return false;
}

void ConnectionThread::idle() {}

void ConnectionThread::connectionFailed() {}

void ConnectionThread::retryProgress(double) {}

} // namespace Dovel
