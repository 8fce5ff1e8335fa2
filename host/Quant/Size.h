// Width and height. Plain standard-layout structs: width, then height.
#pragma once

#include <cstddef>
#include <type_traits>

namespace Quant {

template <typename T> struct SizeT {
    T width{}, height{};
    SizeT() = default;
    SizeT(T width, T height) : width(width), height(height) {}
    bool operator==(const SizeT& o) const { return width == o.width && height == o.height; }
    bool operator!=(const SizeT& o) const { return !(*this == o); }
};

using SizeI = SizeT<int>;
using SizeF = SizeT<float>;

static_assert(sizeof(SizeI) == 8 && sizeof(SizeF) == 8, "packed");
static_assert(std::is_standard_layout<SizeF>::value && offsetof(SizeF, width) == 0 &&
                  offsetof(SizeF, height) == 4,
              "width, then height");

} // namespace Quant
