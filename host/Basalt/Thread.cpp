#include "Basalt/Thread.h"

#include "Basalt/Trace.h"

#include <pthread.h>

#include <chrono>
#include <condition_variable>
#include <exception>
#include <mutex>
#include <thread>

namespace Basalt {

// The part of the state that the running thread itself touches. It is shared with
// the thread so that the thread may finish safely even when the object was destroyed
// on that very thread (the destructor then detaches instead of joining).
struct ThreadState {
    std::mutex mutex;
    std::condition_variable ended;
    bool running = false;
    std::thread::id id;
};

struct Thread::Impl {
    std::shared_ptr<ThreadState> state = std::make_shared<ThreadState>();
    std::mutex joinMutex; // one joiner at a time; taken before state->mutex
    std::thread thread;

    // Joins a thread whose body has returned. Never the current thread.
    void reap() {
        std::lock_guard<std::mutex> lock(joinMutex);
        if (thread.joinable() && thread.get_id() != std::this_thread::get_id())
            thread.join();
    }
};

Thread::Thread(const QString& name) : impl(new Impl), name(name) {}

Thread::~Thread() {
    if (isCurrentThread()) {
        // Destroyed by its own thread: joining would wait for ourselves.
        std::lock_guard<std::mutex> lock(impl->joinMutex);
        if (impl->thread.joinable())
            impl->thread.detach();
        return;
    }
    if (isRunning())
        Trace::warning("Thread::~Thread # '%s' still running, waiting for its end",
                       name.toUtf8().constData());
    waitEnd(-1);
}

void Thread::run() {
    std::lock_guard<std::mutex> joinLock(impl->joinMutex);
    std::shared_ptr<ThreadState> state = impl->state;
    {
        std::lock_guard<std::mutex> lock(state->mutex);
        if (state->running)
            return;
    }
    // A previous run has returned from its body; collect it before starting anew.
    if (impl->thread.joinable()) {
        if (impl->thread.get_id() == std::this_thread::get_id())
            impl->thread.detach();
        else
            impl->thread.join();
    }
    std::lock_guard<std::mutex> lock(state->mutex);
    state->running = true;
    const QByteArray shortName = name.toUtf8().left(15); // the kernel's limit
    impl->thread = std::thread([this, state, shortName] {
        {
            // Wait until run() has published the thread id.
            std::lock_guard<std::mutex> started(state->mutex);
        }
        pthread_setname_np(pthread_self(), shortName.constData());
        try {
            childLoop();
        } catch (const std::exception& e) {
            Trace::error("Thread::run # '%s' ended by an exception: %s", shortName.constData(),
                         e.what());
        }
        // From here on `this` may be gone.
        std::lock_guard<std::mutex> done(state->mutex);
        state->running = false;
        state->id = std::thread::id();
        state->ended.notify_all();
    });
    state->id = impl->thread.get_id();
}

bool Thread::isRunning() const {
    std::lock_guard<std::mutex> lock(impl->state->mutex);
    return impl->state->running;
}

bool Thread::waitEnd(int ms) {
    ThreadState& state = *impl->state;
    {
        std::unique_lock<std::mutex> lock(state.mutex);
        if (state.running && state.id == std::this_thread::get_id())
            return false;
        if (ms < 0) {
            state.ended.wait(lock, [&] { return !state.running; });
        } else {
            const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(ms);
            if (!state.ended.wait_until(lock, deadline, [&] { return !state.running; }))
                return false;
        }
    }
    impl->reap();
    return true;
}

bool Thread::isCurrentThread() const {
    std::lock_guard<std::mutex> lock(impl->state->mutex);
    return impl->state->running && impl->state->id == std::this_thread::get_id();
}

} // namespace Basalt
