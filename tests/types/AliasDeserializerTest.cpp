// Aliases: an alias without a target caches the latest value until it gets one, and
// outlives or is outlived by its deserializer.
#include "TypesTestUtil.h"

#include "Dovel/types/AliasDeserializer.h"

#include "Tessel/AttributeAlias.h"
#include "Tessel/AttributeT.h"
#include "Tessel/Node.h"

#include <gtest/gtest.h>

using namespace Dovel;
using namespace TypesTest;
using Tessel::Attribute;
using Tessel::AttributeAlias;
using Tessel::AttributeT;

namespace {} // namespace

TEST(AliasCodecs, OnlyTheLastCachedValueIsAppliedOnce) {
    const TypeRegistry registry;
    Tessel::Node root;
    auto* target = new AttributeT<float>(&root, "target");
    auto* alias = new AttributeAlias(&root, "alias");
    int changes = 0;
    target->addListener([&changes] { ++changes; }, Attribute::RoleChange);

    const int listenersBefore = alias->listenerCount();
    const Deserializer deserializer = registry.createDeserializer(3, alias);
    ASSERT_TRUE(deserializer);
    EXPECT_GT(alias->listenerCount(), listenersBefore);
    deserialize(deserializer, Bytes().hex("0000803f").data());                // 1.0
    EXPECT_EQ(deserialize(deserializer, Bytes().hex("000000c0").data()), 4u); // -2.0
    EXPECT_EQ(changes, 0);

    alias->setTarget(target);
    ASSERT_NE(target->valueOnLayer(L2), nullptr);
    EXPECT_EQ(*target->valueOnLayer(L2), -2.0f);
    EXPECT_EQ(changes, 1);
    EXPECT_EQ(alias->listenerCount(), listenersBefore);

    // Bound: values go straight to the target, also after later retargets.
    alias->setTarget(nullptr);
    deserialize(deserializer, Bytes().hex("0000003f").data());
    EXPECT_EQ(*target->valueOnLayer(L2), 0.5f);
    EXPECT_EQ(changes, 2);
}

TEST(AliasCodecs, StringValueIsCachedByteIdentical) {
    const TypeRegistry registry;
    Tessel::Node root;
    auto* target = new AttributeT<QString>(&root, "target");
    auto* alias = new AttributeAlias(&root, "alias");
    const Deserializer deserializer = registry.createDeserializer(35, alias);
    const FunctorWrap* wrap = deserializer.target<FunctorWrap>();
    ASSERT_NE(wrap, nullptr);
    ASSERT_TRUE(wrap->aliasDeserializer());

    const QByteArray encoded = Bytes().str("hello").data(); // 05000000 68656c6c6f 000000
    EXPECT_EQ(deserialize(deserializer, encoded + Bytes().word(99).data()), 12u);
    EXPECT_EQ(wrap->aliasDeserializer()->cachedValue().toHex(), encoded.toHex());
    EXPECT_FALSE(wrap->aliasDeserializer()->isBound());

    // A value whose padding is missing at the end of the bundle is cached padded.
    deserialize(deserializer, Bytes().word(2).raw("ok").data());
    EXPECT_EQ(wrap->aliasDeserializer()->cachedValue(), Bytes().str("ok").data());

    alias->setTarget(target);
    EXPECT_TRUE(wrap->aliasDeserializer()->isBound());
    EXPECT_TRUE(wrap->aliasDeserializer()->cachedValue().isEmpty());
    EXPECT_EQ(*target->valueOnLayer(L2), QString("ok"));

    // A read past the end while caching throws like any other read.
    const Deserializer other = registry.createDeserializer(35, new AttributeAlias(&root, "x"));
    EXPECT_THROW(deserialize(other, Bytes().word(40).data()), std::out_of_range);
}

TEST(AliasCodecs, EmptyWrapAndDeserializerOutlivedByAlias) {
    const FunctorWrap empty;
    const Bundle bundle(BundleTest::packet(5, 1, 0, Bytes().word(1).data()));
    BundleReader reader(bundle);
    empty(reader);
    EXPECT_EQ(reader.pos(), 16u); // logs, reads nothing

    // The deserializer dies before the alias gets a target: the alias must not call it.
    const TypeRegistry registry;
    Tessel::Node root;
    auto* target = new AttributeT<float>(&root, "target");
    auto* alias = new AttributeAlias(&root, "alias");
    {
        const Deserializer deserializer = registry.createDeserializer(3, alias);
        deserialize(deserializer, Bytes().hex("0000803f").data());
    }
    alias->setTarget(target);
    EXPECT_EQ(target->valueOnLayer(L2), nullptr);

    // The alias dies before the deserializer, which then reads values past.
    auto* doomed = new AttributeAlias(&root, "doomed");
    const Deserializer survivor = registry.createDeserializer(3, doomed);
    const std::shared_ptr<AliasDeserializer>& held =
        survivor.target<FunctorWrap>()->aliasDeserializer();
    deserialize(survivor, Bytes().hex("0000803f").data());
    root.deleteAttribute(doomed);
    EXPECT_TRUE(held->cachedValue().isEmpty());
    EXPECT_EQ(deserialize(survivor, Bytes().hex("000000c0").data()), 4u);
    EXPECT_TRUE(held->cachedValue().isEmpty());
    EXPECT_FALSE(held->isBound());
}
