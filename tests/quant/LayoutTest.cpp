#include "Quant/Matrix.h"
#include "Quant/Rect.h"
#include "Quant/Size.h"
#include "Quant/Vector.h"

#include <gtest/gtest.h>

#include <cstddef>
#include <type_traits>

using namespace Quant;

// The wire copies these types as they lie in memory: their layout is the format.
TEST(QuantLayout, ComponentsLieInOrderWithoutPadding) {
    static_assert(std::is_standard_layout<Vector3f>::value, "");
    static_assert(std::is_standard_layout<Rectf>::value, "");
    static_assert(std::is_standard_layout<SizeI>::value, "");
    static_assert(std::is_standard_layout<Matrix4f>::value, "");
    EXPECT_EQ(offsetof(Vector4f, x), 0u);
    EXPECT_EQ(offsetof(Vector4f, y), 4u);
    EXPECT_EQ(offsetof(Vector4f, z), 8u);
    EXPECT_EQ(offsetof(Vector4f, w), 12u);
    EXPECT_EQ(offsetof(Vector3i, z), 8u);
    EXPECT_EQ(offsetof(Vector2f, y), 4u);
    EXPECT_EQ(offsetof(Recti, x0), 0u);
    EXPECT_EQ(offsetof(Recti, y0), 4u);
    EXPECT_EQ(offsetof(Recti, x1), 8u);
    EXPECT_EQ(offsetof(Recti, y1), 12u);
    EXPECT_EQ(offsetof(Rectd, y1), 24u);
    EXPECT_EQ(offsetof(SizeF, width), 0u);
    EXPECT_EQ(offsetof(SizeF, height), 4u);
    EXPECT_EQ(sizeof(Matrix3f), 36u);
    EXPECT_EQ(sizeof(Rectd), 32u);
}

TEST(QuantLayout, MatricesAreRowMajorIdentityByDefault) {
    Matrix3f m;
    for (int r = 0; r < 3; ++r)
        for (int c = 0; c < 3; ++c)
            EXPECT_EQ(m.at(r, c), r == c ? 1.0f : 0.0f);
    m.at(0, 2) = 5.0f;
    EXPECT_EQ(m.m[2], 5.0f); // row 0, column 2
    m.at(2, 0) = 7.0f;
    EXPECT_EQ(m.m[6], 7.0f);
    EXPECT_NE(m, Matrix3f());

    const Recti r(1, 2, 11, 7);
    EXPECT_EQ(r.width(), 10);
    EXPECT_EQ(r.height(), 5);
    EXPECT_EQ(Vector2i(1, 2), Vector2i(1, 2));
    EXPECT_NE(SizeF(1, 2), SizeF(2, 1));
}
