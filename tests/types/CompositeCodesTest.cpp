// Codes of tuples, strings, lists, containers, grids and splines: exact bytes, edge
// handling of peer-given lengths, and round trips into fresh attributes.
#include "TypesTestUtil.h"

#include "Dovel/types/MetaTypes.h"

#include "Tessel/AttributeAsset.h"
#include "Tessel/AttributeContainer.h"
#include "Tessel/AttributeGrid.h"
#include "Tessel/AttributeSpline.h"
#include "Tessel/AttributeT.h"

#include <gtest/gtest.h>

#include <memory>
#include <stdexcept>
#include <vector>

using namespace Dovel;
using namespace TypesTest;
using Tessel::Attribute;
using Tessel::AttributeT;

namespace {

constexpr auto L2 = Attribute::LayerRemote;

template <typename A> std::unique_ptr<A> make(const TypeRegistry& registry, uint32_t code) {
    std::unique_ptr<Attribute> created(registry.createAttribute(code));
    auto* typed = dynamic_cast<A*>(created.get());
    if (typed)
        created.release();
    return std::unique_ptr<A>(typed);
}

QByteArray bytesOf(const TypeRegistry& registry, Attribute* attribute, uint32_t expectedCode) {
    uint32_t code = 0, size = 99;
    const Serializer serializer = registry.createSerializer(attribute, code, size);
    EXPECT_TRUE(serializer);
    EXPECT_EQ(code, expectedCode);
    EXPECT_EQ(size, registry.valueSize(expectedCode));
    return serializer ? serialize(serializer) : QByteArray();
}

int changeCounter(Attribute& attribute, int& count) {
    return int(attribute.addListener([&count] { ++count; }, Attribute::RoleChange));
}

template <typename A>
void checkTuple(uint32_t code, const typename A::ValueType& value, const QByteArray& expected) {
    SCOPED_TRACE(testing::Message() << "type code " << code);
    const TypeRegistry registry;
    auto source = make<A>(registry, code);
    ASSERT_TRUE(source);
    source->setValue(value, Attribute::LayerUser);
    EXPECT_EQ(registry.valueSize(code), 8u);
    EXPECT_EQ(bytesOf(registry, source.get(), code).toHex(), expected.toHex());

    auto target = make<A>(registry, code);
    ASSERT_TRUE(target);
    int changes = 0;
    changeCounter(*target, changes);
    deserialize(registry.createDeserializer(code, target.get()), expected);
    EXPECT_EQ(changes, 1);
    ASSERT_NE(target->component(0).valueOnLayer(L2), nullptr);
    ASSERT_NE(target->component(1).valueOnLayer(L2), nullptr);
    EXPECT_TRUE(target->value() == value);

    EXPECT_EQ(serializeVariant(registry.createVariantSerializer(code), toVariant(value)).toHex(),
              expected.toHex());
    const QVariant back = deserializeVariant(registry.createVariantDeserializer(code), expected);
    ASSERT_NE(variantValue<typename A::ValueType>(back), nullptr);
    EXPECT_TRUE(*variantValue<typename A::ValueType>(back) == value);
}

} // namespace

TEST(CompositeCodes, TuplesSetBothComponentsWithOneChange) {
    checkTuple<AttributeT<Quant::Vector2f, Tessel::Separate>>(
        49, Quant::Vector2f(0.5f, -2.0f), Bytes().hex("0000003f000000c0").data());
    checkTuple<AttributeT<Quant::SizeF>>(50, Quant::SizeF(1.0f, 0.25f),
                                         Bytes().hex("0000803f0000803e").data());
    checkTuple<AttributeT<Quant::SizeI>>(52, Quant::SizeI(640, -1),
                                         Bytes().word(640).word(0xFFFFFFFFu).data());
}

