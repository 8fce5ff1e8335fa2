// RwLock: writers exclude everyone, readers share, and a waiter that went to sleep is
// woken when the last holder lets go, whichever way each holds it.
#include "WaitUtil.h"

#include "Basalt/ListenerTable.h"
#include "Basalt/RwLock.h"

#include <gtest/gtest.h>

#include <atomic>
#include <memory>
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

TEST(RwLock, ASleepingWaiterWakesWhenTheLastHolderLetsGo) {
    struct Case {
        int readers; // holding it shared; none: a writer holds it
        bool waiterWrites;
    };
    for (const Case c : {Case{0, false}, Case{0, true}, Case{1, true}, Case{2, true}}) {
        SCOPED_TRACE(testing::Message() << (c.readers ? c.readers : 1)
                                        << (c.readers ? " readers hold, " : " writer holds, ")
                                        << (c.waiterWrites ? "a writer" : "a reader") << " waits");
        // Shared with the waiter, which is left behind rather than joined should it
        // never wake.
        struct Shared {
            RwLock lock;
            std::atomic<bool> acquired{false};
        };
        const auto shared = std::make_shared<Shared>();
        RwLock& lock = shared->lock;
        for (int r = 0; r < c.readers; ++r)
            lock.lock_shared();
        if (c.readers == 0)
            lock.lock();
        std::thread waiter([shared, writes = c.waiterWrites] {
            writes ? shared->lock.lock() : shared->lock.lock_shared();
            shared->acquired.store(true);
            writes ? shared->lock.unlock() : shared->lock.unlock_shared();
        });
        const bool slept = BasaltTest::waitUntil([&] { return lock.sleeping() == 1; });
        EXPECT_TRUE(slept);
        for (int r = 1; r < c.readers; ++r) {
            lock.unlock_shared(); // a reader still holds it: the waiter sleeps on
            EXPECT_FALSE(shared->acquired.load());
            EXPECT_EQ(lock.sleeping(), slept ? 1 : 0);
        }
        c.readers == 0 ? lock.unlock() : lock.unlock_shared();
        if (!BasaltTest::waitUntil([&] { return shared->acquired.load(); })) {
            waiter.detach();
            FAIL() << "the waiter was never woken";
        }
        waiter.join();
        EXPECT_EQ(lock.sleeping(), 0);
    }
}

TEST(ListenerTable, ACallbackThatGoesMayRemoveCallbacksAsItGoes) {
    Basalt::ListenerTable<int> table;
    int calls = 0;
    const long other = table.add([&](int) { ++calls; });
    // What the second callback holds removes the first when it goes, as an application's
    // subscription handle would: the table must not hold its lock then.
    struct RemovesOnDrop {
        RemovesOnDrop(Basalt::ListenerTable<int>& table, long id) : table(table), id(id) {}
        ~RemovesOnDrop() { table.remove(id); }
        Basalt::ListenerTable<int>& table;
        const long id;
    };
    auto handle = std::make_shared<RemovesOnDrop>(table, other);
    const long holder = table.add([handle](int) {});
    handle.reset();
    table.remove(holder);
    table.call(1);
    EXPECT_EQ(calls, 0);
}
