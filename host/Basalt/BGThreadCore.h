// The shared state of one BGThread pool: its queue and the workers' loop. Internal to
// Basalt (BGThread and Task). Thread-safe; guarded by `mutex`.
//
// Workers and tasks hold it by shared_ptr/weak_ptr, so that a pool destroyed on one of
// its own workers can detach that worker instead of joining it.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>
#include <unordered_set>
#include <vector>

namespace Basalt {

class BGThread;
class Task;

struct BGThreadCore : std::enable_shared_from_this<BGThreadCore> {
    using Clock = std::chrono::steady_clock;

    struct Entry {
        std::shared_ptr<Task> task;
        Clock::time_point due;
        uint64_t arrival;
    };

    // The pool whose worker runs the calling thread, or null.
    static BGThreadCore* current();
    // The queue of a pool.
    static std::shared_ptr<BGThreadCore> of(BGThread& pool);
    // The pool a task belongs to, if any.
    static std::shared_ptr<BGThreadCore> homeOf(Task& task);

    void workerLoop();
    void add(const std::shared_ptr<Task>& task, double delaySeconds);
    void addAndWait(const std::shared_ptr<Task>& task);
    bool cancel(const std::shared_ptr<Task>& task);
    bool waitIdle(int ms);
    // Cancels what waits and tells the workers to end after their current run.
    void shutdown();

    std::mutex mutex;
    std::condition_variable wake;    // workers: the queue changed
    std::condition_variable changed; // waiters: a run ended or a task was dropped
    std::vector<Entry> waiting;
    std::unordered_set<Task*> running;
    uint64_t nextArrival = 0;
    bool stopping = false;

private:
    static void setHome(Task& task, const std::weak_ptr<BGThreadCore>& core);
    // With `mutex` held; false when the pool is shutting down.
    bool addLocked(const std::shared_ptr<Task>& task, double delaySeconds);
    // Drops a waiting entry without callbacks (the task moves to another pool).
    void release(const std::shared_ptr<Task>& task);
    std::vector<Entry>::iterator find(Task* task);
    bool isWaiting(Task* task) { return find(task) != waiting.end(); }
    void runOne(std::unique_lock<std::mutex>& lock, Entry entry);
};

} // namespace Basalt
