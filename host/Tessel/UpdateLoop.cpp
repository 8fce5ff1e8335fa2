#include "Tessel/UpdateLoop.h"

#include "Basalt/Condition.h"
#include "Basalt/Mutex.h"
#include "Basalt/Trace.h"

#include <chrono>
#include <deque>
#include <exception>
#include <thread>

namespace Tessel {

namespace {

struct LoopState {
    Basalt::Mutex mutex;
    Basalt::Condition wakeUp;
    std::deque<std::function<void()>> queue;
    bool woken = false;
    std::thread::id updateThread;
};

LoopState& state() {
    // Never destroyed: functions may be posted from static destructors of other units.
    static LoopState* loop = new LoopState;
    return *loop;
}

} // namespace

void UpdateLoop::post(std::function<void()> function) {
    LoopState& loop = state();
    Basalt::Guard guard(loop.mutex);
    loop.queue.push_back(std::move(function));
    if (std::this_thread::get_id() != loop.updateThread) {
        loop.woken = true;
        loop.wakeUp.wakeAll(loop.mutex);
    }
}

int UpdateLoop::runOnce() {
    LoopState& loop = state();
    std::deque<std::function<void()>> batch;
    {
        Basalt::Guard guard(loop.mutex);
        loop.updateThread = std::this_thread::get_id();
        loop.woken = false;
        batch.swap(loop.queue);
    }
    int ran = 0;
    for (auto& function : batch) {
        try {
            ++ran;
            function();
        } catch (const std::exception& e) {
            Basalt::Trace::error("UpdateLoop::runOnce # A queued function threw: %s", e.what());
        } catch (...) {
            Basalt::Trace::error("UpdateLoop::runOnce # A queued function threw");
        }
    }
    return ran;
}

int UpdateLoop::waitAndRun(int timeoutMs) {
    LoopState& loop = state();
    {
        Basalt::Guard guard(loop.mutex);
        loop.updateThread = std::this_thread::get_id();
        const auto deadline =
            std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
        while (!loop.woken) {
            const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
                                  deadline - std::chrono::steady_clock::now())
                                  .count();
            if (left <= 0)
                break;
            loop.wakeUp.wait(loop.mutex, static_cast<unsigned long>(left));
        }
    }
    return runOnce();
}

void UpdateLoop::wake() {
    LoopState& loop = state();
    Basalt::Guard guard(loop.mutex);
    loop.woken = true;
    loop.wakeUp.wakeAll(loop.mutex);
}

int UpdateLoop::pendingCount() {
    LoopState& loop = state();
    Basalt::Guard guard(loop.mutex);
    return int(loop.queue.size());
}

void UpdateLoop::reset() {
    LoopState& loop = state();
    std::deque<std::function<void()>> dropped;
    {
        Basalt::Guard guard(loop.mutex);
        dropped.swap(loop.queue);
        loop.woken = false;
        loop.updateThread = std::thread::id();
    }
    // The functions are destroyed outside the lock: their captures may post.
}

bool UpdateLoop::isUpdateThread() {
    LoopState& loop = state();
    Basalt::Guard guard(loop.mutex);
    return std::this_thread::get_id() == loop.updateThread;
}

} // namespace Tessel
