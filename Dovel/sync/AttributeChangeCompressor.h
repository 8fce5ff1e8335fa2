// Collapses the raw change events of one update period so that each attribute is sent
// at most once per kind: superseded changes are dropped, an addition absorbs later
// changes (and then carries the value), repeated additions count once, and an
// attribute added and removed within the period vanishes. Owned by the
// NodeChangeSender; one thread at a time.
#pragma once

#include "Dovel/sync/NodeWatcher.h"
#include "Dovel/sync/SymbolBits.h"

#include <cstdint>
#include <vector>

namespace Dovel {

struct ChangeData {
    uint32_t type = 0;      // NodeWatcher::EventType: 0 added, 1 removed, 2 changed
    uint32_t symbol = 0;    // local symbol of the attribute's path
    uint32_t withValue = 0; // additions: a later change in the period, so send the value

    bool operator==(const ChangeData& o) const {
        return type == o.type && symbol == o.symbol && withValue == o.withValue;
    }
};

class AttributeChangeCompressor {
public:
    // Replaces `out` with the collapsed form of `events` (in the order they happened),
    // itself in chronological order. Node events are expected to be filtered out before.
    void compress(const std::vector<NodeWatcher::Event>& events, std::vector<ChangeData>& out);

private:
    void compressAdditions(const std::vector<NodeWatcher::Event>& events,
                           std::vector<ChangeData>& out);

    // Kept between calls so that steady traffic does not reallocate.
    std::vector<ChangeData> scratch;
    // Empty between calls.
    SymbolBits laterChanged;
    SymbolBits laterRemoved;
    SymbolBits laterAdded;
    SymbolBits added;
};

} // namespace Dovel
