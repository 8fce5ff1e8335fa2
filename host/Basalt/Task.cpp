#include "Basalt/Task.h"

#include "Basalt/BGThread.h"
#include "Basalt/BGThreadCore.h"
#include "Basalt/Trace.h"

namespace Basalt {

namespace {

// The pool a task should go to: the one it is in, else the shared one.
std::shared_ptr<BGThreadCore> poolFor(Task& task, std::shared_ptr<BGThread>& keepAlive) {
    if (std::shared_ptr<BGThreadCore> home = BGThreadCore::homeOf(task))
        return home;
    keepAlive = BGThread::instance();
    return keepAlive ? BGThreadCore::of(*keepAlive) : nullptr;
}

} // namespace

Task::Task(float priority) : prio(priority) {}

Task::~Task() = default;

void Task::runNow(bool wait) {
    const std::shared_ptr<Task> self = weak_from_this().lock();
    if (!self) {
        Trace::error("Task::runNow # Task is not owned by a shared_ptr");
        return;
    }
    std::shared_ptr<BGThread> keepAlive;
    const std::shared_ptr<BGThreadCore> core = poolFor(*this, keepAlive);
    if (!core) {
        Trace::warning("Task::runNow # No background thread (process is exiting)");
        return;
    }
    if (wait && BGThreadCore::current() != core.get()) {
        core->addAndWait(self);
        return;
    }
    if (wait)
        Trace::warning("Task::runNow # Called on a worker of the same pool; not waiting");
    core->add(self, 0.0);
}

void Task::scheduleFromNowSecs(double seconds) {
    const std::shared_ptr<Task> self = weak_from_this().lock();
    if (!self) {
        Trace::error("Task::scheduleFromNowSecs # Task is not owned by a shared_ptr");
        return;
    }
    std::shared_ptr<BGThread> keepAlive;
    const std::shared_ptr<BGThreadCore> core = poolFor(*this, keepAlive);
    if (!core) {
        Trace::warning("Task::scheduleFromNowSecs # No background thread (process is exiting)");
        return;
    }
    core->add(self, seconds);
}

void Task::cancel() {
    const std::shared_ptr<Task> self = weak_from_this().lock();
    if (!self)
        return;
    if (std::shared_ptr<BGThreadCore> core = BGThreadCore::homeOf(*this))
        core->cancel(self);
}

FunctionTask::FunctionTask(std::function<void(Task&)> function, float priority)
    : Task(priority), function(std::move(function)) {}

void FunctionTask::doTask() {
    if (function)
        function(*this);
}

} // namespace Basalt
