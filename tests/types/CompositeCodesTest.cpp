// Codes of tuples, strings, lists, containers, grids and splines: the exact bytes of a
// known value (from the attribute and from the variant codecs), the round trip into a
// fresh attribute with one change, and one table of short, overrunning and hostile
// payloads.
#include "TypesTestUtil.h"

#include "Dovel/types/MetaTypes.h"

#include "Tessel/AttributeContainer.h"
#include "Tessel/AttributeGrid.h"
#include "Tessel/AttributeSpline.h"
#include "Tessel/AttributeT.h"

#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <stdexcept>
#include <vector>

using namespace Dovel;
using namespace TypesTest;
using Quant::Vector2f;
using Tessel::Attribute;
using Tessel::AttributeT;

namespace {

using Set = std::function<void(Attribute&)>;
using Grid = Tessel::AttributeGrid<uint8_t>;
template <typename T> using Container = Tessel::AttributeContainer<std::vector<T>>;

template <typename A, typename V> Set value(V v) {
    return [v](Attribute& a) { dynamic_cast<A&>(a).setValue(v, Attribute::LayerUser); };
}
template <typename T> Set content(std::vector<T> v) {
    return [v](Attribute& a) { dynamic_cast<Container<T>&>(a).setValue(v); };
}

QByteArray bytesOf(const TypeRegistry& registry, Attribute* attribute, uint32_t expectedCode) {
    uint32_t code = 0, size = 99;
    const Serializer serializer = registry.createSerializer(attribute, code, size);
    EXPECT_TRUE(serializer);
    EXPECT_EQ(code, expectedCode);
    EXPECT_EQ(size, registry.valueSize(expectedCode));
    return serializer ? serialize(serializer) : QByteArray();
}

int changesOf(Attribute& attribute, int& count) {
    return int(attribute.addListener([&count] { ++count; }, Attribute::RoleChange));
}

} // namespace

TEST(CompositeCodes, KnownValuesByteForByteAndBackWithOneChange) {
    const TypeRegistry registry;
    const uint8_t cells[] = {1, 2, 3, 4, 5, 6};
    Basalt::MemGrid8u grid;
    grid.set(cells, 3, 2);
    const std::vector<Vector2f> points{{1.0f, 0.5f}, {-2.0f, 0.25f}};
    const QString text = QString::fromUtf8("h\xc3\xa9ll"); // 5 UTF-8 bytes
    const QByteArray textBytes = Bytes().hex("0500000068c3a96c6c000000").data();
    const QByteArray twoStrings = Bytes().word(16).str("ab").str("cde").data();
    const struct {
        uint32_t code;
        Set set;
        QVariant variant;
        QByteArray bytes;
    } rows[] = {
        // Tuples: both components arrive inside one update.
        {49, value<AttributeT<Vector2f, Tessel::Separate>>(Vector2f(0.5f, -2.0f)),
         toVariant(Vector2f(0.5f, -2.0f)), Bytes().hex("0000003f000000c0").data()},
        {50, value<AttributeT<Quant::SizeF>>(Quant::SizeF(1.0f, 0.25f)),
         toVariant(Quant::SizeF(1.0f, 0.25f)), Bytes().hex("0000803f0000803e").data()},
        {52, value<AttributeT<Quant::SizeI>>(Quant::SizeI(640, -1)),
         toVariant(Quant::SizeI(640, -1)), Bytes().word(640).word(0xFFFFFFFFu).data()},
        // Strings and assets: count, bytes, zero padding.
        {35, value<AttributeT<QString>>(text), QVariant(text), textBytes},
        {51, value<AttributeT<QString>>(text), QVariant(text), textBytes},
        // String lists: the byte length of what follows, then the strings.
        {36, value<AttributeT<QStringList>>(QStringList{"ab", "cde"}),
         QVariant(QStringList{"ab", "cde"}), twoStrings},
        {36, value<AttributeT<QStringList>>(QStringList{QString()}), QVariant(QStringList{""}),
         Bytes().word(4).word(0).data()},
        {44, content<QString>({"ab", "cde"}), QVariant(QStringList{"ab", "cde"}), twoStrings},
        // Containers of fixed elements: the byte length, then the elements.
        {40, content<float>({1.0f, -2.0f}), QVariant::fromValue(QVector<float>{1.0f, -2.0f}),
         Bytes().word(8).hex("0000803f000000c0").data()},
        {41, content<Vector2f>({Vector2f(0.5f, 1.0f)}),
         toVariant(QVector<Vector2f>{Vector2f(0.5f, 1.0f)}),
         Bytes().word(8).hex("0000003f0000803f").data()},
        {42, content<int32_t>({-1, 2, 3}), QVariant::fromValue(QVector<int32_t>{-1, 2, 3}),
         Bytes().word(12).word(0xFFFFFFFFu).word(2).word(3).data()},
        {43, content<uint32_t>({0xDEADBEEFu}), QVariant::fromValue(QVector<uint32_t>{0xDEADBEEFu}),
         Bytes().word(4).word(0xDEADBEEFu).data()},
        // Grid: the byte length, the width, the cells row by row, padded.
        {45, [&](Attribute& a) { dynamic_cast<Grid&>(a).setGrid(cells, 3, 2); }, toVariant(grid),
         Bytes().word(10).word(3).hex("0102030405060000").data()},
        {46, [&](Attribute& a) { dynamic_cast<Tessel::AttributeSpline&>(a).setPoints(points); },
         toVariant(QVector<Vector2f>(points.begin(), points.end())),
         Bytes().word(16).hex("0000803f0000003f000000c00000803e").data()},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(testing::Message()
                     << "type code " << row.code << " " << row.bytes.toHex().constData());
        std::unique_ptr<Attribute> source(registry.createAttribute(row.code));
        ASSERT_TRUE(source);
        row.set(*source);
        EXPECT_EQ(bytesOf(registry, source.get(), row.code).toHex(), row.bytes.toHex());

        std::unique_ptr<Attribute> target(registry.createAttribute(row.code));
        int changes = 0;
        changesOf(*target, changes);
        EXPECT_EQ(deserialize(registry.createDeserializer(row.code, target.get()), row.bytes),
                  uint32_t(row.bytes.size()));
        EXPECT_EQ(changes, 1);
        EXPECT_EQ(bytesOf(registry, target.get(), row.code).toHex(), row.bytes.toHex());

        const VariantSerializer toBytes = registry.createVariantSerializer(row.code);
        EXPECT_EQ(serializeVariant(toBytes, row.variant).toHex(), row.bytes.toHex());
        const QVariant back =
            deserializeVariant(registry.createVariantDeserializer(row.code), row.bytes);
        EXPECT_EQ(serializeVariant(toBytes, back).toHex(), row.bytes.toHex());
    }
    // Empty values: a string or list is the single word 0, a grid has width 0.
    for (uint32_t code : {35u, 36u, 44u, 40u, 45u}) {
        std::unique_ptr<Attribute> empty(registry.createAttribute(code));
        EXPECT_EQ(bytesOf(registry, empty.get(), code),
                  code == 45 ? Bytes().word(4).word(0).data() : Bytes().word(0).data())
            << code;
    }
}

