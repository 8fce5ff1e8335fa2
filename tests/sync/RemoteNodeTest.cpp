// RemoteNode: event routing both ways, sliced events and their reassembly, and the
// bounds on what a peer announces.
#include "SessionHarness.h"

#include "Dovel/Limits.h"
#include "Dovel/sync/RemoteNode.h"

#include "Basalt/BinaryData.h"
#include "Basalt/Trace.h"
#include "Tessel/AttributeT.h"

#include <gtest/gtest.h>

using Basalt::BinaryData;
using Dovel::RemoteNode;
using Tessel::AttributeT;
using Tessel::Node;

namespace {

// Events raised locally on a node, with their names.
struct Outbox {
    std::vector<std::pair<QByteArray, BinaryData>> events;
    void attach(RemoteNode& node) {
        node.addEventListener([this, &node](const RemoteNode::Event& event) {
            events.emplace_back(node.symbolRegistry().lookup(event.symbol), event.data);
        });
    }
};

QByteArray le32(uint32_t v) {
    QByteArray out(4, '\0');
    for (int i = 0; i < 4; ++i)
        out[i] = char((v >> (8 * i)) & 0xff);
    return out;
}

} // namespace

TEST(RemoteNode, LocalEventsGoOutAndReceivedEventsGoToLocalListeners) {
    RemoteNode node(nullptr, "root");
    Outbox out;
    out.attach(node);
    std::vector<int> local;
    node.eventAddListenerBd(
        "ping", [&](BinaryData& data) { local.push_back(data.readInt32()); }, Node::Direct);

    BinaryData data;
    data.writeInt32(41);
    data.readInt32(); // the copy sent out starts at the beginning all the same
    node.eventProcess("ping", data);
    ASSERT_EQ(out.events.size(), 1u);
    EXPECT_EQ(out.events[0].first, QByteArray("ping"));
    EXPECT_EQ(out.events[0].second.position(), 0);
    EXPECT_EQ(out.events[0].second.readInt32(), 41);
    EXPECT_TRUE(local.empty());

    BinaryData received;
    received.writeInt32(42);
    node.handleRemoteEvent("ping", received, 1);
    EXPECT_EQ(local, std::vector<int>{42});
    EXPECT_EQ(out.events.size(), 1u);

    // A listener raising an event while a received one is delivered still sends it.
    node.eventAddListenerBd(
        "ping", [&](BinaryData&) { node.eventProcess("pong", received); }, Node::Direct);
    node.handleRemoteEvent("ping", received, 1);
    ASSERT_EQ(out.events.size(), 2u);
    EXPECT_EQ(out.events[1].first, QByteArray("pong"));
}

