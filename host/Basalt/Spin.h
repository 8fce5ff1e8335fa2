// A bounded busy wait for hand-overs between threads that usually take microseconds
// (a reply, the next batch): cheaper than sleeping on a condition and being woken when
// the wait is short. The core is yielded between checks, so that a thread with real
// work runs first.
//
// Thread-safe; `ready` must be safe to call without the caller's locks (an atomic read).
#pragma once

#include <chrono>
#include <thread>

namespace Basalt {

// True as soon as `ready()` holds; false when `micros` microseconds passed without it.
template <typename Ready> bool spinFor(Ready ready, int micros) {
    const auto end = std::chrono::steady_clock::now() + std::chrono::microseconds(micros);
    do {
        if (ready())
            return true;
        std::this_thread::yield();
    } while (std::chrono::steady_clock::now() < end);
    return ready();
}

} // namespace Basalt
