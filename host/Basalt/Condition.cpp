#include "Basalt/Condition.h"

#include "Basalt/Mutex.h"

#include <algorithm>
#include <chrono>
#include <condition_variable>

namespace Basalt {

// condition_variable_any takes its own internal lock before releasing the caller's
// mutex, so a wakeAll() from a thread that does not hold the mutex is never lost
// between the caller's check of its state and the wait.
struct Condition::Impl {
    std::condition_variable_any cv;
};

Condition::Condition() : impl(new Impl) {}

Condition::~Condition() = default;

bool Condition::wait(Mutex& mutex, unsigned long ms) {
    // A year stands for "for ever" and keeps the deadline from overflowing.
    const unsigned long capped = std::min(ms, 365UL * 24 * 3600 * 1000);
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(capped);
    return impl->cv.wait_until(mutex, deadline) == std::cv_status::no_timeout;
}

void Condition::wakeAll(Mutex&) {
    impl->cv.notify_all();
}

void Condition::wakeAll() {
    impl->cv.notify_all();
}

} // namespace Basalt
