// The process-wide pool of background worker threads that runs Tasks, now or at a
// time from now; due tasks run by priority (higher first), then in the order they came
// due (then of arrival). A task never runs on two workers at once. Thread-safe.
#pragma once

#include <memory>

namespace Basalt {

class Task;
struct BGThreadCore;

class BGThread {
public:
    // The shared pool, made on first use with a few workers. It lives until the
    // process exits, where it cancels waiting tasks and joins its workers; after that
    // (from later static destructors) this returns null.
    static std::shared_ptr<BGThread> instance();

    explicit BGThread(int workers);
    ~BGThread(); // cancels waiting tasks and joins the workers
    BGThread(const BGThread&) = delete;
    BGThread& operator=(const BGThread&) = delete;

    // Runs the task `delaySeconds` from now (0: as soon as a worker is free). A task
    // that is already waiting is moved to the new time (and from another pool to this
    // one). A task added while the pool shuts down is canceled.
    void add(const std::shared_ptr<Task>& task, double delaySeconds = 0.0);
    // Drops the task if it is waiting; true when it was.
    bool cancel(const std::shared_ptr<Task>& task);
    // Waits up to `ms` milliseconds until no task is waiting or running; true if idle.
    bool waitIdle(int ms);
    // True on one of this pool's worker threads.
    bool isWorkerThread() const;

private:
    friend struct BGThreadCore;
    struct Impl;
    std::unique_ptr<Impl> impl;
};

} // namespace Basalt
