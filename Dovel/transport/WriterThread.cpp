#include "Dovel/transport/WriterThread.h"

#include "Dovel/transport/ConnectionThread.h"

#include "Basalt/SpinWait.h"
#include "Basalt/TCPSocket.h"
#include "Basalt/Trace.h"

#include <algorithm>
#include <utility>

namespace Dovel {

namespace {

const QByteArray PingKey = QByteArrayLiteral("ping");

int64_t sizeOf(const QList<QByteArray>& parts) {
    int64_t size = 0;
    for (const QByteArray& part : parts)
        size += part.size();
    return size;
}

} // namespace

WriterThread::WriterThread(ConnectionThread* parent)
    : Basalt::Thread(QStringLiteral("WriterThread")), parent(parent) {}

WriterThread::~WriterThread() {
    stop();
    if (!isCurrentThread())
        waitEnd(-1);
}

void WriterThread::writeData(const QList<QByteArray>& parts, const QByteArray& key) {
    Basalt::Guard guard(mutex);
    buffer.push_back(Item{parts, key});
    bufferedSize += sizeOf(parts);
    ++posts;
    condition.wakeAll(mutex);
}

void WriterThread::writeData(const QByteArray& data, const QByteArray& key) {
    writeData(QList<QByteArray>{data}, key);
}

void WriterThread::update(const QString& name, std::function<void()> function) {
    std::function<void()> replaced;
    Basalt::Guard guard(mutex);
    std::function<void()>& slot = updates[name];
    replaced = std::move(slot); // destroyed after the lock is released
    slot = std::move(function);
    ++posts;
    condition.wakeAll(mutex);
}

void WriterThread::removeFromBuffer(const QByteArray& key) {
    std::deque<Item> removed; // freed after the lock is released
    std::function<void()> wake;
    {
        Basalt::Guard guard(mutex);
        for (auto it = buffer.begin(); it != buffer.end();) {
            if (it->key == key) {
                bufferedSize -= sizeOf(it->parts);
                removed.push_back(std::move(*it));
                it = buffer.erase(it);
            } else {
                ++it;
            }
        }
        if (drained && bufferedSize <= drainedBytes)
            wake.swap(drained);
        condition.wakeAll(mutex);
    }
    if (wake)
        wake();
}

bool WriterThread::callWhenDrained(int64_t bytes, std::function<void()> callback) {
    Basalt::Guard guard(mutex);
    if (bufferedSize <= bytes)
        return false;
    drainedBytes = bytes;
    drained = std::move(callback);
    return true;
}

int64_t WriterThread::bufferedDataSize() const {
    Basalt::Guard guard(mutex);
    return bufferedSize;
}

int64_t WriterThread::bufferedItemCount() const {
    Basalt::Guard guard(mutex);
    return int64_t(buffer.size());
}

void WriterThread::start() {
    {
        Basalt::Guard guard(mutex);
        running.store(true);
    }
    run();
}

void WriterThread::stop() {
    Basalt::Guard guard(mutex);
    running.store(false);
    ++posts;
    condition.wakeAll(mutex);
}

void WriterThread::setPingIntervalSeconds(double seconds) {
    Basalt::Guard guard(mutex);
    pingInterval = seconds;
    condition.wakeAll(mutex);
}

void WriterThread::setSilenceLimitSeconds(double seconds) {
    Basalt::Guard guard(mutex);
    silenceLimit = seconds;
    condition.wakeAll(mutex);
}

double WriterThread::pingIntervalSeconds() const {
    Basalt::Guard guard(mutex);
    return pingInterval;
}

unsigned long WriterThread::idleWaitMs() const {
    return static_cast<unsigned long>(std::clamp(pingInterval * 200.0, 10.0, 1000.0));
}

void WriterThread::childLoop() {
    std::map<QString, std::function<void()>> dropped;
    mutex.lock();
    // Items kept from a previous run are no longer counted, so the size may go below
    // zero as they are taken; callers only compare it against a ceiling.
    bufferedSize = 0;
    dropped.swap(updates);

    bool pingOutstanding = false;
    Basalt::Stopwatch pingTime;
    unsigned long rxAtPing = 0;
    Basalt::SpinWait spin;
    auto receivedBytes = [this] {
        Basalt::TCPSocket* socket = parent->socket();
        return socket ? socket->rxBytes() : 0ul;
    };

    for (;;) {
        bool sendPing = false;
        bool timedOut = false;
        bool silent = false;
        bool parked = false;
        if (running.load() && updates.empty() && buffer.empty()) {
            const uint64_t seen = posts.load();
            mutex.unlock();
            parked = !spin.spin([&] { return posts.load() != seen; });
            mutex.lock();
        }
        while (running.load() && updates.empty() && buffer.empty()) {
            if (silenceLimit > 0.0 && parent->secondsSinceLastPacket() > silenceLimit) {
                silent = true;
                break;
            }
            if (parent->isPingSupported()) {
                const double idle = parent->secondsSinceLastPacket();
                const double limit = parent->timeoutSeconds();
                const unsigned long received = receivedBytes();
                if (pingOutstanding && idle > limit &&
                    pingTime.elapsedSeconds() + pingInterval > limit && received == rxAtPing) {
                    timedOut = true;
                    break;
                }
                if (idle > pingInterval && !pingOutstanding) {
                    sendPing = true;
                    break;
                }
                if (idle <= pingInterval || received > rxAtPing)
                    pingOutstanding = false;
            }
            condition.wait(mutex, idleWaitMs());
        }
        if (parked)
            spin.woke();

        if (timedOut || silent) {
            const double limit = silenceLimit;
            mutex.unlock();
            if (timedOut)
                Basalt::Trace::warning("%s:%d: Ping timeout, disconnecting",
                                       parent->hostName().toUtf8().constData(), parent->port());
            else
                Basalt::Trace::warning("WriterThread::childLoop # %s:%d sent nothing for %g s, "
                                       "disconnecting",
                                       parent->hostName().toUtf8().constData(), parent->port(),
                                       limit);
            parent->closeSocket();
            running.store(false);
            parent->writeFailed(); // the reading side finds out at its next read
            if (writeError)
                writeError();
            return;
        }
        if (sendPing) {
            buffer.push_front(Item{QList<QByteArray>{QByteArrayLiteral("ping\n")}, PingKey});
            bufferedSize += 5;
            pingTime.restart();
            pingOutstanding = true;
            rxAtPing = receivedBytes();
        }
        if (!running.load())
            break;

        if (!updates.empty()) {
            std::map<QString, std::function<void()>> taken;
            taken.swap(updates);
            mutex.unlock();
            {
                Basalt::Guard writeGuard(parent->writeMutex());
                for (auto& entry : taken)
                    entry.second();
            }
            taken.clear();
            mutex.lock();
            continue;
        }

        Item item = std::move(buffer.front());
        buffer.pop_front();
        bufferedSize -= sizeOf(item.parts);
        std::function<void()> wake;
        if (drained && bufferedSize <= drainedBytes)
            wake.swap(drained);
        mutex.unlock();
        // Called before the write, so that the producer's next batch is ready by its end.
        if (wake)
            wake();
        writeItem(item, pingTime);
        item = Item();
        mutex.lock();
    }
    // No caught-up moment will come: let a waiting producer look again.
    std::function<void()> wake;
    wake.swap(drained);
    mutex.unlock();
    if (wake)
        wake();
}

bool WriterThread::writeItem(const Item& item, Basalt::Stopwatch& pingTime) {
    Basalt::Guard writeGuard(parent->writeMutex());
    Basalt::TCPSocket* socket = parent->socket();
    for (const QByteArray& part : item.parts) {
        for (int offset = 0; offset < part.size() && running.load(); offset += ChunkSize) {
            const int chunk = std::min(ChunkSize, part.size() - offset);
            const int written = socket ? socket->write(part.constData() + offset, chunk,
                                                       [this](double stalled) {
                                                           return parent->writeStalled(stalled);
                                                       })
                                       : -1;
            if (written != chunk) {
                Basalt::Trace::debug("WriterThread::childLoop # Write error");
                running.store(false);
                parent->writeFailed();
                if (writeError)
                    writeError();
                return false;
            }
            if (item.key == PingKey)
                pingTime.restart();
            if (dataWritten)
                dataWritten(item.key, chunk);
        }
    }
    return true;
}

} // namespace Dovel
