// Named node events across threads (direct and queued delivery, removal that waits for
// a running call, listeners that delete their node), and the update loop.
#include "Tessel/Node.h"
#include "Tessel/UpdateLoop.h"

#include "Basalt/BinaryData.h"

#include "basalt/WaitUtil.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <future>
#include <stdexcept>
#include <thread>
#include <vector>

using namespace Tessel;
using BasaltTest::waitUntil;

namespace {

class NodeEvents : public ::testing::Test {
protected:
    void SetUp() override { UpdateLoop::reset(); }
    void TearDown() override { UpdateLoop::reset(); }
};

using UpdateLoopTest = NodeEvents;

Basalt::BinaryData intPayload(int value) {
    Basalt::BinaryData data;
    data.writeInt32(value);
    return data;
}

} // namespace

TEST_F(NodeEvents, DirectListenersRunOnTheSendingThreadWithTheirOwnReadPosition) {
    Node node;
    std::atomic<int> plainCalls{0};
    std::thread::id plainThread;
    std::vector<int> read;
    node.eventAddListener(
        "ping",
        [&] {
            ++plainCalls;
            plainThread = std::this_thread::get_id();
        },
        Node::Direct);
    for (int i = 0; i < 2; ++i)
        node.eventAddListenerBd(
            "ping",
            [&](Basalt::BinaryData& data) {
                bool ok = false;
                const int value = data.readInt32(&ok);
                read.push_back(ok ? value : -1);
            },
            Node::Direct);
    node.eventAddListener(
        "other", [] { ADD_FAILURE() << "wrong name"; }, Node::Direct);

    std::thread::id senderThread;
    std::thread sender([&] {
        senderThread = std::this_thread::get_id();
        Basalt::BinaryData data = intPayload(42);
        node.eventSend("ping", data);
    });
    sender.join();
    EXPECT_EQ(plainCalls, 1);
    EXPECT_EQ(plainThread, senderThread);
    EXPECT_EQ(read, (std::vector<int>{42, 42})); // each listener read from the start

    read.clear();
    node.eventSend("ping"); // no payload: payload listeners get empty data
    EXPECT_EQ(read, (std::vector<int>{-1, -1}));
    EXPECT_EQ(plainCalls, 2);
}

TEST_F(NodeEvents, QueuedListenersRunOnTheUpdateLoopWithACopyOfThePayload) {
    UpdateLoop::runOnce(); // this thread is the update thread
    auto node = std::make_unique<Node>();
    std::vector<int> values;
    std::thread::id ranOn;
    node->eventAddListenerBd(
        "tick",
        [&](Basalt::BinaryData& data) {
            values.push_back(data.readInt32());
            ranOn = std::this_thread::get_id();
        },
        Node::Queued);
    const long removedLater = node->eventAddListener(
        "tick", [] { ADD_FAILURE() << "removed before delivery"; }, Node::Queued);

    std::thread sender([&] {
        Basalt::BinaryData data = intPayload(5);
        node->eventSend("tick", data);
        data.clear(); // the queued delivery holds its own copy
        data.writeInt32(6);
    });
    sender.join();
    EXPECT_TRUE(values.empty()); // nothing runs on the sending thread
    EXPECT_EQ(UpdateLoop::pendingCount(), 2);
    EXPECT_TRUE(node->eventRemoveListener(removedLater));

    // The post came from another thread, so it woke the loop: no time-out to sit out.
    EXPECT_EQ(UpdateLoop::waitAndRun(10000), 2);
    EXPECT_EQ(values, (std::vector<int>{5}));
    EXPECT_EQ(ranOn, std::this_thread::get_id());

    // A node destroyed before its queued delivery runs: the delivery is dropped.
    node->eventSend("tick");
    node.reset();
    EXPECT_EQ(UpdateLoop::runOnce(), 1);
    EXPECT_EQ(values, (std::vector<int>{5}));
}

