#include "Dovel/files/PartHasher.h"

#include <algorithm>

namespace Dovel {

namespace {

// Longest single wait; every change wakes the waiters before that.
constexpr unsigned long WaitSliceMs = 1000;

} // namespace

PartHasher::PartHasher(int slots, Consume consume)
    : Basalt::Thread(QStringLiteral("PartHasher")), consume(std::move(consume)),
      ring(size_t(std::max(slots, 1))) {}

PartHasher::~PartHasher() {
    {
        Basalt::Guard guard(mutex);
        stopping = true;
        changed.wakeAll(mutex);
    }
    waitEnd(-1);
}

QByteArray& PartHasher::acquire() {
    Basalt::Guard guard(mutex);
    while (count == int(ring.size()) && !stopping)
        changed.wait(mutex, WaitSliceMs);
    return ring[size_t((head + count) % int(ring.size()))].bytes;
}

void PartHasher::submit(const QString& name) {
    if (!isRunning())
        run();
    Basalt::Guard guard(mutex);
    ring[size_t((head + count) % int(ring.size()))].name = name;
    ++count;
    changed.wakeAll(mutex);
}

void PartHasher::hashHere(const QString& name) {
    bool idle;
    {
        Basalt::Guard guard(mutex);
        idle = count == 0;
    }
    if (!idle) {
        submit(name);
        return;
    }
    // Nothing queued: the acquired slot is ring[head], and the hasher's thread waits.
    consume(name, ring[size_t(head)].bytes);
}

void PartHasher::drain() {
    Basalt::Guard guard(mutex);
    while (count > 0 && !stopping)
        changed.wait(mutex, WaitSliceMs);
}

int PartHasher::queued() const {
    Basalt::Guard guard(mutex);
    return count;
}

void PartHasher::childLoop() {
    Basalt::Guard guard(mutex);
    for (;;) {
        while (count == 0 && !stopping)
            changed.wait(mutex, WaitSliceMs);
        if (stopping)
            return;
        Slot& slot = ring[size_t(head)];
        mutex.unlock();
        consume(slot.name, slot.bytes);
        mutex.lock();
        head = (head + 1) % int(ring.size());
        --count;
        changed.wakeAll(mutex);
    }
}

} // namespace Dovel
