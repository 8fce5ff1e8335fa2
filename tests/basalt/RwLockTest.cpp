// RwLock: writers exclude everyone, readers share, and a waiter that went to sleep is
// woken when the holder lets go, whichever way each holds it.
#include "WaitUtil.h"

#include "Basalt/RwLock.h"

#include <gtest/gtest.h>

#include <atomic>
#include <mutex>
#include <shared_mutex>
#include <thread>
#include <vector>

using Basalt::RwLock;

TEST(RwLock, WritersExcludeEveryoneAndReadersShare) {
    RwLock lock;
    lock.lock_shared();
    EXPECT_TRUE(lock.try_lock_shared());
    EXPECT_FALSE(lock.try_lock());
    lock.unlock_shared();
    lock.unlock_shared();
    ASSERT_TRUE(lock.try_lock());
    EXPECT_FALSE(lock.try_lock_shared());
    EXPECT_FALSE(lock.try_lock());
    lock.unlock();

    // Two counters that writers move together: a reader never sees them apart, and no
    // increment is lost (the sanitizer builds also see every access ordered).
    struct Case {
        int writers;
        int readers;
    };
    for (const Case c : {Case{2, 0}, Case{1, 3}, Case{3, 3}}) {
        SCOPED_TRACE(testing::Message() << c.writers << " writers, " << c.readers << " readers");
        constexpr int Rounds = 5000;
        long first = 0;
        long second = 0;
        std::atomic<int> writing{c.writers};
        std::atomic<int> torn{0};
        std::vector<std::thread> threads;
        for (int w = 0; w < c.writers; ++w)
            threads.emplace_back([&] {
                for (int i = 0; i < Rounds; ++i) {
                    std::lock_guard<RwLock> guard(lock);
                    ++first;
                    ++second;
                }
                writing.fetch_sub(1);
            });
        for (int r = 0; r < c.readers; ++r)
            threads.emplace_back([&] {
                while (writing.load() > 0) {
                    std::shared_lock<RwLock> guard(lock);
                    torn.fetch_add(first != second);
                }
            });
        for (std::thread& thread : threads)
            thread.join();
        EXPECT_EQ(first, long(c.writers) * Rounds);
        EXPECT_EQ(second, first);
        EXPECT_EQ(torn.load(), 0);
    }
}

TEST(RwLock, ASleepingWaiterWakesWhenTheHolderLetsGo) {
    struct Case {
        bool holderWrites;
        bool waiterWrites;
    };
    for (const Case c : {Case{true, false}, Case{false, true}, Case{true, true}}) {
        SCOPED_TRACE(testing::Message() << (c.holderWrites ? "writer" : "reader") << " holds, "
                                        << (c.waiterWrites ? "writer" : "reader") << " waits");
        RwLock lock;
        c.holderWrites ? lock.lock() : lock.lock_shared();
        std::atomic<pid_t> waiter{0};
        std::atomic<bool> acquired{false};
        std::thread thread([&] {
            waiter.store(BasaltTest::currentTid());
            c.waiterWrites ? lock.lock() : lock.lock_shared();
            acquired.store(true);
            c.waiterWrites ? lock.unlock() : lock.unlock_shared();
        });
        ASSERT_TRUE(BasaltTest::waitUntil([&] { return waiter.load() != 0; }));
        // Past its tries, it sleeps on the condition.
        ASSERT_TRUE(BasaltTest::waitUntilBlocked(waiter.load()));
        EXPECT_FALSE(acquired.load());
        c.holderWrites ? lock.unlock() : lock.unlock_shared();
        EXPECT_TRUE(BasaltTest::waitUntil([&] { return acquired.load(); }));
        thread.join();
    }
}
