#include "Basalt/BGThread.h"

#include "Basalt/BGThreadCore.h"
#include "Basalt/Task.h"
#include "Basalt/Trace.h"

#include <pthread.h>

#include <algorithm>
#include <cmath>
#include <exception>
#include <thread>

namespace Basalt {

namespace {

thread_local BGThreadCore* currentCore = nullptr;

// Guards every Task::home. Never held while another lock is taken.
std::mutex& homeLock() {
    static std::mutex* lock = new std::mutex; // outlives static destruction on purpose
    return *lock;
}

// Longest delay accepted: about 30 years keeps time_point arithmetic far from overflow.
constexpr double kMaxDelaySeconds = 1e9;

} // namespace

void BGThreadCore::setHome(Task& task, const std::weak_ptr<BGThreadCore>& core) {
    std::lock_guard<std::mutex> lock(homeLock());
    task.home = core;
}

BGThreadCore* BGThreadCore::current() {
    return currentCore;
}

std::shared_ptr<BGThreadCore> BGThreadCore::homeOf(Task& task) {
    std::lock_guard<std::mutex> lock(homeLock());
    return task.home.lock();
}

std::vector<BGThreadCore::Entry>::iterator BGThreadCore::find(Task* task) {
    return std::find_if(waiting.begin(), waiting.end(),
                        [task](const Entry& e) { return e.task.get() == task; });
}

bool BGThreadCore::addLocked(const std::shared_ptr<Task>& task, double delaySeconds) {
    if (stopping)
        return false;
    if (!(delaySeconds > 0.0)) // also NaN
        delaySeconds = 0.0;
    delaySeconds = std::min(delaySeconds, kMaxDelaySeconds);
    const Clock::time_point due = Clock::now() + std::chrono::duration_cast<Clock::duration>(
                                                     std::chrono::duration<double>(delaySeconds));
    const auto it = find(task.get());
    if (it != waiting.end()) {
        it->due = due;
        it->arrival = nextArrival++;
    } else {
        waiting.push_back(Entry{task, due, nextArrival++});
    }
    task->scheduled.store(true);
    task->done.store(false);
    if (running.count(task.get()) != 0)
        task->rescheduled.store(true);
    setHome(*task, shared_from_this());
    wake.notify_all();
    return true;
}

void BGThreadCore::release(const std::shared_ptr<Task>& task) {
    std::lock_guard<std::mutex> lock(mutex);
    const auto it = find(task.get());
    if (it != waiting.end())
        waiting.erase(it);
}

void BGThreadCore::add(const std::shared_ptr<Task>& task, double delaySeconds) {
    if (!task)
        return;
    const std::shared_ptr<BGThreadCore> old = homeOf(*task);
    if (old && old.get() != this)
        old->release(task);
    bool accepted;
    {
        std::lock_guard<std::mutex> lock(mutex);
        accepted = addLocked(task, delaySeconds);
    }
    if (!accepted) {
        Trace::debug("BGThread::add # Pool is shutting down, task canceled");
        task->done.store(true);
        task->canceled();
    }
}

void BGThreadCore::addAndWait(const std::shared_ptr<Task>& task) {
    const std::shared_ptr<BGThreadCore> old = homeOf(*task);
    if (old && old.get() != this)
        old->release(task);
    std::unique_lock<std::mutex> lock(mutex);
    // The run we wait for starts after any run in progress, so it is the next start.
    const uint64_t target = task->generation.load() + 1;
    if (!addLocked(task, 0.0)) {
        lock.unlock();
        task->done.store(true);
        task->canceled();
        return;
    }
    Task* raw = task.get();
    changed.wait(lock, [&] {
        return raw->completedRuns >= target || (!isWaiting(raw) && running.count(raw) == 0);
    });
}

bool BGThreadCore::cancel(const std::shared_ptr<Task>& task) {
    if (!task)
        return false;
    {
        std::lock_guard<std::mutex> lock(mutex);
        const auto it = find(task.get());
        if (it == waiting.end())
            return false;
        waiting.erase(it);
        task->scheduled.store(false);
        if (running.count(task.get()) == 0) {
            task->done.store(true);
            setHome(*task, {});
        }
        changed.notify_all();
    }
    task->canceled();
    return true;
}

bool BGThreadCore::waitIdle(int ms) {
    std::unique_lock<std::mutex> lock(mutex);
    const auto idle = [this] { return waiting.empty() && running.empty(); };
    if (ms < 0) {
        changed.wait(lock, idle);
        return true;
    }
    return changed.wait_for(lock, std::chrono::milliseconds(ms), idle);
}

namespace {

bool runsBefore(const BGThreadCore::Entry& a, const BGThreadCore::Entry& b) {
    if (a.task->priority() != b.task->priority())
        return a.task->priority() > b.task->priority();
    if (a.due != b.due)
        return a.due < b.due;
    return a.arrival < b.arrival;
}

} // namespace

void BGThreadCore::workerLoop() {
    currentCore = this;
    std::unique_lock<std::mutex> lock(mutex);
    while (!stopping) {
        // The due task with the highest priority, then the earliest due time, then the
        // earliest arrival; a task never runs on two workers at once.
        const Clock::time_point now = Clock::now();
        auto best = waiting.end();
        Clock::time_point earliest = Clock::time_point::max();
        for (auto it = waiting.begin(); it != waiting.end(); ++it) {
            if (running.count(it->task.get()) != 0)
                continue;
            if (it->due > now) {
                earliest = std::min(earliest, it->due);
                continue;
            }
            if (best == waiting.end() || runsBefore(*it, *best))
                best = it;
        }
        if (best == waiting.end()) {
            if (earliest == Clock::time_point::max())
                wake.wait(lock);
            else
                wake.wait_until(lock, earliest);
            continue;
        }
        Entry entry = std::move(*best);
        waiting.erase(best);
        runOne(lock, std::move(entry));
    }
    currentCore = nullptr;
}

void BGThreadCore::runOne(std::unique_lock<std::mutex>& lock, Entry entry) {
    Task& task = *entry.task;
    running.insert(&task);
    task.scheduled.store(false);
    task.rescheduled.store(false);
    task.generation.fetch_add(1);
    lock.unlock();

    if (!task.initialized.exchange(true))
        task.initialize();
    try {
        task.doTask();
    } catch (const std::exception& e) {
        Trace::error("BGThreadCore::runOne # Task ended by an exception: %s", e.what());
    } catch (...) {
        Trace::error("BGThreadCore::runOne # Task ended by an unknown exception");
    }

    lock.lock();
    // Rescheduled during the run: it waits again and is not finished. Rescheduled and
    // then canceled: canceled() already told it.
    const bool pending = isWaiting(&task);
    const bool callFinished = !pending && !task.rescheduled.load();
    if (!pending) {
        task.done.store(true);
        setHome(task, {});
    }
    lock.unlock();
    if (callFinished)
        task.finished();
    lock.lock();
    running.erase(&task);
    ++task.completedRuns;
    changed.notify_all();
    wake.notify_all(); // its next run, if any, may have been skipped while it ran
    lock.unlock();
    entry.task.reset(); // a last reference may run the task's destructor: no lock held
    lock.lock();
}

void BGThreadCore::shutdown() {
    std::vector<Entry> dropped;
    {
        std::lock_guard<std::mutex> lock(mutex);
        stopping = true;
        dropped.swap(waiting);
        for (Entry& e : dropped) {
            e.task->scheduled.store(false);
            if (running.count(e.task.get()) == 0) {
                e.task->done.store(true);
                setHome(*e.task, {});
            }
        }
        wake.notify_all();
        changed.notify_all();
    }
    for (Entry& e : dropped)
        e.task->canceled();
}

struct BGThread::Impl {
    std::shared_ptr<BGThreadCore> core = std::make_shared<BGThreadCore>();
    std::vector<std::thread> workers;
};

BGThread::BGThread(int workers) : impl(new Impl) {
    const int count = std::max(1, workers);
    for (int i = 0; i < count; ++i) {
        std::shared_ptr<BGThreadCore> core = impl->core;
        impl->workers.emplace_back([core, i] {
            const QByteArray name = "BGThread-" + QByteArray::number(i);
            pthread_setname_np(pthread_self(), name.constData());
            core->workerLoop();
        });
    }
}

BGThread::~BGThread() {
    impl->core->shutdown();
    for (std::thread& worker : impl->workers) {
        // Destroyed by one of its own tasks: that worker ends by itself.
        if (worker.get_id() == std::this_thread::get_id())
            worker.detach();
        else
            worker.join();
    }
}

void BGThread::add(const std::shared_ptr<Task>& task, double delaySeconds) {
    impl->core->add(task, delaySeconds);
}

bool BGThread::cancel(const std::shared_ptr<Task>& task) {
    return impl->core->cancel(task);
}

bool BGThread::waitIdle(int ms) {
    return impl->core->waitIdle(ms);
}

std::shared_ptr<BGThreadCore> BGThreadCore::of(BGThread& pool) {
    return pool.impl->core;
}

bool BGThread::isWorkerThread() const {
    return currentCore == impl->core.get();
}

namespace {

// The shared pool. The holder itself is never destroyed (instance() may be called
// from any static destructor); the pool is shut down by the reaper at exit.
struct SharedPool {
    std::mutex mutex;
    std::shared_ptr<BGThread> pool;
    bool ended = false;
};

SharedPool& sharedPool() {
    static SharedPool* holder = new SharedPool;
    return *holder;
}

struct SharedPoolReaper {
    ~SharedPoolReaper() {
        std::shared_ptr<BGThread> pool;
        {
            SharedPool& shared = sharedPool();
            std::lock_guard<std::mutex> lock(shared.mutex);
            shared.ended = true;
            pool.swap(shared.pool);
        }
        pool.reset(); // joins the workers unless a task still holds the pool
    }
};

} // namespace

std::shared_ptr<BGThread> BGThread::instance() {
    static SharedPoolReaper reaper;
    SharedPool& shared = sharedPool();
    std::lock_guard<std::mutex> lock(shared.mutex);
    if (shared.ended)
        return nullptr;
    if (!shared.pool)
        shared.pool = std::make_shared<BGThread>(4);
    return shared.pool;
}

} // namespace Basalt
