// Removal from an open-addressing table with linear probing, without tombstones: each
// entry after the hole moves back into it unless its home slot lies cyclically in
// (hole, its slot], so that no probe sequence is broken. Shared by the flat tables that
// remove entries (PointerMap, Tessel's ChildIndex).
#pragma once

#include <cstddef>
#include <vector>

namespace Basalt {

// Empties `slot` of the `size` slots at `table` (a power of two, where Slot() marks a
// free slot); `homeOf(entry)` gives the slot an entry's probe starts at.
template <typename Slot, typename HomeOf>
void removeByBackwardShift(Slot* table, size_t size, size_t slot, HomeOf homeOf) {
    const size_t mask = size - 1;
    size_t hole = slot;
    for (size_t j = (slot + 1) & mask; table[j] != Slot(); j = (j + 1) & mask) {
        const size_t home = homeOf(table[j]);
        const bool stays = hole <= j ? (hole < home && home <= j) : (hole < home || home <= j);
        if (!stays) {
            table[hole] = table[j];
            hole = j;
        }
    }
    table[hole] = Slot();
}

template <typename Slot, typename HomeOf>
void removeByBackwardShift(std::vector<Slot>& table, size_t slot, HomeOf homeOf) {
    removeByBackwardShift(table.data(), table.size(), slot, homeOf);
}

} // namespace Basalt