TEST(CompositeCodes, StringsAndAssets) {
    const TypeRegistry registry;
    for (uint32_t code : {35u, 51u}) {
        SCOPED_TRACE(testing::Message() << "type code " << code);
        auto source = make<AttributeT<QString>>(registry, code);
        ASSERT_TRUE(source);
        EXPECT_EQ(code == 51, dynamic_cast<Tessel::AttributeAsset*>(source.get()) != nullptr);
        EXPECT_EQ(registry.valueSize(code), 0u);
        // Empty string: the single word 0.
        EXPECT_EQ(bytesOf(registry, source.get(), code), Bytes().word(0).data());
        // 5 UTF-8 bytes: count, bytes, 3 zero bytes.
        source->setValue(QString::fromUtf8("h\xc3\xa9ll"), Attribute::LayerUser);
        const QByteArray expected = Bytes().hex("0500000068c3a96c6c000000").data();
        EXPECT_EQ(bytesOf(registry, source.get(), code).toHex(), expected.toHex());

        auto target = make<AttributeT<QString>>(registry, code);
        EXPECT_EQ(deserialize(registry.createDeserializer(code, target.get()), expected), 12u);
        ASSERT_NE(target->valueOnLayer(L2), nullptr);
        EXPECT_EQ(*target->valueOnLayer(L2), QString::fromUtf8("h\xc3\xa9ll"));

        EXPECT_EQ(serializeVariant(registry.createVariantSerializer(code),
                                   QVariant(QString::fromUtf8("h\xc3\xa9ll"))),
                  expected);
        EXPECT_EQ(deserializeVariant(registry.createVariantDeserializer(code), expected),
                  QVariant(QString::fromUtf8("h\xc3\xa9ll")));
        // A count beyond the bundle fails in the reader.
        EXPECT_THROW(deserialize(registry.createDeserializer(code, target.get()),
                                 Bytes().word(0x7FFFFFFF).word(0).data()),
                     std::out_of_range);
    }
}

TEST(CompositeCodes, StringListsAndStringContainers) {
    const TypeRegistry registry;
    auto list = make<AttributeT<QStringList>>(registry, 36);
    auto container = make<Tessel::AttributeContainer<std::vector<QString>>>(registry, 44);
    ASSERT_TRUE(list);
    ASSERT_TRUE(container);

    // Empty list: one word 0; one empty string: 4 then 0.
    EXPECT_EQ(bytesOf(registry, list.get(), 36), Bytes().word(0).data());
    EXPECT_EQ(bytesOf(registry, container.get(), 44), Bytes().word(0).data());
    list->setValue(QStringList{QString()}, Attribute::LayerUser);
    container->setValue({QString()});
    EXPECT_EQ(bytesOf(registry, list.get(), 36), Bytes().word(4).word(0).data());
    EXPECT_EQ(bytesOf(registry, container.get(), 44), Bytes().word(4).word(0).data());

    const QByteArray twoStrings = Bytes().word(16).str("ab").str("cde").data();
    list->setValue(QStringList{"ab", "cde"}, Attribute::LayerUser);
    container->setValue({"ab", "cde"});
    EXPECT_EQ(bytesOf(registry, list.get(), 36).toHex(), twoStrings.toHex());
    EXPECT_EQ(bytesOf(registry, container.get(), 44).toHex(), twoStrings.toHex());
    EXPECT_EQ(
        serializeVariant(registry.createVariantSerializer(36), QVariant(QStringList{"ab", "cde"})),
        twoStrings);
    EXPECT_EQ(
        serializeVariant(registry.createVariantSerializer(44), QVariant(QStringList{"ab", "cde"})),
        twoStrings);

    auto listIn = make<AttributeT<QStringList>>(registry, 36);
    auto containerIn = make<Tessel::AttributeContainer<std::vector<QString>>>(registry, 44);
    int containerChanges = 0;
    changeCounter(*containerIn, containerChanges);
    deserialize(registry.createDeserializer(36, listIn.get()), twoStrings);
    deserialize(registry.createDeserializer(44, containerIn.get()), twoStrings);
    ASSERT_NE(listIn->valueOnLayer(L2), nullptr);
    EXPECT_EQ(*listIn->valueOnLayer(L2), (QStringList{"ab", "cde"}));
    EXPECT_EQ(containerIn->value(), (std::vector<QString>{"ab", "cde"}));
    EXPECT_EQ(containerChanges, 1);
    EXPECT_EQ(deserializeVariant(registry.createVariantDeserializer(44), twoStrings).toStringList(),
              (QStringList{"ab", "cde"}));

    // A last string running past the announced end is read whole, and the reader then
    // stands after it.
    const QByteArray overrun = Bytes().word(4).str("abcdef").word(0xEE).data();
    EXPECT_EQ(deserialize(registry.createDeserializer(36, listIn.get()), overrun), 16u);
    EXPECT_EQ(*listIn->valueOnLayer(L2), QStringList{"abcdef"});
    // A list cut short fails and leaves the container as it was, unreported.
    EXPECT_THROW(deserialize(registry.createDeserializer(44, containerIn.get()),
                             Bytes().word(16).str("xy").data()),
                 std::out_of_range);
    EXPECT_EQ(containerIn->value(), (std::vector<QString>{"ab", "cde"}));
    EXPECT_EQ(containerChanges, 1);
    // An empty list received replaces the content.
    deserialize(registry.createDeserializer(44, containerIn.get()), Bytes().word(0).data());
    EXPECT_TRUE(containerIn->value().empty());
}

