#include "Basalt/RwLock.h"

#include <thread>

namespace Basalt {

namespace {

// Tries before sleeping: a holder keeps the lock for well under a microsecond, so a
// waiter that yields its core a few times mostly finds it free without a sleep.
constexpr int Tries = 64;

} // namespace

void RwLock::waitFor(bool exclusive) {
    const auto take = [this, exclusive] { return exclusive ? try_lock() : try_lock_shared(); };
    for (int i = 0; i < Tries; ++i) {
        if (i >= Tries / 2)
            std::this_thread::yield();
        if (take())
            return;
    }
    std::unique_lock<std::mutex> guard(sleepMutex);
    sleepers.fetch_add(1, std::memory_order_seq_cst);
    while (!take())
        woken.wait(guard);
    sleepers.fetch_sub(1, std::memory_order_seq_cst);
}

void RwLock::wakeSlow() {
    {
        // Taken and let go: a sleeper that counted itself is waiting by now.
        std::lock_guard<std::mutex> guard(sleepMutex);
    }
    woken.notify_all();
}

} // namespace Basalt
