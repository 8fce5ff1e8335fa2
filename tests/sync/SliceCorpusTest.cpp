// Sliced events: the seeds of the slices fuzz target, made by a sending remote node
// (they are checked to reassemble at a receiving one), and the bound on unfinished
// reassemblies: the oldest make room for the newest. Write the seeds with
//   DOVEL_WRITE_CORPUS=fuzz/corpus/slices build/bin/test_sync --gtest_filter='SliceCorpus.*'
#include "CorpusSeeds.h"
#include "SyncTestUtil.h"

#include "Dovel/Limits.h"
#include "Dovel/sync/RemoteNode.h"

#include "Basalt/Trace.h"

#include <QMap>

#include <gtest/gtest.h>

#include <limits>
#include <vector>

using Basalt::BinaryData;
using Dovel::RemoteNode;

namespace {

struct Sent {
    QByteArray name;
    QByteArray data;
    long sender;
};

// Everything `node` sends for the events raised in `raise`, tagged with `sender`. Slice
// ids come from a process-wide counter; they are renumbered from `firstId` so that the
// seeds do not depend on what ran before.
template <typename Raise> std::vector<Sent> sentBy(long sender, int32_t firstId, Raise&& raise) {
    RemoteNode node(nullptr, "sender");
    std::vector<Sent> sent;
    node.addEventListener([&](const RemoteNode::Event& event) {
        sent.push_back(
            {node.symbolRegistry().lookup(event.symbol), event.data.toByteArray(), sender});
    });
    raise(node);
    QMap<int32_t, int32_t> renumbered;
    for (Sent& s : sent) {
        if (s.name != "event-slice-begin" && s.name != "event-slice")
            continue;
        BinaryData data = BinaryData::fromByteArray(s.data);
        const int32_t id = data.readInt32();
        if (!renumbered.contains(id))
            renumbered.insert(id, firstId + renumbered.size());
        BinaryData replaced;
        replaced.writeInt32(renumbered.value(id));
        s.data = replaced.toByteArray() + s.data.mid(replaced.size());
    }
    return sent;
}

QByteArray pattern(int size, int seed) {
    QByteArray bytes(size, '\0');
    for (int i = 0; i < size; ++i)
        bytes[i] = char(seed + 7 * i);
    return bytes;
}

void slice(RemoteNode& node, const QByteArray& name, const QByteArray& bytes, int sliceSize) {
    BinaryData data = BinaryData::fromByteArray(bytes);
    node.eventProcessSlice(name, data, std::size_t(sliceSize));
}

// One record of the fuzz target: raw payload (op bits 0-1 = 2) under the name chosen by
// op bits 2-3, sender index, payload length, payload.
QByteArray record(const Sent& sent) {
    const QByteArray names[] = {"event-slice-begin", "event-slice", "initialized", "note"};
    int nameIndex = 3;
    for (int i = 0; i < 4; ++i)
        if (sent.name == names[i])
            nameIndex = i;
    QByteArray out;
    out.append(char(2 | nameIndex << 2));
    out.append(char(sent.sender)); // senders 0, 1, 2 are indices 0, 1, 2
    out.append(char(sent.data.size()));
    return out + sent.data;
}

QByteArray records(const std::vector<Sent>& events) {
    QByteArray out;
    for (const Sent& sent : events)
        out += record(sent);
    return out;
}

// What a receiving node delivers locally for `events`, one entry per delivered event.
std::vector<QByteArray> deliver(const std::vector<Sent>& events, const QByteArray& name) {
    RemoteNode node(nullptr, "receiver");
    std::vector<QByteArray> delivered;
    node.eventAddListenerBd(
        name, [&](BinaryData& data) { delivered.push_back(data.toByteArray()); },
        Tessel::Node::Direct);
    for (const Sent& sent : events) {
        BinaryData data = BinaryData::fromByteArray(sent.data);
        node.handleRemoteEvent(sent.name, data, sent.sender);
    }
    return delivered;
}

} // namespace

TEST(SliceCorpus, SeedsReassembleAndAreWrittenOnRequest) {
    const QByteArray one = pattern(40, 1);
    const QByteArray two = pattern(100, 2);
    const std::vector<Sent> inOrder = sentBy(1, 0, [&](RemoteNode& n) { slice(n, "ev", one, 16); });
    ASSERT_EQ(inOrder.size(), 4u); // begin and slices of 16, 16 and 8 bytes
    EXPECT_EQ(deliver(inOrder, "ev"), std::vector<QByteArray>{one});

    // Two senders interleaved, slices out of order, plain events between.
    std::vector<Sent> a = sentBy(1, 1, [&](RemoteNode& n) { slice(n, "ev", one, 16); });
    std::vector<Sent> b = sentBy(2, 2, [&](RemoteNode& n) {
        slice(n, "ev", two, 32);
        BinaryData note = BinaryData::fromByteArray("x");
        n.eventProcess("note", note);
    });
    const std::vector<Sent> interleaved = {
        a[0], b[0], b[3], a[2], b[1], a[1], b[5], b[2], a[3], b[4], {"initialized", {}, 0}};
    EXPECT_EQ(deliver(interleaved, "ev"), (std::vector<QByteArray>{one, two}));

    // More unfinished events than the node holds, then the last one completes.
    std::vector<Sent> crowd;
    for (int i = 0; i <= Dovel::Limits::MaxSliceReassemblies; ++i) {
        const std::vector<Sent> sent =
            sentBy(0, 100 + i, [&](RemoteNode& n) { slice(n, "ev", one, 16); });
        crowd.push_back(sent[0]);
        if (i == Dovel::Limits::MaxSliceReassemblies)
            crowd.insert(crowd.end(), sent.begin() + 1, sent.end());
    }
    EXPECT_EQ(deliver(crowd, "ev"), std::vector<QByteArray>{one});

    // Well-formed records built by the target (op 0 begin, op 1 slice): event id 3,
    // slice size 12 - 8 = 4, total 10 << 0, then slices 2, 0, 1 of it.
    const QByteArray built = QByteArray::fromHex("000006030c000a0000"
                                                 "010004030201aa"
                                                 "010006030061626364"
                                                 "010006030165666768");

    CorpusSeeds::writeOrCompare("slices", {{"in_order", records(inOrder)},
                                           {"interleaved", records(interleaved)},
                                           {"crowd", records(crowd)},
                                           {"built", built}});
}

TEST(SliceCorpus, UnfinishedEventsMakeRoomOldestFirst) {
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
