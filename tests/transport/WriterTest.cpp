// The writer thread: order of updates and items, coalescing by key, chunked writes with
// their progress reports, the idle ping, write errors, a peer that never reads and the
// producer called once the queue drains, all over a real socket.
#include "TransportTestUtil.h"

#include <atomic>

using namespace TransportTest;

namespace {

// Records what the writer reports, from the writer's thread.
struct EventLog {
    mutable Basalt::Mutex mutex;
    QList<QPair<QByteArray, int>> chunks; // the key and size of each chunk written
    int errors = 0;

    void attach(Dovel::WriterThread& writer, bool errorsToo = true) {
        writer.onDataWritten([this](const QByteArray& key, int bytes) {
            Basalt::Guard guard(mutex);
            chunks.append({key, bytes});
        });
        if (errorsToo)
            writer.onWriteError([this] {
                Basalt::Guard guard(mutex);
                ++errors;
            });
    }
    int size() const {
        Basalt::Guard guard(mutex);
        return chunks.size();
    }
    int errorCount() const {
        Basalt::Guard guard(mutex);
        return errors;
    }
    // The key of each chunk written.
    QList<QByteArray> keys() const {
        Basalt::Guard guard(mutex);
        QList<QByteArray> out;
        for (const auto& chunk : chunks)
            out.append(chunk.first);
        return out;
    }
};

// A connection around one end of a real socket pair, whose own thread never runs: only
// its writer is started, and the test reads the other end.
struct Rig {
    RawListener listener;
    std::shared_ptr<Dovel::ConnectionThread> connection;
    std::unique_ptr<RawPeer> peer;

    bool open() {
        auto socket = std::make_unique<Basalt::TCPSocket>();
        if (socket->open("127.0.0.1", listener.port()) != 0)
            return false;
        peer = listener.accept();
        connection = std::make_shared<Dovel::ConnectionThread>(socket.release(), true);
        return peer != nullptr;
    }
    Dovel::WriterThread& writer() { return *connection->writerThread(); }
};

} // namespace

TEST(Writer, UpdatesReplaceEachOtherByNameAndGoBeforeBufferedItems) {
    EventLog events;
    Rig rig;
    ASSERT_TRUE(rig.open());
    events.attach(rig.writer());
    rig.writer().start();
    rig.writer().writeData(QByteArray("0\n"), "warm-up");
    ASSERT_TRUE(waitUntil([&] { return events.size() == 1; }));

    Dovel::ConnectionThread* c = rig.connection.get();
    const int64_t idle = rig.writer().bufferedDataSize();
    c->writeMutex().lock();
    rig.writer().writeData(QByteArray("A\n"), QByteArray());
    // The writer took A and now waits for the write mutex.
    ASSERT_TRUE(waitUntil([&] { return rig.writer().bufferedDataSize() == idle; }));
    rig.writer().writeData(QByteArray("B\n"), QByteArray());
    rig.writer().update("u", [c] { c->writeData("U1\n", 3); });
    rig.writer().update("u", [c] { c->writeData("U2\n", 3); });
    rig.writer().update("t", [c] { c->writeData("T\n", 2); });
    c->writeMutex().unlock();

    // A was already taken; then the updates in name order, the newest per name; then B.
    EXPECT_EQ(rig.peer->readExact(11), QByteArray("0\nA\nT\nU2\nB\n"));
    EXPECT_TRUE(rig.peer->quietFor(50));
}

TEST(Writer, RemoveFromBufferDropsEveryItemOfTheKey) {
    Rig rig;
    ASSERT_TRUE(rig.open());
    Dovel::WriterThread& writer = rig.writer();
    writer.writeData(QByteArray("1111"), "a");
    writer.writeData(QList<QByteArray>{"22", "333"}, "b");
    writer.writeData(QByteArray("44444"), "a");
    EXPECT_EQ(writer.bufferedDataSize(), 14);

    writer.removeFromBuffer("zz");
    writer.removeFromBuffer(QByteArray());
    EXPECT_EQ(writer.bufferedDataSize(), 14);
    writer.removeFromBuffer("a");
    EXPECT_EQ(writer.bufferedDataSize(), 5);

    writer.start();
    EXPECT_EQ(rig.peer->readExact(5), QByteArray("22333"));
    EXPECT_TRUE(rig.peer->quietFor(50));
    // Items kept across a start are no longer counted, so taking them goes below zero.
    EXPECT_EQ(writer.bufferedDataSize(), -5);
}

TEST(Writer, LargePartIsWrittenInChunksWithProgressReports) {
    EventLog events;
    Rig rig;
    ASSERT_TRUE(rig.open());
    events.attach(rig.writer());
    rig.writer().start();

    QByteArray big(40000, '\0');
    for (int i = 0; i < big.size(); ++i)
        big[i] = static_cast<char>(i * 7);
    rig.connection->writeBufferData(big, "big");
    EXPECT_EQ(rig.peer->readExact(40000), big);
    ASSERT_TRUE(waitUntil([&] { return events.size() == 3; }));

    Basalt::Guard guard(events.mutex);
    using Chunk = QPair<QByteArray, int>;
    EXPECT_EQ(events.chunks, (QList<Chunk>{{"big", 16384}, {"big", 16384}, {"big", 7232}}));
}

