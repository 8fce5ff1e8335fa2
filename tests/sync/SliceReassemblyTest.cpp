// The bound on unfinished reassemblies of sliced events: by count and by bytes (each
// slice charged its bookkeeping), the oldest make room for the newest, and a begin that
// could never fit is refused before anything is computed from its total.
#include "SyncTestUtil.h"

#include "Dovel/Limits.h"
#include "Dovel/sync/RemoteNode.h"

#include "Basalt/Trace.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <limits>
#include <vector>

using Basalt::BinaryData;
using Dovel::RemoteNode;

TEST(SliceReassembly, UnfinishedEventsMakeRoomOldestFirst) {
    RemoteNode node(nullptr, "r");
    std::vector<QByteArray> delivered;
    node.eventAddListenerBd(
        "ev", [&](BinaryData& data) { delivered.push_back(data.toByteArray()); },
        Tessel::Node::Direct);
    Basalt::TraceCapture trace;
    auto begin = [&](int32_t id, int64_t total) {
        BinaryData data =
            SyncTest::sliceBegin(id, "ev", int32_t(std::min<int64_t>(total, 1 << 20)), total);
        node.handleRemoteEvent("event-slice-begin", data, 1);
    };
    auto slice = [&](int32_t id, int32_t index, const QByteArray& bytes) {
        BinaryData data = SyncTest::slicePart(id, index, bytes);
        node.handleRemoteEvent("event-slice", data, 1);
    };

    // By count: one begin beyond the limit evicts the first, whose slice then finds
    // nothing; the newest still completes.
    const int limit = Dovel::Limits::MaxSliceReassemblies;
    for (int id = 0; id <= limit; ++id)
        begin(id, 2);
    EXPECT_EQ(node.sliceReassemblyCount(), limit);
    EXPECT_EQ(trace.count("RemoteNode::handleRemoteEvent # Too many sliced events in progress, "
                          "evicted unfinished 'ev' (2 bytes) for 'ev'",
                          Basalt::Trace::Error),
              1);
    slice(0, 0, "no");
    EXPECT_EQ(trace.count("RemoteNode::handleSlicedEvent # Unknown event-slice 0"), 1);
    slice(limit, 0, "ok");
    EXPECT_EQ(delivered, std::vector<QByteArray>{"ok"});
    EXPECT_EQ(node.sliceReassemblyCount(), limit - 1);

    // By bytes: two events of 48 MiB fit the budget; a third begin evicts the oldest of
    // them, not the newest.
    RemoteNode fresh(nullptr, "f");
    trace.clear();
    auto beginBig = [&](int32_t id, int32_t sliceSize, int64_t total) {
        BinaryData data = SyncTest::sliceBegin(id, "big", sliceSize, total);
        fresh.handleRemoteEvent("event-slice-begin", data, 1);
    };
    for (int id = 0; id < 3; ++id)
        beginBig(id, 1 << 20, 48 << 20);
    EXPECT_EQ(fresh.sliceReassemblyCount(), 2);
    EXPECT_EQ(trace.count("evicted unfinished 'big'"), 1);
    BinaryData late = SyncTest::slicePart(0, 0, "x");
    fresh.handleRemoteEvent("event-slice", late, 1);
    EXPECT_EQ(trace.count("Unknown event-slice 0"), 1);

    // Each slice is charged its bookkeeping too: the largest event in slices of 64 bytes
    // just fits the whole budget (and evicts everything else); in slices of 63 it is
    // refused outright.
    const int64_t largest = Dovel::Limits::MaxSlicedEventBytes;
    ASSERT_EQ(largest + largest / 64 * Dovel::Limits::SliceBookkeepingBytes,
              int64_t(Dovel::Limits::MaxSliceReassemblyBytes));
    beginBig(10, 63, largest);
    EXPECT_EQ(trace.count("Refused event-slice-begin of 'big' (slice size 63, total 67108864)",
                          Basalt::Trace::Error),
              1);
    EXPECT_EQ(fresh.sliceReassemblyCount(), 2);
    beginBig(11, 64, largest);
    EXPECT_EQ(fresh.sliceReassemblyCount(), 1);
    // So is a name longer than any name a peer may define.
    const QByteArray longName(Dovel::Limits::MaxPeerNameBytes + 1, 'n');
    BinaryData named = SyncTest::sliceBegin(13, longName, 64, 64);
    fresh.handleRemoteEvent("event-slice-begin", named, 1);
    EXPECT_EQ(trace.count("Refused event-slice-begin of '" + longName.left(80)), 1);
    EXPECT_EQ(fresh.sliceReassemblyCount(), 1);
    // A total far beyond any limit is refused before anything is computed from it.
    beginBig(12, 1, std::numeric_limits<int64_t>::max());
    EXPECT_EQ(trace.count("Refused event-slice-begin of 'big' (slice size 1, total "
                          "9223372036854775807)"),
              1);
    EXPECT_EQ(fresh.sliceReassemblyCount(), 1);
}
