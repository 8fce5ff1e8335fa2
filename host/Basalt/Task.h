// A unit of background work run by BGThread, and FunctionTask, a task made of a
// function. Tasks are owned by std::shared_ptr; scheduling calls are thread-safe.
//
// Life of a task: initialize() once before its first run; doTask() on a worker each
// time it comes due; after a run, a task that did not reschedule itself during doTask
// is done and finished() runs. cancel() drops a waiting task and runs canceled().
#pragma once

#include <atomic>
#include <functional>
#include <memory>

namespace Basalt {

class BGThread;
struct BGThreadCore;

class Task : public std::enable_shared_from_this<Task> {
public:
    explicit Task(float priority = 0.0f);
    virtual ~Task();
    Task(const Task&) = delete;
    Task& operator=(const Task&) = delete;

    // Queues the task to run as soon as a worker is free: on the pool it already waits
    // or runs in, else on the shared background thread. With wait true, returns only
    // after that run and its finished() (or its cancellation); a worker of the same
    // pool does not wait, as that could starve the pool.
    void runNow(bool wait = false);
    // (Re)schedules the task `seconds` from now (on the same pool as runNow); inside
    // doTask this keeps it alive.
    void scheduleFromNowSecs(double seconds);
    // Drops a waiting run; canceled() follows. A run in progress is not interrupted.
    void cancel();

    float priority() const { return prio; }
    bool isScheduled() const { return scheduled.load(); }
    // True once the task is done (finished or canceled) and not scheduled again.
    bool isDone() const { return done.load(); }

protected:
    virtual void initialize() {}
    virtual void doTask() = 0;
    virtual void finished() {}
    virtual void canceled() {}

private:
    friend class BGThread;
    friend struct BGThreadCore;
    float prio;
    std::atomic<bool> scheduled{false};
    std::atomic<bool> rescheduled{false}; // scheduled again during the current run
    std::atomic<bool> initialized{false};
    std::atomic<bool> done{false};
    std::atomic<uint64_t> generation{0}; // runs started
    uint64_t completedRuns = 0;          // guarded by the pool's mutex
    // The pool the task waits or runs in; guarded by a process-wide lock in BGThread.
    std::weak_ptr<BGThreadCore> home;
};

class FunctionTask : public Task {
public:
    explicit FunctionTask(std::function<void(Task&)> function, float priority = 0.0f);

protected:
    void doTask() override;

private:
    std::function<void(Task&)> function;
};

} // namespace Basalt
