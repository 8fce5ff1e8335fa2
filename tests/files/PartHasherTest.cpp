// The hashing ring between the connection's thread and the MD5: bounded while the hash
// lags, in order, and drained before a download ends.
#include "files/FilesTestUtil.h"

#include "Dovel/files/PartHasher.h"

#include <atomic>
#include <condition_variable>
#include <mutex>
#include <thread>

namespace {

using namespace FilesTest;
using BasaltTest::currentTid;
using BasaltTest::waitUntilBlocked;

// A consumer that records what it gets and can be held still.
struct HeldConsumer {
    std::mutex mutex;
    std::condition_variable released;
    bool open = false;
    QStringList seen;
    std::atomic<int> consumed{0};

    void consume(const QString& name, const QByteArray& bytes) {
        std::unique_lock<std::mutex> lock(mutex);
        released.wait(lock, [this] { return open; });
        seen.append(name + ':' + QString::number(qChecksum(bytes.constData(), uint(bytes.size()))));
        consumed.fetch_add(1);
    }
    void release() {
        std::lock_guard<std::mutex> lock(mutex);
        open = true;
        released.notify_all();
    }
};

TEST(PartHasher, AStalledHashHoldsTheReaderAtTheRingAndKeepsTheOrder) {
    HeldConsumer consumer;
    Dovel::PartHasher hasher(
        4, [&](const QString& name, const QByteArray& bytes) { consumer.consume(name, bytes); });
    constexpr int Parts = 20;
    std::atomic<int> submitted{0};
    std::atomic<pid_t> producerTid{0};
    QStringList expected;
    for (int i = 0; i < Parts; ++i)
        expected.append(
            QStringLiteral("/p%1:").arg(i) +
            QString::number(qChecksum(patternBytes(1000 + i, i).constData(), uint(1000 + i))));

    std::thread producer([&] {
        producerTid.store(currentTid());
        for (int i = 0; i < Parts; ++i) {
            QByteArray& buffer = hasher.acquire();
            buffer = patternBytes(1000 + i, i);
            hasher.submit(QStringLiteral("/p%1").arg(i));
            submitted.fetch_add(1);
        }
        hasher.drain();
    });

    // The consumer holds the first part; the reader fills the ring and then waits.
    ASSERT_TRUE(waitUntil([&] { return submitted.load() == hasher.slotCount(); }));
    ASSERT_TRUE(waitUntilBlocked(producerTid.load()));
    EXPECT_EQ(submitted.load(), hasher.slotCount());
    EXPECT_EQ(hasher.queued(), hasher.slotCount());
    EXPECT_EQ(consumer.consumed.load(), 0);

    consumer.release();
    producer.join(); // drain() returned: everything was consumed
    EXPECT_EQ(consumer.consumed.load(), Parts);
    EXPECT_EQ(hasher.queued(), 0);
    EXPECT_EQ(consumer.seen, expected);
}

TEST(PartHasher, AnIdleHasherConsumesOnTheCallersThread) {
    std::atomic<pid_t> consumedOn{0};
    Dovel::PartHasher hasher(
        2, [&](const QString&, const QByteArray&) { consumedOn.store(currentTid()); });
    hasher.acquire() = "last part";
    hasher.hashHere("/x");
    EXPECT_EQ(consumedOn.load(), currentTid());
    hasher.acquire() = "a part";
    hasher.submit("/y");
    hasher.drain();
    EXPECT_NE(consumedOn.load(), currentTid());
}

} // namespace
