#include "Dovel/sync/SliceReassembly.h"

#include "Dovel/Limits.h"

#include "Basalt/Trace.h"

#include <algorithm>
#include <cstring>

namespace Dovel {

void SliceReassembly::begin(Basalt::BinaryData& data, long senderKey) {
    bool okId = false, okSlice = false, okTotal = false;
    const int32_t id = data.readInt32(&okId);
    QByteArray name;
    const bool okName = okId && data.readString(name);
    const int32_t slice = okName ? data.readInt32(&okSlice) : 0;
    // The sender writes the total as a 64-bit item; the limit keeps it well inside int.
    const int64_t total = okSlice ? data.readInt64(&okTotal) : 0;
    if (!okTotal) {
        Basalt::Trace::error("RemoteNode::handleRemoteEvent # Malformed event-slice-begin");
        return;
    }
    // What the record may come to hold: the joined event, and the bookkeeping of every
    // slice kept until then (a peer could otherwise send one-byte records). Its name is
    // held to a name's limit instead of being charged.
    const bool sane = slice > 0 && total > 0 && total <= Limits::MaxSlicedEventBytes &&
                      name.size() <= Limits::MaxPeerNameBytes;
    const int64_t sliceCount = sane ? (total + slice - 1) / slice : 0;
    const int64_t charge = total + sliceCount * Limits::SliceBookkeepingBytes;
    if (!sane || charge > Limits::MaxSliceReassemblyBytes) {
        Basalt::Trace::error("RemoteNode::handleRemoteEvent # Refused event-slice-begin of '%s' "
                             "(slice size %d, total %lld)",
                             name.left(Limits::MaxPeerNameBytes).constData(), slice,
                             static_cast<long long>(total));
        return;
    }
    const Key key{uint32_t(senderKey), uint32_t(id)};
    auto existing = records.find(key);
    if (existing != records.end()) {
        chargedBytes -= existing->second.charge;
        records.erase(existing);
    }
    // A peer may begin events and never finish them: the oldest unfinished ones make
    // room, so the newest event always gets its chance.
    while (!records.empty() && (int(records.size()) >= Limits::MaxSliceReassemblies ||
                                chargedBytes + charge > Limits::MaxSliceReassemblyBytes)) {
        auto oldest =
            std::min_element(records.begin(), records.end(), [](const auto& a, const auto& b) {
                return a.second.order < b.second.order;
            });
        Basalt::Trace::error("RemoteNode::handleRemoteEvent # Too many sliced events in "
                             "progress, evicted unfinished '%s' (%d bytes) for '%s'",
                             oldest->second.name.constData(), oldest->second.totalSize,
                             name.constData());
        chargedBytes -= oldest->second.charge;
        records.erase(oldest);
    }
    Record& record = records[key];
    record.order = nextOrder++;
    record.name = name;
    record.sliceSize = slice;
    record.totalSize = int(total);
    record.sliceCount = int(sliceCount);
    record.charge = charge;
    chargedBytes += charge;
}

void SliceReassembly::add(long senderKey, Basalt::BinaryData& data, const Deliver& deliver) {
    bool okId = false, okIndex = false;
    const int32_t id = data.readInt32(&okId);
    const int32_t index = okId ? data.readInt32(&okIndex) : 0;
    if (!okIndex) {
        Basalt::Trace::error("RemoteNode::handleSlicedEvent # Malformed event-slice");
        return;
    }
    auto it = records.find(Key(uint32_t(senderKey), uint32_t(id)));
    if (it == records.end()) {
        Basalt::Trace::error("RemoteNode::handleSlicedEvent # Unknown event-slice %d", id);
        return;
    }
    Record& record = it->second;
    const int64_t offset = int64_t(index) * record.sliceSize;
    if (index < 0 || offset >= record.totalSize) {
        Basalt::Trace::error("RemoteNode::handleSlicedEvent # Bad slice (idx %d)", index);
        return;
    }
    const int length = int(std::min<int64_t>(record.totalSize - offset, record.sliceSize));
    // A shorter slice is taken (the rest of its room stays zero); a longer one is not.
    QByteArray bytes;
    if (data.peekTag() != Basalt::BinaryData::TagBlob || !data.readBlob(bytes) ||
        bytes.size() > length)
        return;
    record.received[index] = bytes; // a repeated slice only replaces its bytes
    if (int(record.received.size()) < record.sliceCount)
        return;

    // Taken out before delivery, so a listener that handles events re-entrantly cannot
    // reach a record being delivered.
    Record done = std::move(record);
    records.erase(it);
    chargedBytes -= done.charge;
    QByteArray buffer(done.totalSize, '\0');
    for (const auto& slice : done.received)
        std::memcpy(buffer.data() + int64_t(slice.first) * done.sliceSize, slice.second.constData(),
                    size_t(slice.second.size()));
    Basalt::BinaryData payload;
    payload.linkTo(buffer.data(), done.totalSize);
    deliver(done.name, payload);
}

} // namespace Dovel
