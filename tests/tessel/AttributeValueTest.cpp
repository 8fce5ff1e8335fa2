// Layered values, change counting and the conversions of the typed attributes.
#include "Tessel/AttributeT.h"
#include "Tessel/Node.h"

#include "TesselTestUtil.h"

#include <gtest/gtest.h>

#include <cmath>
#include <functional>
#include <limits>
#include <memory>
#include <string>

using namespace Tessel;
using namespace TesselTest;

TEST(AttributeLayers, HighestDefinedLayerWinsAndFiresOnlyEffectiveChanges) {
    Node root;
    auto* a = new AttributeT<float>(&root, "f", 1.5f);
    Changes changes(*a);
    bool ok = false;
    EXPECT_EQ(a->value(), 1.5f);
    EXPECT_EQ(a->asFloat(&ok, Current), 1.5f);
    EXPECT_TRUE(ok);
    EXPECT_TRUE(a->isValueDefinedOnLayer(L0));
    EXPECT_FALSE(a->isChanged());

    a->setValue(3.0f, L2); // a remote update
    EXPECT_EQ(changes.count, 1);
    EXPECT_EQ(a->value(), 3.0f);
    EXPECT_EQ(a->asFloat(&ok, L0), 1.5f);
    EXPECT_TRUE(a->isChanged());

    a->setValue(4.0f, L3); // higher layer wins
    EXPECT_EQ(changes.count, 2);
    EXPECT_EQ(a->asFloat(nullptr, Current), 4.0f);

    a->setValue(5.0f, L2); // hidden under layer 3: stored, no change
    EXPECT_EQ(changes.count, 2);
    EXPECT_EQ(a->value(), 4.0f);
    EXPECT_EQ(a->asFloat(&ok, L2), 5.0f);

    a->setValue(4.0f, L3); // equal: nothing
    EXPECT_EQ(changes.count, 2);

    a->clearValue(L3); // uncovers layer 2
    EXPECT_EQ(changes.count, 3);
    EXPECT_EQ(a->value(), 5.0f);

    EXPECT_EQ(a->asFloat(&ok, Attribute::LayerScript), 0.0f);
    EXPECT_FALSE(ok);
    EXPECT_FALSE(a->isValueDefinedOnLayer(L3));
    EXPECT_TRUE(a->isValueDefinedOnLayer(Current));

    a->setAsDefaults(); // 5 becomes the default; the effective value stays
    EXPECT_EQ(changes.count, 3);
    EXPECT_EQ(a->value(), 5.0f);
    EXPECT_EQ(a->asFloat(&ok, L0), 5.0f);
    EXPECT_FALSE(a->isValueDefinedOnLayer(L2));
    EXPECT_FALSE(a->isChanged());

    // The query value is not a storage layer.
    a->setValue(9.0f, Current);
    EXPECT_FALSE(a->set(9.0f, Current));
    EXPECT_EQ(a->value(), 5.0f);
    EXPECT_EQ(changes.count, 3);

    // An attribute's own value written to a second layer, which moves where the value
    // is kept (without listeners, a string and a float keep it in place until then).
    AttributeT<QString> s(nullptr, "s", QStringLiteral("x"));
    s.setValue(s.value(), L3);
    EXPECT_EQ(*s.valueOnLayer(L3), QStringLiteral("x"));
    EXPECT_EQ(*s.valueOnLayer(L0), QStringLiteral("x"));
    s.setAsDefaults();
    s.setValue(QStringLiteral("y"), L2);
    s.setValue(s.value(), L3);
    EXPECT_EQ(s.value(), QStringLiteral("y"));
    EXPECT_EQ(*s.valueOnLayer(L0), QStringLiteral("x"));
    AttributeT<float> f(nullptr, "f", 2.0f);
    f.setValue(f.value(), L2);
    EXPECT_EQ(*f.valueOnLayer(L2), 2.0f);
    EXPECT_EQ(f.value(), 2.0f);
}

TEST(AttributeLayers, NaNIsOneChangeAndNegativeZeroIsKept) {
    // NaN written twice is one change.
    AttributeT<double> real;
    Changes realChanges(real);
    real.setValue(std::numeric_limits<double>::quiet_NaN(), L2);
    real.setValue(std::numeric_limits<double>::quiet_NaN(), L2);
    EXPECT_TRUE(std::isnan(real.value()));
    EXPECT_EQ(realChanges.count, 1);
    // -0 is a value of its own: it replaces +0 and fires.
    AttributeT<float> zero;
    Changes zeroChanges(zero);
    zero.setValue(-0.0f, L2);
    EXPECT_TRUE(std::signbit(zero.value()));
    EXPECT_EQ(zeroChanges.count, 1);
}

namespace {

using Set = std::function<bool(Attribute&)>;
Set text(const char* t) {
    return [t](Attribute& a) { return a.set(QString(t), L2); };
}
template <typename V> Set value(V v) {
    return [v](Attribute& a) { return a.set(v, L2); };
}
template <typename T> std::unique_ptr<Attribute> make() {
    return std::make_unique<AttributeT<T>>();
}
const float NaN = std::numeric_limits<float>::quiet_NaN();

} // namespace

