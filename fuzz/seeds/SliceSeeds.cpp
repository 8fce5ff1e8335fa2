// Seeds of the slices target (fuzz/fuzz_slices.cpp): records of the events a sending
// remote node raises for sliced events (one in order; two senders interleaved and out of
// order; more unfinished events than a node holds), and well-formed records built by the
// target's own ops.
#include "Seeds.h"

#include "Dovel/Limits.h"
#include "Dovel/sync/RemoteNode.h"

#include <QMap>

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

// One record: raw payload (op bits 0-1 = 2) under the name chosen by op bits 2-3, sender
// index, payload length, payload.
QByteArray records(const std::vector<Sent>& events) {
    const QByteArray names[] = {"event-slice-begin", "event-slice", "initialized", "note"};
    QByteArray out;
    for (const Sent& sent : events) {
        int nameIndex = 3;
        for (int i = 0; i < 4; ++i)
            if (sent.name == names[i])
                nameIndex = i;
        out.append(char(2 | nameIndex << 2));
        out.append(char(sent.sender)); // senders 0, 1, 2 are indices 0, 1, 2
        out.append(char(sent.data.size()));
        out += sent.data;
    }
    return out;
}

} // namespace

FuzzSeeds::Seeds FuzzSeeds::slices() {
    const QByteArray one = pattern(40, 1);
    const QByteArray two = pattern(100, 2);
    const std::vector<Sent> inOrder = sentBy(1, 0, [&](RemoteNode& n) { slice(n, "ev", one, 16); });

    std::vector<Sent> a = sentBy(1, 1, [&](RemoteNode& n) { slice(n, "ev", one, 16); });
    std::vector<Sent> b = sentBy(2, 2, [&](RemoteNode& n) {
        slice(n, "ev", two, 32);
        BinaryData note = BinaryData::fromByteArray("x");
        n.eventProcess("note", note);
    });
    const std::vector<Sent> interleaved = {
        a[0], b[0], b[3], a[2], b[1], a[1], b[5], b[2], a[3], b[4], {"initialized", {}, 0}};

    // Begins of more events than a node holds; only the last one completes.
    std::vector<Sent> crowd;
    for (int i = 0; i <= Dovel::Limits::MaxSliceReassemblies; ++i) {
        const std::vector<Sent> sent =
            sentBy(0, 100 + i, [&](RemoteNode& n) { slice(n, "ev", one, 16); });
        crowd.push_back(sent[0]);
        if (i == Dovel::Limits::MaxSliceReassemblies)
            crowd.insert(crowd.end(), sent.begin() + 1, sent.end());
    }

    // Op 0 begin, op 1 slice: event id 3, slice size 12 - 8 = 4, total 10 << 0, then
    // slices 2, 0, 1 of it.
    const QByteArray built = QByteArray::fromHex("000006030c000a0000"
                                                 "010004030201aa"
                                                 "010006030061626364"
                                                 "010006030165666768");
    return {{"in_order", records(inOrder)},
            {"interleaved", records(interleaved)},
            {"crowd", records(crowd)},
            {"built", built}};
}
