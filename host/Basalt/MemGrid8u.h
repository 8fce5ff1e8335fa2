// A two-dimensional grid of bytes, row by row with no row padding. A value type.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

namespace Basalt {

class MemGrid8u {
public:
    MemGrid8u() = default;
    MemGrid8u(int width, int height, uint8_t fill = 0);

    // Copies width × height bytes from data (which may be null when that is 0).
    void set(const uint8_t* data, int width, int height);
    int width() const { return w; }
    int height() const { return h; }
    bool isEmpty() const { return cells.empty(); }
    const uint8_t* data() const { return cells.data(); }
    uint8_t* data() { return cells.data(); }
    uint8_t at(int x, int y) const { return cells[size_t(y) * size_t(w) + size_t(x)]; }
    void setAt(int x, int y, uint8_t v) { cells[size_t(y) * size_t(w) + size_t(x)] = v; }
    size_t byteCount() const { return cells.size(); }

    bool operator==(const MemGrid8u& o) const { return w == o.w && h == o.h && cells == o.cells; }
    bool operator!=(const MemGrid8u& o) const { return !(*this == o); }

private:
    int w = 0;
    int h = 0;
    std::vector<uint8_t> cells;
};

} // namespace Basalt