TEST(Writer, ShortWriteEndsTheWriterWithAnError) {
    EventLog events;
    Rig rig;
    ASSERT_TRUE(rig.open());
    events.attach(rig.writer());
    rig.writer().start();
    rig.writer().writeData(QByteArray("0\n"), "warm-up"); // the writer is in its loop
    ASSERT_TRUE(waitUntil([&] { return events.size() == 1; }));
    const int64_t before = rig.writer().bufferedDataSize();
    rig.peer.reset(); // the far end is gone

    rig.connection->writeBufferData(QByteArray(1 << 22, 'x'), "lost");
    rig.connection->writeBufferData(QByteArray(100, 'y'), "kept");
    ASSERT_TRUE(waitUntil([&] { return events.errorCount() == 1; }));
    EXPECT_LT(events.size(), 1 + (1 << 22) / Dovel::WriterThread::ChunkSize);
    EXPECT_TRUE(rig.writer().waitEnd(2000));
    EXPECT_FALSE(rig.writer().isActive());
    // What was still waiting stays buffered and counted.
    EXPECT_EQ(rig.writer().bufferedDataSize(), before + 100);
}

TEST(Writer, APeerThatNeverReadsIsDisconnectedAfterTheTimeOut) {
    LoggedIn logged;
    logged.server.timeout.store(1.0);
    ASSERT_TRUE(logged.start());
    // More than the sockets hold: the write blocks until the peer reads, which it never
    // does, nor sends anything.
    logged.accepted->writeBufferData(QByteArray(64 << 20, 'x'), "big");
    EXPECT_TRUE(
        waitUntil([&] { return hooks(logged.accepted).disconnectedCount.load() == 1; }, 30000));
    EXPECT_TRUE(logged.peer->waitClosed(30000));
}

TEST(Writer, PingGoesOutOnlyWhileIdle) {
    EventLog events;
    RawListener listener;
    auto client = makeTestConnection(nullptr, false);
    client->writerThread()->setPingIntervalSeconds(0.3);
    client->setTimeoutSeconds(30.0);
    events.attach(*client->writerThread(), false); // the client's own thread runs
    client->connectToHost(QStringLiteral("127.0.0.1"), listener.port());
    auto peer = listener.accept();
    ASSERT_TRUE(peer);
    ASSERT_TRUE(serveLogin(*peer, "Heliotrope 2.6.1", true));
    ASSERT_EQ(peer->readLine(), QByteArray("ping initialized"));
    peer->send("pong initialized\n");
    ASSERT_TRUE(waitUntil([&] { return client->isPingSupported(); }));

    // Busy for longer than the ping interval: items wait, and no ping cuts in.
    client->writeMutex().lock();
    client->writeBufferData("A\n", "a");
    client->writeBufferData("B\n", "b");
    ASSERT_TRUE(waitUntil([&] { return client->lastPacketTimestamp().sinceSecondsD() > 0.7; }));
    client->writeMutex().unlock();

    QByteArray line = peer->readLine();
    while (line == "ping") // an idle ping may have gone out before A was queued
        line = peer->readLine();
    EXPECT_EQ(line, QByteArray("A"));
    EXPECT_EQ(peer->readLine(), QByteArray("B"));
    // Idle again, and silent for longer than the interval: now the ping goes.
    EXPECT_EQ(peer->readLine(2000), QByteArray("ping"));
    // The event follows the write, so it may come after the peer read the line.
    ASSERT_TRUE(waitUntil([&] { return events.keys().endsWith("ping"); }));
    const QList<QByteArray> keys = events.keys();
    const int a = keys.indexOf("a");
    ASSERT_GE(a, 0);
    EXPECT_EQ(keys.mid(a), (QList<QByteArray>{"a", "b", "ping"}));

    client->stop();
    EXPECT_TRUE(client->waitEnd(2000));
}

TEST(Writer, CallsAnArmedProducerOnceTheQueueHasDrainedToItsMark) {
    Rig rig;
    ASSERT_TRUE(rig.open());
    Dovel::WriterThread& writer = rig.writer();
    writer.start();
    // More than the socket's buffers hold: the writer stays inside this item until the
    // peer reads, and what comes after waits in the queue.
    const int big = 32 << 20;
    writer.writeData(QByteArray(big, 'x'), "big");
    ASSERT_TRUE(waitUntil([&] { return writer.bufferedDataSize() == 0; }));
    for (char c : {'a', 'b', 'c'})
        writer.writeData(QByteArray(100, c), QByteArray(1, c));

    std::atomic<int> replaced{0}, calls{0};
    EXPECT_FALSE(writer.callWhenDrained(300, [&] { ++replaced; })); // no more than that waits
    EXPECT_TRUE(writer.callWhenDrained(150, [&] { ++replaced; }));
    EXPECT_TRUE(writer.callWhenDrained(150, [&] { ++calls; }));
    EXPECT_EQ(calls.load(), 0); // nothing can drain while the peer does not read

    const QByteArray all = rig.peer->readExact(big + 300, 20000);
    ASSERT_EQ(all.size(), big + 300);
    EXPECT_EQ(all.right(300), QByteArray(100, 'a') + QByteArray(100, 'b') + QByteArray(100, 'c'));
    ASSERT_TRUE(waitUntil([&] { return calls.load() == 1; }));
    writer.writeData(QByteArray("d"), "d");
    EXPECT_EQ(rig.peer->readExact(1), QByteArray("d"));
    EXPECT_EQ(calls.load(), 1); // once per arming
    EXPECT_EQ(replaced.load(), 0);
}
