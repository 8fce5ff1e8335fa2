// The receiving end of sliced events ("event-slice-begin", then "event-slice" for each
// part): one record per sender and event id, its slices kept as they come and joined
// only when all are there, so that what a peer makes us hold follows the bytes it has
// sent, not the size it announced. Records are charged against
// Limits::MaxSliceReassemblyBytes and Limits::MaxSliceReassemblies; the oldest
// unfinished record makes room for a new one. Malformed or refused items are logged and
// dropped.
//
// Not thread-safe: RemoteNode uses it on the tree thread.
#pragma once

#include "Basalt/BinaryData.h"

#include <QByteArray>

#include <cstdint>
#include <functional>
#include <map>
#include <utility>

namespace Dovel {

class SliceReassembly {
public:
    using Deliver = std::function<void(const QByteArray& name, Basalt::BinaryData& payload)>;

    // An "event-slice-begin" from `senderKey`: starts a record, replacing one of the same id.
    void begin(Basalt::BinaryData& data, long senderKey);
    // An "event-slice": keeps the slice; the one that completes its record has the joined
    // event handed to `deliver` (the record is gone by then, so `deliver` may re-enter).
    void add(long senderKey, Basalt::BinaryData& data, const Deliver& deliver);
    // Records begun and not yet complete.
    int size() const { return int(records.size()); }

private:
    // A sliced event being received. The slices are kept as they come and joined only
    // when all are there, so that what a peer makes us hold follows the bytes it has
    // sent, not the size it announced.
    struct Record {
        QByteArray name;
        int sliceSize = 0;
        int totalSize = 0;
        int sliceCount = 0;
        int64_t charge = 0;                 // counted against the reassembly budget
        std::map<int, QByteArray> received; // by slice index
        uint64_t order = 0;                 // when it began: the oldest is evicted first
    };
    using Key = std::pair<uint32_t, uint32_t>;

    std::map<Key, Record> records;
    int64_t chargedBytes = 0; // the charges of the records
    uint64_t nextOrder = 0;   // order of the next record
};

} // namespace Dovel
