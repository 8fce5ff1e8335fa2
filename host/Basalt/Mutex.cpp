#include "Basalt/Mutex.h"

#include <mutex>

namespace Basalt {

// Only one of the two is used, as the constructor chose.
struct Mutex::Impl {
    std::mutex plain;
    std::recursive_mutex nested;
};

Mutex::Mutex(bool recursive) : impl(new Impl), recursive(recursive) {}

Mutex::~Mutex() = default;

void Mutex::lock() {
    if (recursive)
        impl->nested.lock();
    else
        impl->plain.lock();
}

void Mutex::unlock() {
    if (recursive)
        impl->nested.unlock();
    else
        impl->plain.unlock();
}

bool Mutex::tryLock() {
    return recursive ? impl->nested.try_lock() : impl->plain.try_lock();
}

} // namespace Basalt
