// A set of non-null pointers in one flat array: a PointerMap without values, so no
// allocation per element, where a node set would make one per pointer. Meant for sets
// that follow a large tree, such as the attributes a listener holder registered on.
// Not thread-safe; the owner guards it.
#pragma once

#include "Basalt/PointerMap.h"

#include <cstddef>
#include <vector>

namespace Basalt {

template <typename T> class PointerSet {
public:
    bool contains(const T* pointer) const { return map.contains(pointer); }
    // True when `pointer` (not null) was not in the set.
    bool insert(T* pointer) { return map.insert(pointer); }
    // True when `pointer` was in the set.
    bool erase(const T* pointer) { return map.erase(pointer); }
    // The elements, in no particular order.
    std::vector<T*> values() const { return map.keys(); }
    size_t size() const { return map.size(); }
    bool empty() const { return map.empty(); }
    void clear() { map.clear(); }

private:
    PointerMap<T, NoValue> map;
};

} // namespace Basalt
