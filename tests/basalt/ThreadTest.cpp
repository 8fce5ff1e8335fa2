#include "Basalt/Thread.h"
#include "Basalt/Condition.h"
#include "Basalt/Mutex.h"
#include "Basalt/SpinWait.h"

#include "basalt/WaitUtil.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <future>
#include <memory>
#include <thread>

using namespace Basalt;

TEST(Mutex, RecursiveAndPlainLocking) {
    Mutex recursive(true);
    EXPECT_TRUE(recursive.isRecursive());
    recursive.lock();
    EXPECT_TRUE(recursive.tryLock()); // the owner may lock again
    {
        Guard again(recursive);
        EXPECT_FALSE(std::async(std::launch::async, [&] { return recursive.tryLock(); }).get());
    }
    recursive.unlock();
    recursive.unlock();
    EXPECT_TRUE(std::async(std::launch::async, [&] {
                    const bool got = recursive.tryLock();
                    if (got)
                        recursive.unlock();
                    return got;
                }).get());

    Mutex plain;
    EXPECT_FALSE(plain.isRecursive());
    {
        Guard guard(plain);
        EXPECT_FALSE(std::async(std::launch::async, [&] { return plain.tryLock(); }).get());
    }
    EXPECT_TRUE(plain.tryLock());
    plain.unlock();

    // A guard serialises increments from several threads.
    int counter = 0;
    std::vector<std::future<void>> workers;
    for (int t = 0; t < 4; ++t)
        workers.push_back(std::async(std::launch::async, [&] {
            for (int i = 0; i < 10000; ++i) {
                Guard guard(plain);
                ++counter;
            }
        }));
    for (auto& w : workers)
        w.get();
    EXPECT_EQ(counter, 40000);
}

TEST(Condition, TimesOutOrWakes) {
    Mutex mutex;
    Condition condition;
    {
        Guard guard(mutex);
        const auto start = std::chrono::steady_clock::now();
        EXPECT_FALSE(condition.wait(mutex, 30));
        EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(29));
        // The mutex is held again on return.
        EXPECT_FALSE(std::async(std::launch::async, [&] { return mutex.tryLock(); }).get());
    }

    bool ready = false;
    std::atomic<bool> waiting{false};
    auto waiter = std::async(std::launch::async, [&] {
        Guard guard(mutex);
        waiting = true;
        while (!ready) {
            if (!condition.wait(mutex, 60000))
                return false;
        }
        return true;
    });
    ASSERT_TRUE(BasaltTest::waitUntil([&] { return waiting.load(); }));
    {
        Guard guard(mutex);
        ready = true;
        condition.wakeAll(mutex);
    }
    ASSERT_EQ(waiter.wait_for(std::chrono::seconds(5)), std::future_status::ready);
    EXPECT_TRUE(waiter.get());

    // Waking without the mutex held is not lost either.
    ready = false;
    waiting = false;
    auto second = std::async(std::launch::async, [&] {
        Guard guard(mutex);
        waiting = true;
        while (!ready)
            condition.wait(mutex, 60000);
        return true;
    });
    ASSERT_TRUE(BasaltTest::waitUntil([&] { return waiting.load(); }));
    {
        Guard guard(mutex);
        ready = true;
    }
    condition.wakeAll();
    ASSERT_EQ(second.wait_for(std::chrono::seconds(5)), std::future_status::ready);
}

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

// The spin window follows the idle gaps that ended in a park: none after a long one, a
// window again after a short one.
TEST(SpinWait, SpinsOnlyWhileTheGapsAreShort) {
    SpinWait spin;
    int polls = 0;
    EXPECT_TRUE(spin.spin([&] { return ++polls == 1; }));

    EXPECT_FALSE(spin.spin([] { return false; }));
    std::this_thread::sleep_for(std::chrono::milliseconds(2)); // parked, far too long
    spin.woke();
    polls = 0;
    EXPECT_FALSE(spin.spin([&] { return ++polls, false; }));
    EXPECT_EQ(polls, 0); // parks at once

    // A short park brings the window back (retried: the test thread may be preempted
    // between the calls for longer than the window's limit).
    bool polled = false;
    for (int attempt = 0; attempt < 20 && !polled; ++attempt) {
        spin.woke(); // at once after the failed spin: a short gap
        polls = 0;
        spin.spin([&] { return ++polls, false; });
        polled = polls > 0;
    }
    EXPECT_TRUE(polled);
}

TEST(Thread, RunsOnceAndWaitsForTheEnd) {
    GateThread t;
    EXPECT_EQ(t.threadName(), QStringLiteral("GateThread with a long name"));
    EXPECT_FALSE(t.isRunning());
    EXPECT_TRUE(t.waitEnd(0)); // never started
    t.run();
    EXPECT_TRUE(t.isRunning());
    t.run(); // no second thread while running
    ASSERT_TRUE(BasaltTest::waitUntil([&] { return t.runs.load() == 1; }));
    EXPECT_FALSE(t.waitEnd(20));
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