// Peer-given lengths: a count beyond the bundle fails in the reader before anything is
// allocated and leaves the attribute as it was, unreported; a last string running past
// the announced end is read whole; whole elements and rows are taken from a length that
// ends inside one.
TEST(CompositeCodes, ShortOverrunningAndHostileLengths) {
    const TypeRegistry registry;
    const int Throws = -1, Any = -2;
    const struct {
        uint32_t code;
        QByteArray payload;
        int consumed;
        QByteArray after; // what the attribute then serializes to
    } rows[] = {
        {35, Bytes().word(0x7FFFFFFF).word(0).data(), Throws, Bytes().word(0).data()},
        {51, Bytes().word(0x7FFFFFFF).word(0).data(), Throws, Bytes().word(0).data()},
        {36, Bytes().word(4).str("abcdef").word(0xEE).data(), 16,
         Bytes().word(12).str("abcdef").data()},
        {44, Bytes().word(16).str("xy").data(), Throws, Bytes().word(0).data()},
        {40, Bytes().word(6).hex("0000803f").word(7).data(), 8,
         Bytes().word(4).hex("0000803f").data()},
        {41, Bytes().word(0xFFFFFFF8u).word(0).data(), Throws, Bytes().word(0).data()},
        {45, Bytes().word(3).word(0).data(), Throws, Bytes().word(4).word(0).data()},
        {45, Bytes().word(9).word(2).hex("0a0b0c0d0e000000").data(), Any,
         Bytes().word(8).word(2).hex("0a0b0c0d").data()},
        {45, Bytes().word(0xFFFFFFF0u).word(1).word(0).data(), Throws,
         Bytes().word(4).word(0).data()},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(testing::Message()
                     << "type code " << row.code << " " << row.payload.toHex().constData());
        std::unique_ptr<Attribute> target(registry.createAttribute(row.code));
        int changes = 0;
        changesOf(*target, changes);
        const Deserializer deserializer = registry.createDeserializer(row.code, target.get());
        if (row.consumed == Throws) {
            EXPECT_THROW(deserialize(deserializer, row.payload), std::out_of_range);
            EXPECT_EQ(changes, 0);
        } else {
            const uint32_t consumed = deserialize(deserializer, row.payload);
            if (row.consumed != Any) {
                EXPECT_EQ(consumed, uint32_t(row.consumed));
            }
        }
        EXPECT_EQ(bytesOf(registry, target.get(), row.code).toHex(), row.after.toHex());
    }
    // An attribute of another class gets no deserializer.
    Container<int32_t> ints;
    EXPECT_FALSE(registry.createDeserializer(40, &ints));
}
