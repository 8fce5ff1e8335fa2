// A reader-writer lock for tables that every use holds for a few instructions: one
// atomic word, taken and given back inline. std::shared_mutex calls into pthread for
// each of the several lookups a tree makes per attribute it copies (without any lock a
// large first copy took 8% fewer instructions); here the uncontended path is one atomic
// operation each way.
//
// A thread that finds it taken tries a little longer, then sleeps on a condition that
// an unlocking thread signals only when someone sleeps. A reader waits only while a
// writer holds it, and a writer until no one does: a steady stream of readers can keep
// a writer out, which the tables it guards (written by the tree thread, read seldom
// elsewhere) never make. Not recursive. It meets the standard's Lockable and
// SharedLockable requirements (std::unique_lock, std::shared_lock, std::lock_guard).
//
// Thread-safe. Unlike std::mutex, an unlocking thread still reads the lock after it has
// let go (to wake sleepers): it must not be destroyed while another thread may be in
// unlock(), which owners that outlive the threads using them never do.
#pragma once

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <mutex>

namespace Basalt {

class RwLock {
public:
    RwLock() = default;
    RwLock(const RwLock&) = delete;
    RwLock& operator=(const RwLock&) = delete;

    void lock() {
        if (!try_lock())
            waitFor(true);
    }
    bool try_lock() {
        int32_t free = 0;
        return state.compare_exchange_strong(free, Writer, std::memory_order_seq_cst);
    }
    void unlock() {
        state.store(0, std::memory_order_seq_cst);
        wakeSleepers();
    }

    void lock_shared() {
        if (!try_lock_shared())
            waitFor(false);
    }
    bool try_lock_shared() {
        int32_t readers = state.load(std::memory_order_seq_cst);
        while (readers >= 0)
            if (state.compare_exchange_weak(readers, readers + 1, std::memory_order_seq_cst))
                return true;
        return false;
    }
    void unlock_shared() {
        if (state.fetch_sub(1, std::memory_order_seq_cst) == 1)
            wakeSleepers();
    }

    // The threads asleep on it now, waiting to take it (for tests and diagnostics).
    int sleeping() const { return sleepers.load(std::memory_order_seq_cst); }

private:
    static constexpr int32_t Writer = -1;

    // Whoever sleeps counts itself in `sleepers` before it looks at `state` a last time,
    // and an unlocker changes `state` before it looks at `sleepers` (all sequentially
    // consistent): either the sleeper sees the lock free, or the unlocker sees it and
    // signals, under the mutex the sleeper holds until it waits.
    void wakeSleepers() {
        if (sleepers.load(std::memory_order_seq_cst) > 0)
            wakeSlow();
    }
    void waitFor(bool exclusive);
    void wakeSlow();

    // Readers holding it (> 0), a writer (Writer), or no one (0).
    std::atomic<int32_t> state{0};
    std::atomic<int32_t> sleepers{0};
    std::mutex sleepMutex;
    std::condition_variable woken;
};

} // namespace Basalt
