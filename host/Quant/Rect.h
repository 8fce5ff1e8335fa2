// Axis-aligned rectangles stored as their two corners: x0, y0 (first corner), then
// x1, y1 (opposite corner). Plain standard-layout structs; this storage order is the
// order of the four numbers on the wire.
#pragma once

#include <cstddef>
#include <type_traits>

namespace Quant {

template <typename T> struct RectT {
    T x0{}, y0{}, x1{}, y1{};
    RectT() = default;
    RectT(T x0, T y0, T x1, T y1) : x0(x0), y0(y0), x1(x1), y1(y1) {}
    T width() const { return x1 - x0; }
    T height() const { return y1 - y0; }
    bool operator==(const RectT& o) const {
        return x0 == o.x0 && y0 == o.y0 && x1 == o.x1 && y1 == o.y1;
    }
    bool operator!=(const RectT& o) const { return !(*this == o); }
};

using Recti = RectT<int>;
using Rectf = RectT<float>;
using Rectd = RectT<double>;

static_assert(sizeof(Recti) == 16 && sizeof(Rectf) == 16 && sizeof(Rectd) == 32, "packed");
static_assert(std::is_standard_layout<Recti>::value && std::is_standard_layout<Rectd>::value,
              "standard layout");
static_assert(offsetof(Recti, x0) == 0 && offsetof(Recti, y0) == 4 && offsetof(Recti, x1) == 8 &&
                  offsetof(Recti, y1) == 12 && offsetof(Rectd, y1) == 24,
              "corner order");

} // namespace Quant