TEST_F(NodeEvents, RemovalWaitsForACallRunningOnAnotherThread) {
    Node node;
    std::atomic<bool> entered{false}, release{false}, finished{false};
    std::atomic<int> calls{0};
    const long id = node.eventAddListener(
        "slow",
        [&] {
            ++calls;
            entered = true;
            while (!release)
                std::this_thread::sleep_for(std::chrono::milliseconds(1));
            finished = true;
        },
        Node::Direct);
    std::thread sender([&] { node.eventSend("slow"); });
    ASSERT_TRUE(waitUntil([&] { return entered.load(); }));

    std::atomic<pid_t> removerTid{0};
    std::atomic<bool> removed{false}, finishedWhenRemoved{false};
    std::thread remover([&] {
        removerTid = BasaltTest::currentTid();
        EXPECT_TRUE(node.eventRemoveListener(id));
        finishedWhenRemoved = finished.load();
        removed = true;
    });
    ASSERT_TRUE(waitUntil([&] { return removerTid.load() != 0; }));
    ASSERT_TRUE(BasaltTest::waitUntilBlocked(removerTid));
    EXPECT_FALSE(removed); // parked while the callback runs
    release = true;
    remover.join();
    sender.join();
    EXPECT_TRUE(removed);
    EXPECT_TRUE(finishedWhenRemoved);
    node.eventSend("slow");
    EXPECT_EQ(calls, 1);

    // A callback may remove itself (on whatever thread it runs) without waiting for
    // itself.
    std::atomic<int> selfCalls{0};
    long selfId = -1;
    selfId = node.eventAddListener(
        "once",
        [&] {
            ++selfCalls;
            EXPECT_TRUE(node.eventRemoveListener(selfId));
        },
        Node::Direct);
    std::thread again([&] { node.eventSend("once"); });
    again.join();
    node.eventSend("once");
    EXPECT_EQ(selfCalls, 1);
}

TEST_F(NodeEvents, AListenerWhoseCallbackDiesCallingBackIntoTheNodeIsRemovedWithoutADeadlock) {
    Node node;
    // Captured by a callback: on its destruction it registers and removes another
    // listener of the same node, as a watcher's context torn down with its callback may.
    struct CallsBack {
        Node* node = nullptr;
        ~CallsBack() {
            if (node)
                node->eventRemoveListener(node->eventAddListener(
                    "other", [] {}, Node::Direct));
        }
    };
    auto capture = std::make_shared<CallsBack>();
    capture->node = &node;
    const long id = node.eventAddListener(
        "e", [capture] {}, Node::Direct);
    capture.reset(); // the callback holds the last reference
    auto removed = std::async(std::launch::async, [&] { return node.eventRemoveListener(id); });
    ASSERT_EQ(removed.wait_for(std::chrono::seconds(10)), std::future_status::ready);
    EXPECT_TRUE(removed.get());
}

TEST_F(NodeEvents, ADirectListenerMayDeleteTheNodeThatReportsToIt) {
    Node root;
    auto* node = new Node(&root, "n");
    int later = 0;
    node->eventAddListenerBd(
        "attribute-added", [node](Basalt::BinaryData&) { delete node; }, Node::Direct);
    // Listed after the one that deletes the node: never runs.
    node->eventAddListenerBd(
        "attribute-added", [&later](Basalt::BinaryData&) { ++later; }, Node::Direct);
    EXPECT_TRUE(node->addAttribute("x", new Node(nullptr, "x")));
    EXPECT_EQ(root.attribute("n"), nullptr);
    EXPECT_EQ(later, 0);
}

TEST_F(UpdateLoopTest, RunOnceRunsWhatWasQueuedBeforeInOrder) {
    std::vector<int> order;
    Node::invokeAfterUpdate([&] {
        order.push_back(1);
        Node::invokeAfterUpdate([&] { order.push_back(3); }); // waits for the next pass
    });
    Node::invokeAfterUpdate([&] { order.push_back(2); });
    EXPECT_EQ(UpdateLoop::runOnce(), 2);
    EXPECT_EQ(order, (std::vector<int>{1, 2}));
    EXPECT_EQ(UpdateLoop::pendingCount(), 1);
    EXPECT_EQ(UpdateLoop::runOnce(), 1);
    EXPECT_EQ(order, (std::vector<int>{1, 2, 3}));
    EXPECT_EQ(UpdateLoop::runOnce(), 0);

    // A function that throws does not stop the ones after it.
    Node::invokeAfterUpdate([] { throw std::runtime_error("boom"); });
    Node::invokeAfterUpdate([&] { order.push_back(4); });
    EXPECT_EQ(UpdateLoop::runOnce(), 2);
    EXPECT_EQ(order.back(), 4);
}
