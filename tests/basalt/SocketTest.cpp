// Sockets over loopback: a peer that leaves, and close() from
// another thread ending a blocked read, a wait for input or a wait for a connection.
#include "Basalt/TCPServerSocket.h"
#include "Basalt/TCPSocket.h"

#include "basalt/WaitUtil.h"

#include <gtest/gtest.h>

#include <atomic>
#include <future>
#include <memory>
#include <thread>

using Basalt::TCPServerSocket;
using Basalt::TCPSocket;

namespace {

// A connected pair on loopback through a server on an ephemeral port.
struct Pair {
    TCPServerSocket server;
    TCPSocket client;
    std::unique_ptr<TCPSocket> accepted;

    void connect() {
        ASSERT_EQ(server.open("127.0.0.1", 0, 4), 0);
        ASSERT_GT(server.port(), 0);
        ASSERT_EQ(client.open("127.0.0.1", server.port()), 0);
        ASSERT_TRUE(server.isPendingConnection(5000));
        accepted.reset(server.accept());
        ASSERT_TRUE(accepted);
    }
};

} // namespace

TEST(TCPSocket, PeerCloseEndsTheStreamWithoutSigpipe) {
    Pair p;
    p.connect();
    EXPECT_EQ(p.client.write("xyz", 3), 3);
    p.client.close();
    char buffer[8];
    // The bytes sent before the close arrive; then a short waitAll read and the end.
    EXPECT_EQ(p.accepted->read(buffer, 8, true), 3);
    EXPECT_EQ(p.accepted->read(buffer, 8, false), 0);
    EXPECT_TRUE(p.accepted->isHungUp());

    // Writing into a connection the peer has left fails instead of killing us.
    int written = 0;
    const QByteArray chunk(65536, 'q');
    for (int i = 0; i < 1000; ++i) {
        written = p.accepted->write(chunk.constData(), chunk.size());
        if (written < chunk.size())
            break;
    }
    EXPECT_LT(written, chunk.size());
}

TEST(TCPSocket, CloseFromAnotherThreadUnblocksAReader) {
    Pair p;
    p.connect();
    std::atomic<pid_t> readerTid{0};
    auto reader = std::async(std::launch::async, [&] {
        readerTid = BasaltTest::currentTid();
        char buffer[4];
        return p.accepted->read(buffer, 4, true);
    });
    ASSERT_TRUE(BasaltTest::waitUntil([&] { return readerTid.load() != 0; }));
    ASSERT_TRUE(BasaltTest::waitUntilBlocked(readerTid));
    EXPECT_TRUE(p.accepted->close());
    ASSERT_EQ(reader.wait_for(std::chrono::seconds(5)), std::future_status::ready);
    EXPECT_EQ(reader.get(), -1);
    EXPECT_FALSE(p.accepted->isOpen());
    EXPECT_FALSE(p.accepted->close());

    // Calls on the closed socket fail at once.
    char buffer[4];
    EXPECT_EQ(p.accepted->read(buffer, 4), -1);
    EXPECT_EQ(p.accepted->write("x", 1), -1);
    EXPECT_FALSE(p.accepted->isPendingInput(5000));

    // A wait for input on a quiet connection is released by close() too.
    Pair q;
    q.connect();
    std::atomic<pid_t> waiterTid{0};
    auto waiter = std::async(std::launch::async, [&] {
        waiterTid = BasaltTest::currentTid();
        return q.client.isPendingInput(50000);
    });
    ASSERT_TRUE(BasaltTest::waitUntil([&] { return waiterTid.load() != 0; }));
    ASSERT_TRUE(BasaltTest::waitUntilBlocked(waiterTid));
    EXPECT_TRUE(q.client.close());
    ASSERT_EQ(waiter.wait_for(std::chrono::seconds(5)), std::future_status::ready);
    EXPECT_FALSE(waiter.get());
}

TEST(TCPServerSocket, ListensAcceptsAndStopsWaitingOnClose) {
    TCPServerSocket server;
    ASSERT_EQ(server.open("127.0.0.1", 0, 2), 0);

    // A second listener on the same port is refused.
    TCPServerSocket clash;
    EXPECT_EQ(clash.open("127.0.0.1", server.port(), 2), -1);

    EXPECT_FALSE(server.isPendingConnection(0));
    TCPSocket client;
    ASSERT_EQ(client.open("127.0.0.1", server.port()), 0);
    EXPECT_TRUE(server.isPendingConnection(5000));
    std::unique_ptr<TCPSocket> accepted(server.accept());
    ASSERT_TRUE(accepted);
    EXPECT_EQ(accepted->localPort(), server.port());

    // The accept loop waits 50 s at a time; close() must end that wait promptly.
    std::atomic<pid_t> waiterTid{0};
    auto waiter = std::async(std::launch::async, [&] {
        waiterTid = BasaltTest::currentTid();
        return server.isPendingConnection(50000);
    });
    ASSERT_TRUE(BasaltTest::waitUntil([&] { return waiterTid.load() != 0; }));
    ASSERT_TRUE(BasaltTest::waitUntilBlocked(waiterTid));
    EXPECT_TRUE(server.close());
    ASSERT_EQ(waiter.wait_for(std::chrono::seconds(5)), std::future_status::ready);
    EXPECT_FALSE(waiter.get());
    EXPECT_FALSE(server.isOpen());
    EXPECT_FALSE(server.close());
    EXPECT_EQ(server.accept(), nullptr);

    // The accepted connection lives on its own.
    EXPECT_EQ(client.write("z", 1), 1);
    char c;
    EXPECT_EQ(accepted->read(&c, 1, true), 1);
}
