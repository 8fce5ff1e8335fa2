// Codes of fixed-size values: the exact bytes of a known value, the round trip through
// a bundle into a fresh attribute made by the registry (landing at layer 2), and the
// variant codecs of the same code giving the same bytes.
#include "TypesTestUtil.h"

#include "Dovel/types/MetaTypes.h"

#include "Tessel/AttributeT.h"

#include <gtest/gtest.h>

#include <memory>

using namespace Dovel;
using namespace TypesTest;
using Tessel::Attribute;
using Tessel::AttributeT;

namespace {

// Checks one code: serializer bytes of `value`, sizes, round trip into a fresh attribute
// and the variant codecs.
template <typename T>
void checkCode(const TypeRegistry& registry, uint32_t code, uint32_t size, const T& value,
               const QByteArray& expected) {
    SCOPED_TRACE(testing::Message() << "type code " << code);
    std::unique_ptr<Attribute> created(registry.createAttribute(code));
    auto* source = dynamic_cast<AttributeT<T>*>(created.get());
    ASSERT_NE(source, nullptr);
    source->setValue(value, Attribute::LayerUser);

    uint32_t typeCode = 0, valueSize = 99;
    const Serializer serializer = registry.createSerializer(source, typeCode, valueSize);
    ASSERT_TRUE(serializer);
    EXPECT_EQ(typeCode, code);
    EXPECT_EQ(valueSize, size);
    EXPECT_EQ(registry.valueSize(code), size);
    EXPECT_EQ(serialize(serializer).toHex(), expected.toHex());

    std::unique_ptr<Attribute> fresh(registry.createAttribute(code));
    auto* target = dynamic_cast<AttributeT<T>*>(fresh.get());
    ASSERT_NE(target, nullptr);
    int changes = 0;
    target->addListener([&changes] { ++changes; }, Attribute::RoleChange);
    const Deserializer deserializer = registry.createDeserializer(code, target);
    ASSERT_TRUE(deserializer);
    EXPECT_EQ(deserialize(deserializer, expected), uint32_t(expected.size()));
    ASSERT_NE(target->valueOnLayer(Attribute::LayerRemote), nullptr);
    EXPECT_TRUE(*target->valueOnLayer(Attribute::LayerRemote) == value);
    EXPECT_EQ(target->valueOnLayer(Attribute::LayerUser), nullptr);
    EXPECT_EQ(changes, 1);

    EXPECT_EQ(serializeVariant(registry.createVariantSerializer(code), toVariant(value)).toHex(),
              expected.toHex());
    const QVariant back = deserializeVariant(registry.createVariantDeserializer(code), expected);
    ASSERT_NE(variantValue<T>(back), nullptr);
    EXPECT_TRUE(*variantValue<T>(back) == value);
}

} // namespace

TEST(FixedValueCodes, EveryFixedCodeByteForByte) {
    const TypeRegistry registry;
    // 1.0f = 0000803f, 0.5f = 0000003f, 0.25f = 0000803e, -2.0f = 000000c0,
    // 1.5 (double) = 000000000000f83f.
    checkCode<bool>(registry, 1, 1, true, Bytes().hex("01000000").data());
    checkCode(registry, 2, 16, Basalt::Color(1.0f, 0.5f, 0.25f, 0.0f),
              Bytes().hex("0000803f0000003f0000803e00000000").data());
    checkCode(registry, 48, 16, Basalt::ColorPMA(0.25f, 0.5f, 1.0f, 0.5f),
              Bytes().hex("0000803e0000003f0000803f0000003f").data());
    checkCode(registry, 3, 4, -2.0f, Bytes().hex("000000c0").data());
    checkCode(registry, 4, 8, 1.5, Bytes().hex("000000000000f83f").data());
    checkCode(registry, 10, 4, uint32_t(0xA1B2C3D4u), Bytes().hex("d4c3b2a1").data());
    checkCode(registry, 11, 8, int64_t(-2), Bytes().hex("feffffffffffffff").data());
    checkCode(registry, 12, 8, uint64_t(0x0102030405060708ull),
              Bytes().hex("0807060504030201").data());
    checkCode(registry, 13, 16, Quant::Recti(1, -1, 300, 4),
              Bytes().word(1).word(0xFFFFFFFFu).word(300).word(4).data());
    checkCode(registry, 14, 16, Quant::Rectf(1.0f, 0.5f, -2.0f, 0.25f),
              Bytes().hex("0000803f0000003f000000c00000803e").data());
    checkCode(
        registry, 15, 32, Quant::Rectd(1.5, 0.0, 1.5, 1.5),
        Bytes().hex("000000000000f83f0000000000000000 000000000000f83f000000000000f83f").data());
    checkCode(registry, 16, 8, Quant::Vector2i(7, -3), Bytes().word(7).word(0xFFFFFFFDu).data());
    checkCode(registry, 17, 8, Quant::Vector2f(0.5f, 1.0f), Bytes().hex("0000003f0000803f").data());
    checkCode(registry, 19, 12, Quant::Vector3i(1, 2, 3), Bytes().word(1).word(2).word(3).data());
    checkCode(registry, 20, 12, Quant::Vector3f(1.0f, 0.5f, 0.25f),
              Bytes().hex("0000803f0000003f0000803e").data());
    checkCode(registry, 22, 16, Quant::Vector4i(4, 3, 2, 1),
              Bytes().word(4).word(3).word(2).word(1).data());
    checkCode(registry, 23, 16, Quant::Vector4f(0.25f, 0.5f, 1.0f, -2.0f),
              Bytes().hex("0000803e0000003f0000803f000000c0").data());

    Quant::Matrix2f m2; // identity, then the element in row 0, column 1 is -2
    m2.at(0, 1) = -2.0f;
    checkCode(registry, 26, 16, m2, Bytes().hex("0000803f000000c0000000000000803f").data());
    Quant::Matrix3f m3;
    m3.at(2, 0) = 0.5f;
    checkCode(registry, 29, 36, m3,
              Bytes()
                  .hex("0000803f0000000000000000 000000000000803f00000000 0000003f000000000000803f")
                  .data());
    Quant::Matrix4f m4;
    m4.at(3, 2) = 0.25f;
    checkCode(registry, 32, 64, m4,
              Bytes()
                  .hex("0000803f000000000000000000000000 000000000000803f0000000000000000 "
                       "00000000000000000000803f00000000 00000000000000000000803e0000803f")
                  .data());
    checkCode(registry, 34, 8, Basalt::TimeStamp(0x0000017F00000001ll),
              Bytes().hex("010000007f010000").data());
}

TEST(FixedValueCodes, BoolFalseAndOddBytes) {
    const TypeRegistry registry;
    std::unique_ptr<Attribute> created(registry.createAttribute(1));
    auto* flag = dynamic_cast<AttributeT<bool>*>(created.get());
    ASSERT_NE(flag, nullptr);
    uint32_t code = 0, size = 0;
    EXPECT_EQ(serialize(registry.createSerializer(flag, code, size)), Bytes().word(0).data());
    // Bytes are not validated: any non-zero byte is true.
    deserialize(registry.createDeserializer(1, flag), Bytes().hex("07000000").data());
    EXPECT_TRUE(flag->value());
    // A short bundle fails in the reader, leaving the value alone.
    std::unique_ptr<Attribute> number(registry.createAttribute(3));
    EXPECT_EQ(failure<std::out_of_range>(
                  [&] { deserialize(registry.createDeserializer(3, number.get()), QByteArray()); }),
              pastEnd);
}