TEST(CompositeCodes, FixedElementContainers) {
    const TypeRegistry registry;
    using Floats = Tessel::AttributeContainer<std::vector<float>>;
    auto floats = make<Floats>(registry, 40);
    ASSERT_TRUE(floats);
    floats->setValue({1.0f, -2.0f});
    const QByteArray floatBytes = Bytes().word(8).hex("0000803f000000c0").data();
    EXPECT_EQ(bytesOf(registry, floats.get(), 40).toHex(), floatBytes.toHex());
    EXPECT_EQ(serializeVariant(registry.createVariantSerializer(40),
                               QVariant::fromValue(QVector<float>{1.0f, -2.0f})),
              floatBytes);

    auto points = make<Tessel::AttributeContainer<std::vector<Quant::Vector2f>>>(registry, 41);
    points->setValue({Quant::Vector2f(0.5f, 1.0f)});
    const QByteArray pointBytes = Bytes().word(8).hex("0000003f0000803f").data();
    EXPECT_EQ(bytesOf(registry, points.get(), 41).toHex(), pointBytes.toHex());
    EXPECT_EQ(serializeVariant(registry.createVariantSerializer(41),
                               toVariant(QVector<Quant::Vector2f>{Quant::Vector2f(0.5f, 1.0f)})),
              pointBytes);

    auto ints = make<Tessel::AttributeContainer<std::vector<int32_t>>>(registry, 42);
    ints->setValue({-1, 2, 3});
    const QByteArray intBytes = Bytes().word(12).word(0xFFFFFFFFu).word(2).word(3).data();
    EXPECT_EQ(bytesOf(registry, ints.get(), 42), intBytes);
    auto uints = make<Tessel::AttributeContainer<std::vector<uint32_t>>>(registry, 43);
    uints->setValue({0xDEADBEEFu});
    const QByteArray uintBytes = Bytes().word(4).word(0xDEADBEEFu).data();
    EXPECT_EQ(bytesOf(registry, uints.get(), 43), uintBytes);
    EXPECT_EQ(serializeVariant(registry.createVariantSerializer(42),
                               QVariant::fromValue(QVector<int32_t>{-1, 2, 3})),
              intBytes);
    EXPECT_EQ(serializeVariant(registry.createVariantSerializer(43),
                               QVariant::fromValue(QVector<uint32_t>{0xDEADBEEFu})),
              uintBytes);

    // Round trips into fresh attributes, one change each.
    auto floatsIn = make<Floats>(registry, 40);
    int changes = 0;
    changeCounter(*floatsIn, changes);
    deserialize(registry.createDeserializer(40, floatsIn.get()), floatBytes);
    EXPECT_EQ(floatsIn->value(), (std::vector<float>{1.0f, -2.0f}));
    EXPECT_EQ(changes, 1);
    auto pointsIn = make<Tessel::AttributeContainer<std::vector<Quant::Vector2f>>>(registry, 41);
    deserialize(registry.createDeserializer(41, pointsIn.get()), pointBytes);
    EXPECT_EQ(pointsIn->value(), points->value());
    auto intsIn = make<Tessel::AttributeContainer<std::vector<int32_t>>>(registry, 42);
    deserialize(registry.createDeserializer(42, intsIn.get()), intBytes);
    EXPECT_EQ(intsIn->value(), ints->value());
    auto uintsIn = make<Tessel::AttributeContainer<std::vector<uint32_t>>>(registry, 43);
    deserialize(registry.createDeserializer(43, uintsIn.get()), uintBytes);
    EXPECT_EQ(uintsIn->value(), uints->value());
    EXPECT_EQ(deserializeVariant(registry.createVariantDeserializer(42), intBytes)
                  .value<QVector<int32_t>>(),
              (QVector<int32_t>{-1, 2, 3}));

    // L32 = 6: one whole float is read; the next value starts with the rest.
    {
        const Bundle bundle(
            BundleTest::packet(5, 1, 0, Bytes().word(6).hex("0000803f").word(7).data()));
        BundleReader reader(bundle);
        registry.createDeserializer(40, floatsIn.get())(reader);
        EXPECT_EQ(floatsIn->value(), std::vector<float>{1.0f});
        EXPECT_EQ(reader.readUInt32(), 7u);
    }
    // A huge count fails in the reader before anything is allocated.
    EXPECT_THROW(deserialize(registry.createDeserializer(41, pointsIn.get()),
                             Bytes().word(0xFFFFFFF8u).word(0).data()),
                 std::out_of_range);
    // An attribute of another class gets no deserializer.
    EXPECT_FALSE(registry.createDeserializer(40, intsIn.get()));
}

