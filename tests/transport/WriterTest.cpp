// The writer thread over a real socket: a write error ends the writer and keeps what still
// waits, and a peer that never reads is disconnected.
#include "TransportTestUtil.h"

#include <atomic>

using namespace TransportTest;

TEST(Writer, ShortWriteEndsTheWriterWithAnError) {
    // A connection around one end of a real socket pair, whose own thread never runs:
    // only its writer is started.
    RawListener listener;
    auto socket = std::make_unique<Basalt::TCPSocket>();
    ASSERT_EQ(socket->open("127.0.0.1", listener.port()), 0);
    std::unique_ptr<RawPeer> peer = listener.accept();
    ASSERT_TRUE(peer);
    auto connection = std::make_shared<Dovel::ConnectionThread>(socket.release(), true);
    Dovel::WriterThread& writer = *connection->writerThread();
    std::atomic<int> chunks{0}, errors{0}; // reported from the writer's thread
    writer.onDataWritten([&](const QByteArray&, int) { ++chunks; });
    writer.onWriteError([&] { ++errors; });
    writer.start();
    writer.writeData(QByteArray("0\n"), "warm-up"); // the writer is in its loop
    ASSERT_TRUE(waitUntil([&] { return chunks.load() == 1; }));
    const int64_t before = writer.bufferedDataSize();
    peer.reset(); // the far end is gone

    connection->writeBufferData(QByteArray(1 << 22, 'x'), "lost");
    connection->writeBufferData(QByteArray(100, 'y'), "kept");
    ASSERT_TRUE(waitUntil([&] { return errors.load() == 1; }));
    EXPECT_LT(chunks.load(), 1 + (1 << 22) / Dovel::WriterThread::ChunkSize);
    EXPECT_TRUE(writer.waitEnd(30000));
    EXPECT_FALSE(writer.isActive());
    // What was still waiting stays buffered and counted.
    EXPECT_EQ(writer.bufferedDataSize(), before + 100);
}

TEST(Writer, APeerSilentPastTheSilenceLimitIsDisconnectedPingsOrNot) {
    // The peer logged in but never answered "ping initialized": without a limit of
    // silence nothing would time it out.
    LoggedIn logged;
    ASSERT_TRUE(logged.start());
    EXPECT_FALSE(logged.accepted->isPingSupported());
    logged.accepted->writerThread()->setSilenceLimitSeconds(0.5);
    EXPECT_TRUE(
        waitUntil([&] { return hooks(logged.accepted).disconnectedCount.load() == 1; }, 30000));
    EXPECT_TRUE(logged.peer->waitClosed(30000));
}

TEST(Writer, APeerThatNeverReadsIsDisconnectedAfterTheTimeOut) {
    LoggedIn logged;
    ASSERT_TRUE(logged.start());
    logged.accepted->setTimeoutSeconds(1.0); // not before: a slow login must not end it
    // More than the sockets hold: the write blocks until the peer reads, which it never
    // does, nor sends anything.
    logged.accepted->writeBufferData(QByteArray(64 << 20, 'x'), "big");
    EXPECT_TRUE(
        waitUntil([&] { return hooks(logged.accepted).disconnectedCount.load() == 1; }, 30000));
    EXPECT_TRUE(logged.peer->waitClosed(30000));
}
