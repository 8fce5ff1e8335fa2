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
