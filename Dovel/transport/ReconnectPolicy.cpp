#include "Dovel/transport/ReconnectPolicy.h"

#include <algorithm>
#include <chrono>
#include <utility>

namespace Dovel {

void ReconnectPolicy::requestMove() {
    Basalt::Guard guard(mutex);
    moveNow = true;
    condition.wakeAll(mutex);
}

bool ReconnectPolicy::takeMoveRequest() {
    bool taken = false;
    Basalt::Guard guard(mutex);
    std::swap(taken, moveNow);
    return taken;
}

bool ReconnectPolicy::moveRequested() const {
    Basalt::Guard guard(mutex);
    return moveNow;
}

void ReconnectPolicy::wake() {
    Basalt::Guard guard(mutex);
    condition.wakeAll(mutex);
}

void ReconnectPolicy::pause(const Basalt::Stopwatch& start, const std::function<bool()>& done,
                            const std::function<void(double)>& progress) {
    mutex.lock();
    for (;;) {
        if (done() || moveNow)
            break;
        const double remaining = RetrySeconds - start.elapsedSeconds();
        if (remaining <= 0.0)
            break;
        condition.wait(mutex, static_cast<unsigned long>(std::min(1.0, remaining) * 1000.0) + 1);
        mutex.unlock(); // the hook may call stop() or connectToHost()
        progress(std::max(0.0, RetrySeconds - start.elapsedSeconds()));
        mutex.lock();
    }
    mutex.unlock();
}

bool ReconnectPolicy::sleep(double seconds, const std::function<bool()>& done) {
    if (seconds <= 0.0)
        return !done();
    const auto end = std::chrono::steady_clock::now() +
                     std::chrono::duration_cast<std::chrono::steady_clock::duration>(
                         std::chrono::duration<double>(seconds));
    Basalt::Guard guard(mutex);
    while (!done()) {
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
                              end - std::chrono::steady_clock::now())
                              .count();
        if (left <= 0)
            return true;
        condition.wait(mutex, static_cast<unsigned long>(left) + 1);
    }
    return false;
}

} // namespace Dovel
