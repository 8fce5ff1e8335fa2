// The fixed type code of every value type: the number that announces an attribute's
// type on the wire. Part of the protocol; the type registry and every table that names
// types (the tool's JSON forms) use these names, so the compiler keeps them in step.
#pragma once

#include <cstdint>

namespace Dovel {

enum TypeCode : uint32_t {
    BoolCode = 1,
    ColorCode = 2,
    FloatCode = 3,
    DoubleCode = 4,
    IntCode = 9,
    UIntCode = 10,
    Int64Code = 11,
    UInt64Code = 12,
    RectICode = 13,
    RectFCode = 14,
    RectDCode = 15,
    Vector2ICode = 16,
    Vector2FCode = 17,
    Vector3ICode = 19,
    Vector3FCode = 20,
    Vector4ICode = 22,
    Vector4FCode = 23,
    Matrix2FCode = 26,
    Matrix3FCode = 29,
    Matrix4FCode = 32,
    TimeStampCode = 34,
    StringCode = 35,
    StringListCode = 36,
    FloatVectorCode = 40,
    Vector2FVectorCode = 41,
    IntVectorCode = 42,
    UIntVectorCode = 43,
    StringVectorCode = 44,
    Grid8UCode = 45,
    SplineCode = 46,
    EnumCode = 47,
    ColorPMACode = 48,
    Vector2FSeparateCode = 49,
    SizeFCode = 50,
    AssetCode = 51,
    SizeICode = 52,
};

// Every code is below this: a session record keeps a peer's code in a byte, the codes
// above as one no type has (DovelSessionAttribute).
constexpr uint32_t TypeCodeLimit = 255;

} // namespace Dovel
