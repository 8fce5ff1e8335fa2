// Lookups of the registry: the integer pair of codes 9 and 47, host subclasses and
// unassigned codes.
#include "TypesTestUtil.h"

#include "Dovel/types/MetaTypes.h"

#include "Basalt/Trace.h"
#include "Tessel/AttributeEnum.h"
#include "Tessel/AttributeT.h"
#include "Tessel/Node.h"

#include <gtest/gtest.h>

#include <memory>
#include <typeinfo>

using namespace Dovel;
using namespace TypesTest;
using Tessel::Attribute;
using Tessel::AttributeT;

namespace {

// A host class derived from a registered one.
class Opacity : public AttributeT<float> {
public:
    ~Opacity() override { aboutToBeDestroyed(); }
};

} // namespace

TEST(RegistryLookup, EnumerationArrivesAsIntegerAndReturnsAsCode9) {
    const TypeRegistry registry;
    Tessel::AttributeEnum mode(nullptr, "mode", {{"off", 0}, {"on", 7}}, 7);
    uint32_t code = 0, size = 0;
    const Serializer fromEnum = registry.createSerializer(&mode, code, size);
    EXPECT_EQ(code, 47u);
    EXPECT_EQ(size, 4u);
    EXPECT_EQ(serialize(fromEnum), Bytes().word(7).data());
    for (uint32_t variantCode : {9u, 47u})
        EXPECT_EQ(serializeVariant(registry.createVariantSerializer(variantCode), QVariant(7)),
                  Bytes().word(7).data());

    std::unique_ptr<Attribute> received(registry.createAttribute(47));
    ASSERT_TRUE(received);
    EXPECT_EQ(typeid(*received), typeid(AttributeT<int>));
    deserialize(registry.createDeserializer(47, received.get()), Bytes().word(7).data());
    auto* integer = static_cast<AttributeT<int>*>(received.get());
    ASSERT_NE(integer->valueOnLayer(L2), nullptr);
    EXPECT_EQ(*integer->valueOnLayer(L2), 7);

    const Serializer back = registry.createSerializer(received.get(), code, size);
    EXPECT_EQ(code, 9u);
    EXPECT_EQ(size, 4u);
    EXPECT_EQ(serialize(back), Bytes().word(7).data());
    std::unique_ptr<Attribute> nine(registry.createAttribute(9));
    EXPECT_EQ(typeid(*nine), typeid(AttributeT<int>));

    // The integer deserializer takes any attribute that accepts an integer.
    AttributeT<float> number;
    deserialize(registry.createDeserializer(9, &number), Bytes().word(0xFFFFFFFEu).data());
    ASSERT_NE(number.valueOnLayer(L2), nullptr);
    EXPECT_EQ(*number.valueOnLayer(L2), -2.0f);
    // Negative values survive the word.
    mode.setValue(-5, Attribute::LayerUser);
    EXPECT_EQ(serialize(fromEnum), Bytes().word(0xFFFFFFFBu).data());
}

TEST(RegistryLookup, SubclassTravelsAsItsRegisteredClass) {
    const TypeRegistry registry;
    Opacity opacity;
    opacity.setValue(0.5f, Attribute::LayerUser);
    uint32_t code = 0, size = 0;
    const Serializer serializer = registry.createSerializer(&opacity, code, size);
    ASSERT_TRUE(serializer);
    EXPECT_EQ(code, 3u);
    EXPECT_EQ(size, 4u);
    EXPECT_EQ(serialize(serializer), Bytes().hex("0000003f").data());
    deserialize(registry.createDeserializer(3, &opacity), Bytes().hex("0000803f").data());
    EXPECT_EQ(*opacity.valueOnLayer(L2), 1.0f);

    // A class the registry does not know: empty, no message.
    Tessel::Node node;
    Basalt::TraceCapture capture;
    code = 77;
    EXPECT_FALSE(registry.createSerializer(&node, code, size));
    EXPECT_FALSE(registry.createSerializer(nullptr, code, size));
    EXPECT_EQ(code, 77u);
    EXPECT_TRUE(capture.lines().isEmpty()) << capture.dump().toStdString();
}

TEST(RegistryLookup, UnassignedCodes) {
    const TypeRegistry registry;
    AttributeT<float> number;
    for (uint32_t code : {5u, 18u, 1000u}) {
        EXPECT_FALSE(registry.createDeserializer(code, &number));
        EXPECT_EQ(registry.createAttribute(code), nullptr);
        EXPECT_FALSE(registry.createVariantSerializer(code));
        EXPECT_FALSE(registry.createVariantDeserializer(code));
        EXPECT_EQ(registry.valueSize(code), 0u);
    }
    // Every assigned code has all of its tables filled.
    for (uint32_t code : {1u,  2u,  3u,  4u,  9u,  10u, 11u, 12u, 13u, 14u, 15u, 16u,
                          17u, 19u, 20u, 22u, 23u, 26u, 29u, 32u, 34u, 35u, 36u, 40u,
                          41u, 42u, 43u, 44u, 45u, 46u, 47u, 48u, 49u, 50u, 51u, 52u}) {
        SCOPED_TRACE(testing::Message() << "type code " << code);
        std::unique_ptr<Attribute> attribute(registry.createAttribute(code));
        ASSERT_TRUE(attribute);
        EXPECT_TRUE(registry.createDeserializer(code, attribute.get()));
        EXPECT_TRUE(registry.createVariantSerializer(code));
        EXPECT_TRUE(registry.createVariantDeserializer(code));
        uint32_t sent = 0, size = 0;
        EXPECT_TRUE(registry.createSerializer(attribute.get(), sent, size));
        EXPECT_EQ(sent, code == 47 ? 9u : code);
    }
}
