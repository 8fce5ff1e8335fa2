// Hashes the parts of downloads on a thread of its own, so that the connection's thread
// only reads and writes while the MD5 runs beside it. Parts travel through a fixed ring
// of reusable buffers: acquire() waits while every buffer is queued, so a hash that lags
// holds the reader (and through TCP the sender) back instead of piling up memory. At
// most `slots` parts are held at once, each as large as the largest part read into it.
//
// Threads: one producer thread calls acquire, submit, hashHere and drain; `consume` runs
// on the hasher's thread, or on the producer's in hashHere. Parts are consumed in the
// order they were submitted. The destructor drops what is still queued and joins.
#pragma once

#include "Basalt/Condition.h"
#include "Basalt/Mutex.h"
#include "Basalt/Thread.h"

#include <QByteArray>
#include <QString>

#include <functional>
#include <vector>

namespace Dovel {

class PartHasher : public Basalt::Thread {
public:
    using Consume = std::function<void(const QString& name, const QByteArray& bytes)>;

    PartHasher(int slots, Consume consume);
    ~PartHasher() override;

    // The buffer to read the next part into; waits while every slot is queued. The same
    // buffer until submit() or hashHere() hands it on.
    QByteArray& acquire();
    // Queues the acquired buffer as a part of `name`.
    void submit(const QString& name);
    // Consumes the acquired buffer on this thread when nothing is queued, which saves
    // the hand-over for a part that would be waited for at once; else submits it.
    void hashHere(const QString& name);
    // Waits until every submitted part has been consumed.
    void drain();

    int slotCount() const { return int(ring.size()); }
    // Parts queued or being consumed.
    int queued() const;

protected:
    void childLoop() override;

private:
    struct Slot {
        QString name;
        QByteArray bytes;
    };

    const Consume consume;
    std::vector<Slot> ring;
    mutable Basalt::Mutex mutex;
    Basalt::Condition changed;
    // Guarded by `mutex`: the next slot to consume, and how many are queued from it on
    // in the ring. The producer owns the slot after them; the hasher's thread owns
    // ring[head] while it consumes it.
    int head = 0;
    int count = 0;
    bool stopping = false;
};

} // namespace Dovel
