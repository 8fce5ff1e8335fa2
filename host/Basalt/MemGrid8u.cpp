#include "Basalt/MemGrid8u.h"

#include <algorithm>
#include <cstring>

namespace Basalt {

MemGrid8u::MemGrid8u(int width, int height, uint8_t fill)
    : w(std::max(width, 0)), h(std::max(height, 0)), cells(size_t(w) * size_t(h), fill) {}

void MemGrid8u::set(const uint8_t* data, int width, int height) {
    w = std::max(width, 0);
    h = std::max(height, 0);
    cells.assign(size_t(w) * size_t(h), 0);
    if (!cells.empty() && data != nullptr)
        std::memcpy(cells.data(), data, cells.size());
}

} // namespace Basalt
