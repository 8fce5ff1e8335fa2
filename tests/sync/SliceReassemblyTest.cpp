// The bound on unfinished reassemblies of sliced events: by count and by bytes (each
// slice charged its bookkeeping), the oldest make room for the newest, and a begin that
// could never fit is refused before anything is computed from its total.
#include "SessionHarness.h"

#include "Dovel/Limits.h"
#include "Dovel/sync/RemoteNode.h"

#include "Basalt/Trace.h"

#include <gtest/gtest.h>

#include <limits>
#include <vector>

using Basalt::BinaryData;
using Dovel::RemoteNode;

TEST(SliceReassembly, UnfinishedEventsMakeRoomOldestFirst) {
    Basalt::TraceCapture trace;
    const auto errors = [&] { return trace.count("", Basalt::Trace::Error); };
    RemoteNode node(nullptr, "r");
    std::vector<QByteArray> delivered;
    node.eventAddListenerBd(
        "ev", [&](BinaryData& data) { delivered.push_back(data.toByteArray()); },
        Tessel::Node::Direct);
    const auto begin = [](RemoteNode& to, int32_t id, const QByteArray& name, int32_t sliceSize,
                          int64_t total) {
        BinaryData data = SessionHarness::sliceBegin(id, name, sliceSize, total);
        to.handleRemoteEvent("event-slice-begin", data, 1);
    };
    const auto slice = [](RemoteNode& to, int32_t id, const QByteArray& bytes) {
        BinaryData data = SessionHarness::slicePart(id, 0, bytes);
        to.handleRemoteEvent("event-slice", data, 1);
    };

    // By count: one begin beyond the limit evicts the first, whose slice then finds
    // nothing; the newest still completes.
    const int limit = Dovel::Limits::MaxSliceReassemblies;
    for (int id = 0; id <= limit; ++id)
        begin(node, id, "ev", 2, 2);
    EXPECT_EQ(node.sliceReassemblyCount(), limit);
    EXPECT_EQ(errors(), 1);
    slice(node, 0, "no");
    EXPECT_EQ(errors(), 2);
    slice(node, limit, "ok");
    EXPECT_EQ(delivered, std::vector<QByteArray>{"ok"});
    EXPECT_EQ(node.sliceReassemblyCount(), limit - 1);

    // By bytes: two events of 48 MiB fit the budget; a third begin evicts the oldest of
    // them, not the newest.
    RemoteNode fresh(nullptr, "f");
    for (int id = 0; id < 3; ++id)
        begin(fresh, id, "big", 1 << 20, 48 << 20);
    EXPECT_EQ(fresh.sliceReassemblyCount(), 2);
    EXPECT_EQ(errors(), 3);
    slice(fresh, 0, "x");
    EXPECT_EQ(errors(), 4);

    // Each slice is charged its bookkeeping too: the largest event in slices of 64 bytes
    // just fits the whole budget (and evicts everything else); in slices of 63 it is
    // refused outright. So are a name longer than any name a peer may define and a total
    // far beyond any limit (before anything is computed from it).
    const int64_t largest = Dovel::Limits::MaxSlicedEventBytes;
    ASSERT_EQ(largest + largest / 64 * Dovel::Limits::SliceBookkeepingBytes,
              int64_t(Dovel::Limits::MaxSliceReassemblyBytes));
    begin(fresh, 10, "big", 63, largest);
    EXPECT_EQ(errors(), 5);
    EXPECT_EQ(fresh.sliceReassemblyCount(), 2);
    begin(fresh, 11, "big", 64, largest);
    EXPECT_EQ(fresh.sliceReassemblyCount(), 1);
    const int evictions = errors();
    begin(fresh, 13, QByteArray(Dovel::Limits::MaxPeerNameBytes + 1, 'n'), 64, 64);
    begin(fresh, 12, "big", 1, std::numeric_limits<int64_t>::max());
    EXPECT_EQ(errors(), evictions + 2);
    EXPECT_EQ(fresh.sliceReassemblyCount(), 1);
}
