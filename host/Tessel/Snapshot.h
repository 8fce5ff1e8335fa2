// Copy-on-write tables: an immutable vector that is replaced whole when an entry comes,
// so that a reader (an emission) holds the snapshot it started with and neither locks
// nor copies. Not thread-safe: the owner guards the pointer it swaps.
#pragma once

#include <memory>
#include <utility>
#include <vector>

namespace Tessel {

// A new table: the entries of `table` (which may be null) followed by `entry`.
template <typename T>
std::shared_ptr<const std::vector<T>> appended(const std::shared_ptr<const std::vector<T>>& table,
                                               T entry) {
    auto next = std::make_shared<std::vector<T>>();
    next->reserve((table ? table->size() : 0) + 1);
    if (table)
        next->assign(table->begin(), table->end());
    next->push_back(std::move(entry));
    return next;
}

} // namespace Tessel
