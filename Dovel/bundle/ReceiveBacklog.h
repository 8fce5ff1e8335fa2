// The bytes of received batches that wait for the tree thread of one session, so that
// the connection's reading thread can stop reading while the tree thread is behind
// and let TCP slow the peer down, instead of queuing whatever the peer sends.
// Thread-safe: the reading thread charges and waits, the tree thread's tasks release.
#pragma once

#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>

namespace Dovel {

class ReceiveBacklog : public std::enable_shared_from_this<ReceiveBacklog> {
public:
    // What a waiting batch costs beyond its bundles' bytes, charged with them, so that
    // empty batches and header-only bundles cannot pile up for free: its task, and
    // each bundle's own record.
    static constexpr int64_t TaskBytes = 256;
    static constexpr int64_t BundleBytes = 64;
    // The charge of a batch (or piece) of `count` bundles holding `bytes` in all.
    static constexpr int64_t chargeOf(int64_t count, int64_t bytes) {
        return TaskBytes + count * BundleBytes + bytes;
    }

    // Counts `bytes` as waiting until the last copy of the returned handle goes: when
    // the batch has been applied, or dropped with its task.
    std::shared_ptr<void> charge(int64_t bytes);
    int64_t bytes() const;
    // Waits until at most `limit` bytes wait, or `ms` milliseconds have passed; true
    // when at most `limit` bytes wait.
    bool waitAtMost(int64_t limit, int ms) const;

private:
    void release(int64_t bytes);

    mutable std::mutex mutex;
    mutable std::condition_variable released;
    int64_t waiting = 0; // guarded by mutex
};

} // namespace Dovel
