// Thread: one run at a time, a wait for the end that refuses to wait for itself, and a
// thread object that deletes itself on its own thread.
#include "Basalt/Thread.h"
#include "Basalt/Condition.h"
#include "Basalt/Mutex.h"

#include "basalt/WaitUtil.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <future>

using namespace Basalt;

namespace {

// Runs until released; counts its runs.
class GateThread : public Thread {
public:
    GateThread() : Thread(QStringLiteral("GateThread with a long name")) {}
    ~GateThread() override {
        open();
        waitEnd(-1);
    }
    void open() {
        Guard guard(mutex);
        released = true;
        condition.wakeAll(mutex);
    }

    std::atomic<int> runs{0};
    std::atomic<bool> sawItself{false};
    std::atomic<bool> selfWaitRefused{false};

protected:
    void childLoop() override {
        ++runs;
        sawItself = isCurrentThread();
        selfWaitRefused = !waitEnd(1000);
        Guard guard(mutex);
        while (!released)
            condition.wait(mutex, 60000);
        released = false;
    }

private:
    Mutex mutex;
    Condition condition;
    bool released = false;
};

} // namespace

TEST(Thread, RunsOnceAndWaitsForTheEnd) {
    GateThread t;
    EXPECT_EQ(t.threadName(), QStringLiteral("GateThread with a long name"));
    EXPECT_FALSE(t.isRunning());
    EXPECT_TRUE(t.waitEnd(0)); // never started
    t.run();
    EXPECT_TRUE(t.isRunning());
    t.run(); // no second thread while running
    ASSERT_TRUE(BasaltTest::waitUntil([&] { return t.runs.load() == 1; }));
    EXPECT_FALSE(t.isCurrentThread());
    t.open();
    EXPECT_TRUE(t.waitEnd(5000));
    EXPECT_FALSE(t.isRunning());
    EXPECT_EQ(t.runs.load(), 1);
    EXPECT_TRUE(t.sawItself.load());
    EXPECT_TRUE(t.selfWaitRefused.load());

    // A thread object can run again after its end.
    t.run();
    ASSERT_TRUE(BasaltTest::waitUntil([&] { return t.runs.load() == 2; }));
    t.open();
    EXPECT_TRUE(t.waitEnd(5000));
}

namespace {

// Deletes itself on its own thread: the base must detach instead of joining itself.
class SelfDeletingThread : public Thread {
public:
    explicit SelfDeletingThread(std::promise<void>& gone)
        : Thread(QStringLiteral("SelfDeleting")), gone(gone) {}
    ~SelfDeletingThread() override { gone.set_value(); }

protected:
    void childLoop() override { delete this; }

private:
    std::promise<void>& gone;
};

} // namespace

TEST(Thread, DestroyedOnItsOwnThread) {
    std::promise<void> gone;
    auto done = gone.get_future();
    (new SelfDeletingThread(gone))->run();
    EXPECT_EQ(done.wait_for(std::chrono::seconds(5)), std::future_status::ready);
}
