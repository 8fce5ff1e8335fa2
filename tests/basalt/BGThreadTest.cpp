// The background pool: runs by time, priority and arrival; cancel before a run; a
// destructor that cancels what waits and joins what runs.
#include "Basalt/BGThread.h"
#include "Basalt/Task.h"

#include "basalt/WaitUtil.h"

#include <gtest/gtest.h>

#include <QStringList>

#include <atomic>
#include <future>
#include <mutex>
#include <thread>

using namespace Basalt;

namespace {

// Records its life: runs, finished, canceled, in one shared log.
class Probe : public Task {
public:
    Probe(QString name, QStringList& log, std::mutex& mutex, float priority = 0.0f,
          int reschedules = 0)
        : Task(priority), name(std::move(name)), log(log), logMutex(mutex),
          reschedules(reschedules) {}

    std::atomic<int> initialized{0}, runs{0}, finishedCount{0}, canceledCount{0};
    std::atomic<bool> onWorker{false};
    std::shared_ptr<BGThread> pool; // when set, checks that runs stay on it

protected:
    void initialize() override { ++initialized; }
    void doTask() override {
        record(name);
        if (pool)
            onWorker = pool->isWorkerThread();
        if (runs.fetch_add(1) < reschedules)
            scheduleFromNowSecs(0.001);
    }
    void finished() override {
        ++finishedCount;
        record(name + ":finished");
    }
    void canceled() override {
        ++canceledCount;
        record(name + ":canceled");
    }

private:
    void record(const QString& entry) {
        std::lock_guard<std::mutex> lock(logMutex);
        log << entry;
    }
    QString name;
    QStringList& log;
    std::mutex& logMutex;
    int reschedules;
};

// Holds a worker until opened. The task keeps its own copies of the gate's state, so
// it may outlive the Gate object.
struct Gate {
    std::promise<void> opened;
    std::shared_future<void> open = opened.get_future().share();
    std::shared_ptr<std::atomic<bool>> entered = std::make_shared<std::atomic<bool>>(false);
    std::shared_ptr<FunctionTask> task() {
        auto open = this->open;
        auto entered = this->entered;
        return std::make_shared<FunctionTask>(
            [open, entered](Task&) {
                *entered = true;
                open.wait();
            },
            100.0f);
    }
    bool isEntered() const { return entered->load(); }
    void release() {
        if (!released) {
            released = true;
            opened.set_value();
        }
    }
    // A failed assertion must not leave a worker held, or the pool would never join.
    ~Gate() { release(); }

private:
    bool released = false;
};

} // namespace

TEST(BGThread, DueTasksRunByTimeThenPriorityThenArrival) {
    QStringList log;
    std::mutex mutex;
    auto pool = std::make_shared<BGThread>(1);
    auto late = std::make_shared<Probe>("late", log, mutex);
    auto early = std::make_shared<Probe>("early", log, mutex);
    auto middle = std::make_shared<Probe>("middle", log, mutex);
    // Due a third of a second apart, so that a loaded machine's stall between the calls
    // does not reorder them.
    pool->add(late, 0.9);
    pool->add(early, 0.3);
    pool->add(middle, 0.6);
    EXPECT_TRUE(late->isScheduled());
    ASSERT_TRUE(pool->waitIdle(5000));
    EXPECT_EQ(log, QStringList({"early", "early:finished", "middle", "middle:finished", "late",
                                "late:finished"}));

    // With the only worker held, the due tasks queue up and then run by priority.
    log.clear();
    Gate gate;
    pool->add(gate.task());
    ASSERT_TRUE(BasaltTest::waitUntil([&] { return gate.isEntered(); }));
    auto low1 = std::make_shared<Probe>("low1", log, mutex, 0.0f);
    auto high = std::make_shared<Probe>("high", log, mutex, 5.0f);
    auto low2 = std::make_shared<Probe>("low2", log, mutex, 0.0f);
    auto mid = std::make_shared<Probe>("mid", log, mutex, 1.0f);
    for (auto& t : {low1, high, low2, mid})
        pool->add(t);
    gate.release();
    ASSERT_TRUE(pool->waitIdle(5000));
    EXPECT_EQ(log, QStringList({"high", "high:finished", "mid", "mid:finished", "low1",
                                "low1:finished", "low2", "low2:finished"}));
}

TEST(BGThread, CancelDropsAWaitingRun) {
    QStringList log;
    std::mutex mutex;
    auto pool = std::make_shared<BGThread>(1);
    auto probe = std::make_shared<Probe>("later", log, mutex);
    pool->add(probe, 600.0);
    EXPECT_FALSE(pool->waitIdle(0));
    probe->cancel();
    EXPECT_TRUE(pool->waitIdle(5000));
    EXPECT_EQ(probe->canceledCount.load(), 1);
    EXPECT_EQ(probe->runs.load(), 0);
    EXPECT_TRUE(probe->isDone());
    EXPECT_FALSE(probe->isScheduled());
    EXPECT_FALSE(pool->cancel(probe)); // nothing waits any more

    // runNow(true) on a task that is canceled before its run returns.
    Gate gate;
    pool->add(gate.task());
    ASSERT_TRUE(BasaltTest::waitUntil([&] { return gate.isEntered(); }));
    auto blocked = std::make_shared<Probe>("blocked", log, mutex);
    pool->add(blocked, 600.0); // runNow goes to the pool a task is in
    std::atomic<pid_t> waiterTid{0};
    auto waiter = std::async(std::launch::async, [&] {
        waiterTid = BasaltTest::currentTid();
        blocked->runNow(true);
    });
    ASSERT_TRUE(BasaltTest::waitUntil([&] { return waiterTid.load() != 0; }));
    ASSERT_TRUE(BasaltTest::waitUntilBlocked(waiterTid)); // waiting for the run
    EXPECT_TRUE(pool->cancel(blocked));
    ASSERT_EQ(waiter.wait_for(std::chrono::seconds(5)), std::future_status::ready);
    EXPECT_EQ(blocked->runs.load(), 0);
    gate.release();
}

TEST(BGThread, DestructorCancelsWaitingTasksAndJoins) {
    QStringList log;
    std::mutex mutex;
    auto waiting = std::make_shared<Probe>("waiting", log, mutex);
    std::atomic<bool> slowDone{false};
    {
        BGThread pool(2);
        pool.add(waiting, 600.0);
        std::atomic<bool> started{false};
        pool.add(std::make_shared<FunctionTask>([&](Task&) {
            started = true;
            std::this_thread::sleep_for(std::chrono::milliseconds(20));
            slowDone = true;
        }));
        ASSERT_TRUE(BasaltTest::waitUntil([&] { return started.load(); }));
    }
    EXPECT_TRUE(slowDone.load()); // the run in progress was not cut short
    EXPECT_EQ(waiting->canceledCount.load(), 1);
    EXPECT_EQ(waiting->runs.load(), 0);
    EXPECT_TRUE(waiting->isDone());
}