TEST(RemoteNode, SlicedEventIsReassembledInAnyOrder) {
    RemoteNode sender(nullptr, "a");
    Outbox out;
    out.attach(sender);
    BinaryData payload;
    const char bytes[2] = {'h', 'i'};
    payload.writeBlob(bytes, 2);
    ASSERT_EQ(payload.size(), 10);

    sender.eventProcessSlice("big", payload, 4);
    ASSERT_EQ(out.events.size(), 4u);
    EXPECT_EQ(out.events[0].first, QByteArray("event-slice-begin"));
    const int32_t id = out.events[0].second.readInt32();
    out.events[0].second.rewind();
    EXPECT_EQ(out.events[0].second.toByteArray(),
              SessionHarness::sliceBegin(id, "big", 4, 10).toByteArray());
    const QByteArray whole = payload.toByteArray();
    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(out.events[1 + i].first, QByteArray("event-slice"));
        const int length = i < 2 ? 4 : 2;
        const QByteArray expected = le32(1) + le32(uint32_t(id)) + le32(1) + le32(uint32_t(i)) +
                                    le32(6) + le32(uint32_t(length)) + whole.mid(i * 4, length);
        EXPECT_EQ(out.events[1 + i].second.toByteArray(), expected) << i;
    }

    RemoteNode receiver(nullptr, "b");
    Outbox echo;
    echo.attach(receiver);
    std::vector<QByteArray> delivered;
    receiver.eventAddListenerBd(
        "big", [&](BinaryData& data) { delivered.push_back(data.toByteArray()); }, Node::Direct);
    receiver.handleRemoteEvent("event-slice-begin", out.events[0].second, 7);
    EXPECT_EQ(receiver.sliceReassemblyCount(), 1);
    for (int i : {2, 0}) {
        receiver.handleRemoteEvent("event-slice", out.events[1 + i].second, 7);
        EXPECT_TRUE(delivered.empty());
    }
    receiver.handleRemoteEvent("event-slice", out.events[2].second, 7);
    EXPECT_EQ(delivered, std::vector<QByteArray>{whole});
    EXPECT_EQ(receiver.sliceReassemblyCount(), 0);
    EXPECT_TRUE(echo.events.empty()); // delivered locally, not sent back

    // An empty event travels as one plain event.
    BinaryData empty;
    sender.eventProcessSlice("nothing", empty, 4);
    ASSERT_EQ(out.events.size(), 5u);
    EXPECT_EQ(out.events[4].first, QByteArray("nothing"));
    EXPECT_EQ(out.events[4].second.size(), 0);
}

// Hostile slices from a peer: each is refused with one error, allocates nothing and
// delivers nothing; an event begun by sender 1 (id 5, four slices of 4 bytes over 10)
// stays open throughout.
TEST(RemoteNode, BadSlicesAreRefusedAndPeerSizesBoundedBeforeAllocating) {
    RemoteNode node(nullptr, "r");
    Basalt::TraceCapture capture;
    int delivered = 0;
    node.eventAddListenerBd(
        "ev", [&](BinaryData&) { ++delivered; }, Node::Direct);
    const auto slice = [](int32_t id, int32_t index, int bytes) {
        return SessionHarness::slicePart(id, index, QByteArray(bytes, 'x'));
    };
    const auto begin = [](int32_t id, int32_t sliceSize, int64_t total) {
        return SessionHarness::sliceBegin(id, "ev", sliceSize, total);
    };
    BinaryData open = begin(5, 4, 10);
    node.handleRemoteEvent("event-slice-begin", open, 1);
    BinaryData truncated, wrongTags;
    truncated.writeInt32(11);
    wrongTags.writeString("x");
    const struct {
        const char* what;
        const char* event;
        BinaryData data;
        long sender;
    } cases[] = {
        {"an unknown id", "event-slice", slice(999, 0, 4), 1},
        {"a known id from another sender", "event-slice", slice(5, 0, 4), 2},
        {"a negative index", "event-slice", slice(5, -1, 4), 1},
        {"an index past the end", "event-slice", slice(5, 3, 4), 1},
        {"a slice size of 0", "event-slice-begin", begin(6, 0, 10), 1},
        {"a negative slice size", "event-slice-begin", begin(7, -4, 10), 1},
        {"a total of 0", "event-slice-begin", begin(8, 4, 0), 1},
        {"a total over the limit", "event-slice-begin",
         begin(9, 4, int64_t(Dovel::Limits::MaxSlicedEventBytes) + 1), 1},
        {"a terabyte in slices of one byte", "event-slice-begin", begin(10, 1, int64_t(1) << 40),
         1},
        {"a truncated begin", "event-slice-begin", truncated, 1},
        {"a slice of other fields", "event-slice", wrongTags, 1},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        const int errors = capture.count("", Basalt::Trace::Error);
        BinaryData data = c.data;
        node.handleRemoteEvent(c.event, data, c.sender);
        EXPECT_EQ(capture.count("", Basalt::Trace::Error), errors + 1);
        EXPECT_EQ(node.sliceReassemblyCount(), 1);
    }
    EXPECT_EQ(delivered, 0);
}
