// Square matrices stored row by row. Plain standard-layout structs: the N×N floats
// in row order are their bytes. Default-constructed as identity.
#pragma once

#include <cstddef>
#include <type_traits>

namespace Quant {

template <typename T, int N> struct MatrixNT {
    T m[N * N];
    MatrixNT() {
        for (int i = 0; i < N * N; ++i)
            m[i] = (i % (N + 1) == 0) ? T(1) : T(0);
    }
    T& at(int row, int col) { return m[row * N + col]; }
    T at(int row, int col) const { return m[row * N + col]; }
    bool operator==(const MatrixNT& o) const {
        for (int i = 0; i < N * N; ++i)
            if (!(m[i] == o.m[i]))
                return false;
        return true;
    }
    bool operator!=(const MatrixNT& o) const { return !(*this == o); }
};

template <typename T> using Matrix2T = MatrixNT<T, 2>;
template <typename T> using Matrix3T = MatrixNT<T, 3>;
template <typename T> using Matrix4T = MatrixNT<T, 4>;

using Matrix2f = Matrix2T<float>;
using Matrix3f = Matrix3T<float>;
using Matrix4f = Matrix4T<float>;

static_assert(sizeof(Matrix2f) == 16 && sizeof(Matrix3f) == 36 && sizeof(Matrix4f) == 64, "packed");
static_assert(std::is_standard_layout<Matrix4f>::value, "standard layout");

} // namespace Quant
