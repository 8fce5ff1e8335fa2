// Condition variable over a Basalt::Mutex (a non-recursive one). Thread-safe.
#pragma once

#include <memory>

namespace Basalt {

class Mutex;

class Condition {
public:
    Condition();
    ~Condition();
    Condition(const Condition&) = delete;
    Condition& operator=(const Condition&) = delete;

    // Called with `mutex` locked; releases it while waiting, up to `ms` milliseconds,
    // and holds it again on return. False on time-out. Spurious wake-ups return true.
    bool wait(Mutex& mutex, unsigned long ms);
    // Wakes every waiter. The mutex argument documents which lock guards the state;
    // the caller may hold it or not.
    void wakeAll(Mutex& mutex);
    void wakeAll();

private:
    struct Impl;
    std::unique_ptr<Impl> impl;
};

} // namespace Basalt
