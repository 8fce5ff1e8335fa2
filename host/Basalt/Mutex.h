// Mutex and its scope guard. Thread-safe, as locks are.
#pragma once

#include <memory>

namespace Basalt {

class Mutex {
public:
    // recursive: the owning thread may lock again (the controller list needs it);
    // otherwise a plain mutex, which a Condition may wait on.
    explicit Mutex(bool recursive = false);
    ~Mutex();
    Mutex(const Mutex&) = delete;
    Mutex& operator=(const Mutex&) = delete;

    void lock();
    void unlock();
    bool tryLock();
    bool isRecursive() const { return recursive; }

private:
    friend class Condition;
    struct Impl;
    std::unique_ptr<Impl> impl;
    bool recursive;
};

// Locks a mutex for its lifetime.
class Guard {
public:
    explicit Guard(Mutex& mutex) : mutex(mutex) { mutex.lock(); }
    ~Guard() { mutex.unlock(); }
    Guard(const Guard&) = delete;
    Guard& operator=(const Guard&) = delete;

private:
    Mutex& mutex;
};

} // namespace Basalt