TEST(CompositeCodes, GridsAndSplines) {
    const TypeRegistry registry;
    using Grid = Tessel::AttributeGrid<uint8_t>;
    auto grid = make<Grid>(registry, 45);
    ASSERT_TRUE(grid);
    EXPECT_EQ(bytesOf(registry, grid.get(), 45), Bytes().word(4).word(0).data());
    const uint8_t cells[] = {1, 2, 3, 4, 5, 6};
    grid->setGrid(cells, 3, 2);
    const QByteArray gridBytes = Bytes().word(10).word(3).hex("0102030405060000").data();
    EXPECT_EQ(bytesOf(registry, grid.get(), 45).toHex(), gridBytes.toHex());
    EXPECT_EQ(serializeVariant(registry.createVariantSerializer(45), toVariant(grid->grid())),
              gridBytes);

    auto gridIn = make<Grid>(registry, 45);
    int changes = 0;
    changeCounter(*gridIn, changes);
    const Deserializer toGrid = registry.createDeserializer(45, gridIn.get());
    EXPECT_EQ(deserialize(toGrid, gridBytes), 16u);
    EXPECT_TRUE(gridIn->grid() == grid->grid());
    EXPECT_EQ(changes, 1);
    const QVariant gridVariant =
        deserializeVariant(registry.createVariantDeserializer(45), gridBytes);
    ASSERT_NE(variantValue<Basalt::MemGrid8u>(gridVariant), nullptr);
    EXPECT_TRUE(*variantValue<Basalt::MemGrid8u>(gridVariant) == grid->grid());

    // L32 = 4 with width 0: an empty grid of height 0.
    deserialize(toGrid, Bytes().word(4).word(0).data());
    EXPECT_EQ(gridIn->grid().width(), 0);
    EXPECT_EQ(gridIn->grid().height(), 0);
    EXPECT_EQ(changes, 2);
    // L32 < 4.
    EXPECT_EQ(
        failure<std::out_of_range>([&] { deserialize(toGrid, Bytes().word(3).word(0).data()); }),
        "AttributeGrid deserialize # not enough data");
    // Cells that do not fill the last row: the whole rows are taken.
    deserialize(toGrid, Bytes().word(9).word(2).hex("0a0b0c0d0e000000").data());
    EXPECT_EQ(gridIn->grid().width(), 2);
    EXPECT_EQ(gridIn->grid().height(), 2);
    EXPECT_EQ(gridIn->grid().at(1, 1), 0x0d);
    // A hostile length is bounded by the bundle before anything is allocated.
    EXPECT_EQ(failure<std::out_of_range>(
                  [&] { deserialize(toGrid, Bytes().word(0xFFFFFFF0u).word(1).word(0).data()); }),
              pastEnd);

    auto spline = make<Tessel::AttributeSpline>(registry, 46);
    ASSERT_TRUE(spline);
    spline->setPoints({Quant::Vector2f(1.0f, 0.5f), Quant::Vector2f(-2.0f, 0.25f)});
    const QByteArray splineBytes = Bytes().word(16).hex("0000803f0000003f000000c00000803e").data();
    EXPECT_EQ(bytesOf(registry, spline.get(), 46).toHex(), splineBytes.toHex());
    auto splineIn = make<Tessel::AttributeSpline>(registry, 46);
    int splineChanges = 0;
    changeCounter(*splineIn, splineChanges);
    deserialize(registry.createDeserializer(46, splineIn.get()), splineBytes);
    EXPECT_EQ(splineIn->points(), spline->points());
    EXPECT_EQ(splineChanges, 1);
    EXPECT_EQ(serializeVariant(registry.createVariantSerializer(46),
                               toVariant(QVector<Quant::Vector2f>(spline->points().begin(),
                                                                  spline->points().end()))),
              splineBytes);
}
