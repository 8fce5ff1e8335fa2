// Width and height. Plain standard-layout structs: width, then height.
#pragma once

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

} // namespace Quant
