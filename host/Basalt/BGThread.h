// The process-wide pool of background worker threads that runs Tasks, now or at a
// time from now; due tasks run by priority (higher first), then in order of arrival.
// Thread-safe.
#pragma once

#include <memory>

namespace Basalt {

class Task;

class BGThread {
public:
    // The shared pool, made on first use with a few workers.
    static std::shared_ptr<BGThread> instance();

    explicit BGThread(int workers);
    ~BGThread(); // cancels waiting tasks and joins the workers
    BGThread(const BGThread&) = delete;
    BGThread& operator=(const BGThread&) = delete;

    // Runs the task `delaySeconds` from now (0: as soon as a worker is free). A task
    // that is already waiting is moved to the new time.
    void add(const std::shared_ptr<Task>& task, double delaySeconds = 0.0);
    // Drops the task if it is waiting; true when it was.
    bool cancel(const std::shared_ptr<Task>& task);
    // Waits up to `ms` milliseconds until no task is waiting or running; true if idle.
    bool waitIdle(int ms);
    // True on one of this pool's worker threads.
    bool isWorkerThread() const;

private:
    struct Impl;
    std::unique_ptr<Impl> impl;
};

} // namespace Basalt