// Each row sets a fresh attribute through the base interface, as the wire and the tool
// do; a refused value leaves the default-constructed one, shown by its text.
TEST(AttributeConversions, EveryTypeTakesWhatFitsAndRefusesTheRest) {
    using Quant::Vector2f;
    using Quant::Vector3f;
    using Quant::Vector4f;
    const struct {
        std::unique_ptr<Attribute> (*make)();
        const char* type;
        Set set;
        bool accepted;
        const char* text;
    } rows[] = {
        {make<int32_t>, "int", value(7), true, "7"},
        {make<int32_t>, "int", value(2.5f), true, "3"}, // halves round away from zero
        {make<int32_t>, "int", value(-2.5f), true, "-3"},
        {make<int32_t>, "int", text(" 42 "), true, "42"},
        {make<int32_t>, "int", text("4x"), false, "0"},
        {make<int32_t>, "int", value(1e10f), false, "0"},
        {make<int32_t>, "int", value(NaN), false, "0"},
        {make<int32_t>, "int", value(Vector2f(1, 2)), false, "0"},
        {make<int32_t>, "int", [](Attribute& a) { return a.set(7, L2, Attribute::UnitPercent); },
         false, "0"},
        {make<uint32_t>, "uint", value(-1), false, "0"},
        {make<uint32_t>, "uint", text("4294967295"), true, "4294967295"},
        {make<uint32_t>, "uint", text("4294967296"), false, "0"},
        {make<uint32_t>, "uint", text("-0"), false, "0"},
        {make<int64_t>, "int64", text("9007199254740993"), true, "9007199254740993"},
        {make<int64_t>, "int64", value(-5), true, "-5"},
        {make<uint64_t>, "uint64", text("18446744073709551615"), true, "18446744073709551615"},
        {make<uint64_t>, "uint64", text("-1"), false, "0"},
        {make<uint64_t>, "uint64", value(-1), false, "0"},
        {make<bool>, "bool", value(0), true, "false"},
        {make<bool>, "bool", text("TRUE"), true, "true"},
        {make<bool>, "bool", text("maybe"), false, "false"},
        {make<bool>, "bool", value(0.25f), true, "true"},
        {make<bool>, "bool", value(NaN), false, "false"},
        {make<float>, "float", value(0.1f), true, "0.1"}, // shortest text that reads back
        {make<float>, "float", text("1e3"), true, "1000"},
        {make<float>, "float", text("1e39"), false, "0"}, // beyond a float
        {make<double>, "double", text("0.1"), true, "0.1"},
        {make<double>, "double", value(3), true, "3"},
        {make<Vector3f>, "vec3f", value(Vector3f(1.0f, 2.5f, 3.0f)), true, "1 2.5 3"},
        {make<Vector3f>, "vec3f", text("4, 5 6"), true, "4 5 6"},
        {make<Vector3f>, "vec3f", text("1 2"), false, "0 0 0"},
        {make<Vector3f>, "vec3f", text("1 2 z"), false, "0 0 0"},
        {make<Vector3f>, "vec3f", value(Vector2f(1, 2)), false, "0 0 0"},
        {make<Vector3f>, "vec3f", value(1.0f), false, "0 0 0"},
        {make<Quant::Vector2i>, "vec2i", value(Vector2f(1.4f, -2.6f)), true, "1 -3"},
        {make<Quant::Vector2i>, "vec2i", value(Vector2f(3e9f, 0)), false, "0 0"},
        {make<Quant::Vector4i>, "vec4i", value(Vector4f(1, 2, 3, 4)), true, "1 2 3 4"},
        {make<Quant::Recti>, "recti", value(Vector4f(0, 1, 10, 11)), true, "0 1 10 11"},
        {make<Quant::Rectd>, "rectd", text("0.1 0 1 2"), true, "0.1 0 1 2"},
        {make<Quant::Matrix2f>, "mat2f", text("1 2 3 4"), true, "1 2 3 4"}, // row by row
        {make<Quant::Matrix2f>, "mat2f", value(Vector4f(1, 2, 3, 4)), false, "1 0 0 1"},
        {make<Quant::Matrix3f>, "mat3f", text("1 2 3"), false, "1 0 0 0 1 0 0 0 1"},
        {make<Basalt::TimeStamp>, "timestamp", text("1763855000123456"), true, "1763855000123456"},
        {make<Basalt::TimeStamp>, "timestamp", value(5), false, "0"},
        {make<Basalt::TimeStamp>, "timestamp", text("soon"), false, "0"},
        {make<QString>, "string", value(12), true, "12"},
        {make<QString>, "string", value(0.5f), true, "0.5"},
        {make<QStringList>, "stringlist", text("a,b,c"), true, "a,b,c"},
        {make<QStringList>, "stringlist", text(""), true, ""},
    };
    for (const auto& row : rows) {
        const std::unique_ptr<Attribute> a = row.make();
        SCOPED_TRACE(std::string(row.type) + " -> " + row.text);
        EXPECT_EQ(a->type(), row.type);
        EXPECT_EQ(row.set(*a), row.accepted);
        EXPECT_EQ(a->asString(), row.text);
    }

    // Reading as a narrower number says when it does not fit.
    bool ok = true;
    AttributeT<uint32_t> u(nullptr, "", 4294967295u);
    EXPECT_EQ(u.asInt(&ok), 0);
    EXPECT_FALSE(ok);
    AttributeT<QString> s(nullptr, "", "abc");
    s.asInt(&ok);
    EXPECT_FALSE(ok);
    AttributeT<Vector3f> v;
    v.asFloat(&ok);
    EXPECT_FALSE(ok);
}
