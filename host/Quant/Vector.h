// Small fixed vectors. Plain standard-layout structs whose bytes are exactly their
// components in order (the wire copies them as they lie in memory).
#pragma once

#include <cstddef>
#include <type_traits>

namespace Quant {

template <typename T> struct Vector2T {
    T x{}, y{};
    Vector2T() = default;
    Vector2T(T x, T y) : x(x), y(y) {}
    bool operator==(const Vector2T& o) const { return x == o.x && y == o.y; }
    bool operator!=(const Vector2T& o) const { return !(*this == o); }
};

template <typename T> struct Vector3T {
    T x{}, y{}, z{};
    Vector3T() = default;
    Vector3T(T x, T y, T z) : x(x), y(y), z(z) {}
    bool operator==(const Vector3T& o) const { return x == o.x && y == o.y && z == o.z; }
    bool operator!=(const Vector3T& o) const { return !(*this == o); }
};

template <typename T> struct Vector4T {
    T x{}, y{}, z{}, w{};
    Vector4T() = default;
    Vector4T(T x, T y, T z, T w) : x(x), y(y), z(z), w(w) {}
    bool operator==(const Vector4T& o) const {
        return x == o.x && y == o.y && z == o.z && w == o.w;
    }
    bool operator!=(const Vector4T& o) const { return !(*this == o); }
};

using Vector2i = Vector2T<int>;
using Vector2f = Vector2T<float>;
using Vector3i = Vector3T<int>;
using Vector3f = Vector3T<float>;
using Vector4i = Vector4T<int>;
using Vector4f = Vector4T<float>;

static_assert(sizeof(Vector2f) == 8 && sizeof(Vector3f) == 12 && sizeof(Vector4f) == 16, "packed");
static_assert(sizeof(Vector2i) == 8 && sizeof(Vector3i) == 12 && sizeof(Vector4i) == 16, "packed");
static_assert(std::is_standard_layout<Vector4f>::value && std::is_standard_layout<Vector3i>::value,
              "standard layout");
// The wire copies the components as they lie: x, y, z, w in order.
static_assert(offsetof(Vector4f, x) == 0 && offsetof(Vector4f, y) == 4 &&
                  offsetof(Vector4f, z) == 8 && offsetof(Vector4f, w) == 12,
              "component order");
static_assert(offsetof(Vector3i, z) == 8 && offsetof(Vector2f, y) == 4, "component order");

} // namespace Quant
