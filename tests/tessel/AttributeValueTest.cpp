// Layered values, change counting and the conversions of the typed attributes.
#include "Tessel/AttributeAsset.h"
#include "Tessel/AttributeEnum.h"
#include "Tessel/AttributeT.h"
#include "Tessel/Node.h"

#include "Basalt/Trace.h"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>

using namespace Tessel;

namespace {

constexpr auto L0 = Attribute::LayerDefault;
constexpr auto L2 = Attribute::LayerRemote;
constexpr auto L3 = Attribute::LayerUser;
constexpr auto L5 = Attribute::LayerOverride;
constexpr auto Current = Attribute::LayerCurrent;

// Counts the change notifications of one attribute.
struct Changes {
    explicit Changes(Attribute& attribute) {
        attribute.addListener([this] { ++count; }, Attribute::RoleChange);
    }
    int count = 0;
};

} // namespace

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
    EXPECT_EQ(a->asFloat(&ok, L2), 3.0f);
    EXPECT_TRUE(ok);
    EXPECT_EQ(a->asFloat(&ok, L0), 1.5f);
    EXPECT_TRUE(ok);
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
    a->clearValue(L3);
    EXPECT_EQ(changes.count, 3);

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

    a->setValue(5.0f, L2); // equal to the default
    EXPECT_EQ(changes.count, 3);
    a->copyValueFromLayer(L2, L5);
    EXPECT_EQ(changes.count, 3);
    EXPECT_EQ(a->asFloat(&ok, L5), 5.0f);
    a->setValue(6.0f, L3);
    a->copyValueFromLayer(L3, L5); // override now holds 6, effective unchanged at 6
    EXPECT_EQ(changes.count, 4);
    a->copyValueFromLayer(Attribute::LayerScript, L5); // copying an empty layer clears
    EXPECT_FALSE(a->isValueDefinedOnLayer(L5));
    EXPECT_EQ(changes.count, 4);

    // The query value is not a storage layer.
    Basalt::TraceCapture capture;
    a->setValue(9.0f, Current);
    EXPECT_FALSE(a->set(9.0f, Current));
    EXPECT_EQ(a->value(), 6.0f);
    EXPECT_EQ(changes.count, 4);
    EXPECT_EQ(capture.count("AttributeBaseT::setValue # Layer 6 of 'f' is not a storage layer",
                            Basalt::Trace::Warning),
              1)
        << capture.dump().toStdString();
}

TEST(AttributeLayers, NoDefinedLayerMeansDefaultConstructedValue) {
    AttributeT<QString> text;
    Changes textChanges(text);
    bool ok = false;
    EXPECT_TRUE(text.value().isEmpty());
    EXPECT_EQ(text.asString(&ok), QString());
    EXPECT_TRUE(ok);
    EXPECT_FALSE(text.isValueDefinedOnLayer(Current));
    text.setValue("x", L2);
    text.clearValue(L2);
    EXPECT_TRUE(text.value().isEmpty());
    EXPECT_EQ(textChanges.count, 2);

    // A default-constructed matrix is the identity, and that is the fallback value.
    AttributeT<Quant::Matrix2f> matrix;
    Changes matrixChanges(matrix);
    Quant::Matrix2f m;
    m.at(0, 1) = 2.0f;
    matrix.setValue(m, L2);
    matrix.clearValue(L2);
    EXPECT_EQ(matrix.value(), Quant::Matrix2f());
    EXPECT_EQ(matrixChanges.count, 2);

    // setAsDefaults on an attribute without any value keeps the default-constructed one.
    AttributeT<int> number;
    Changes numberChanges(number);
    number.setAsDefaults();
    EXPECT_TRUE(number.isValueDefinedOnLayer(L0));
    EXPECT_EQ(number.value(), 0);
    EXPECT_EQ(numberChanges.count, 0);

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

    // A value equal to the effective one but not the same (a vector's -0) changes nothing
    // and is still kept as written on its layer, to come back when it is uncovered.
    AttributeT<Quant::Vector3f> vector;
    Changes vectorChanges(vector);
    vector.setValue(Quant::Vector3f(-0.0f, 0.0f, 0.0f), L2);
    EXPECT_EQ(vectorChanges.count, 0);
    EXPECT_FALSE(std::signbit(vector.value().x));
    EXPECT_TRUE(std::signbit(vector.valueOnLayer(L2)->x));
    vector.setValue(Quant::Vector3f(1.0f, 1.0f, 1.0f), L3);
    vector.clearValue(L3);
    EXPECT_EQ(vectorChanges.count, 2);
    EXPECT_TRUE(std::signbit(vector.value().x));
    vector.setAsDefaults();
    vector.setValue(Quant::Vector3f(2.0f, 0.0f, 0.0f), L5);
    EXPECT_TRUE(std::signbit(vector.valueOnLayer(L0)->x));
    EXPECT_EQ(vector.value().x, 2.0f);
}

TEST(AttributeConversions, NumbersConvertAmongThemselves) {
    bool ok = false;
    AttributeT<int> i;
    Attribute& base = i; // the conversions are reached through the base interface
    EXPECT_TRUE(base.set(7, Attribute::Layer(2), Attribute::ValueUnit(0)));
    EXPECT_EQ(i.value(), 7);
    EXPECT_EQ(base.asInt(nullptr, Attribute::Layer(6)), 7);
    EXPECT_EQ(base.asFloat(&ok), 7.0f);
    EXPECT_EQ(base.asString(&ok), "7");
    EXPECT_TRUE(base.set(2.5f, L2));
    EXPECT_EQ(i.value(), 3); // halves round away from zero
    EXPECT_TRUE(base.set(-2.5f, L2));
    EXPECT_EQ(i.value(), -3);
    EXPECT_TRUE(base.set(QString(" 42 "), L2));
    EXPECT_EQ(i.value(), 42);
    EXPECT_FALSE(base.set(QString("4x"), L2));
    EXPECT_FALSE(base.set(1e10f, L2));
    EXPECT_FALSE(base.set(std::numeric_limits<float>::quiet_NaN(), L2));
    EXPECT_FALSE(base.set(7, L2, Attribute::UnitPercent));
    EXPECT_FALSE(base.set(Quant::Vector2f(1, 2), L2));
    EXPECT_EQ(i.value(), 42);

    AttributeT<uint32_t> u;
    EXPECT_FALSE(u.set(-1, L2));
    EXPECT_TRUE(u.set(QString("4294967295"), L2));
    EXPECT_EQ(u.value(), 4294967295u);
    EXPECT_EQ(u.asInt(&ok), 0);
    EXPECT_FALSE(ok); // does not fit an int
    EXPECT_EQ(u.asString(), "4294967295");
    EXPECT_FALSE(u.set(QString("4294967296"), L2));
    EXPECT_FALSE(u.set(QString("-0"), L2));

    AttributeT<int64_t> big;
    EXPECT_TRUE(big.set(QString("9007199254740993"), L2)); // not exact in a double
    EXPECT_EQ(big.value(), int64_t(9007199254740993LL));
    EXPECT_EQ(big.asString(), "9007199254740993");
    big.asInt(&ok);
    EXPECT_FALSE(ok);
    EXPECT_TRUE(big.set(-5, L2));
    EXPECT_EQ(big.asInt(&ok), -5);
    EXPECT_TRUE(ok);

    AttributeT<uint64_t> ubig;
    EXPECT_TRUE(ubig.set(QString("18446744073709551615"), L2));
    EXPECT_EQ(ubig.value(), std::numeric_limits<uint64_t>::max());
    EXPECT_FALSE(ubig.set(QString("-1"), L2));
    EXPECT_FALSE(ubig.set(-1, L2));

    AttributeT<bool> flag(nullptr, "flag", true);
    EXPECT_TRUE(flag.value());
    EXPECT_TRUE(flag.isValueDefinedOnLayer(L0));
    EXPECT_TRUE(flag.set(0, L2));
    EXPECT_FALSE(flag.value());
    EXPECT_EQ(flag.asString(), "false");
    EXPECT_EQ(flag.asInt(), 0);
    EXPECT_TRUE(flag.set(QString("TRUE"), L2));
    EXPECT_EQ(flag.asInt(), 1);
    EXPECT_FALSE(flag.set(QString("maybe"), L2));
    EXPECT_TRUE(flag.set(0.0f, L2));
    EXPECT_TRUE(flag.set(0.25f, L2));
    EXPECT_TRUE(flag.value());

    AttributeT<float> f;
    EXPECT_TRUE(f.set(0.1f, L2));
    EXPECT_EQ(f.asString(), "0.1"); // shortest text that reads back
    EXPECT_EQ(f.asInt(), 0);
    EXPECT_TRUE(f.set(QString("1e3"), L2));
    EXPECT_EQ(f.value(), 1000.0f);
    EXPECT_FALSE(f.set(QString("1e39"), L2)); // beyond a float
    EXPECT_EQ(f.value(), 1000.0f);
    EXPECT_TRUE(f.set(std::numeric_limits<float>::quiet_NaN(), L2));
    EXPECT_TRUE(std::isnan(f.value()));
    EXPECT_FALSE(flag.set(std::numeric_limits<float>::quiet_NaN(), L2));

    AttributeT<double> d;
    EXPECT_TRUE(d.set(QString("0.1"), L2));
    EXPECT_EQ(d.value(), 0.1);
    EXPECT_EQ(d.asString(), "0.1");
    EXPECT_TRUE(d.set(3, L2));
    EXPECT_EQ(d.value(), 3.0);

    EXPECT_EQ(AttributeT<bool>().type(), "bool");
    EXPECT_EQ(AttributeT<int32_t>().type(), "int");
    EXPECT_EQ(AttributeT<uint32_t>().type(), "uint");
    EXPECT_EQ(AttributeT<int64_t>().type(), "int64");
    EXPECT_EQ(AttributeT<uint64_t>().type(), "uint64");
    EXPECT_EQ(AttributeT<float>().type(), "float");
    EXPECT_EQ(AttributeT<double>().type(), "double");
}

TEST(AttributeConversions, CompositesUseTheTextOfTheirNumbers) {
    bool ok = true;
    AttributeT<Quant::Vector3f> v;
    EXPECT_TRUE(v.set(Quant::Vector3f(1.0f, 2.5f, 3.0f), L2));
    EXPECT_EQ(v.asString(), "1 2.5 3");
    EXPECT_TRUE(v.set(QString("4, 5 6"), L2));
    EXPECT_EQ(v.value(), Quant::Vector3f(4, 5, 6));
    EXPECT_FALSE(v.set(QString("1 2"), L2));
    EXPECT_FALSE(v.set(QString("1 2 z"), L2));
    EXPECT_FALSE(v.set(Quant::Vector2f(1, 2), L2));
    EXPECT_FALSE(v.set(1.0f, L2));
    v.asFloat(&ok);
    EXPECT_FALSE(ok);
    EXPECT_EQ(v.value(), Quant::Vector3f(4, 5, 6));

    AttributeT<Quant::Vector2i> vi;
    EXPECT_TRUE(vi.set(Quant::Vector2f(1.4f, -2.6f), L2));
    EXPECT_EQ(vi.value(), Quant::Vector2i(1, -3));
    EXPECT_EQ(vi.asString(), "1 -3");
    EXPECT_FALSE(vi.set(Quant::Vector2f(3e9f, 0), L2));

    AttributeT<Quant::Vector4i> v4;
    EXPECT_TRUE(v4.set(Quant::Vector4f(1, 2, 3, 4), L2));
    EXPECT_EQ(v4.value(), Quant::Vector4i(1, 2, 3, 4));

    AttributeT<Quant::Recti> r;
    EXPECT_TRUE(r.set(Quant::Vector4f(0, 1, 10, 11), L2));
    EXPECT_EQ(r.value(), Quant::Recti(0, 1, 10, 11));
    EXPECT_EQ(r.asString(), "0 1 10 11");
    AttributeT<Quant::Rectd> rd;
    EXPECT_TRUE(rd.set(QString("0.1 0 1 2"), L2));
    EXPECT_EQ(rd.value().x0, 0.1);

    AttributeT<Quant::Matrix2f> m;
    EXPECT_TRUE(m.set(QString("1 2 3 4"), L2));
    EXPECT_EQ(m.value().at(0, 1), 2.0f); // row by row
    EXPECT_EQ(m.value().at(1, 0), 3.0f);
    EXPECT_FALSE(m.set(Quant::Vector4f(1, 2, 3, 4), L2));
    EXPECT_EQ(AttributeT<Quant::Matrix3f>().asString(), "1 0 0 0 1 0 0 0 1");
    EXPECT_FALSE(AttributeT<Quant::Matrix4f>().set(QString("1 2 3"), L2));

    AttributeT<Basalt::Color> c;
    EXPECT_TRUE(c.set(Quant::Vector3f(0.5f, 0.25f, 1.0f), L2));
    EXPECT_EQ(c.value(), Basalt::Color(0.5f, 0.25f, 1.0f, 1.0f));
    EXPECT_TRUE(c.set(Quant::Vector4f(0.1f, 0.2f, 0.3f, 0.4f), L2));
    AttributeT<Basalt::Color> copy;
    EXPECT_TRUE(copy.set(c.asString(), L2));
    EXPECT_EQ(copy.value(), c.value());
    EXPECT_FALSE(c.set(QString("not a colour"), L2));
    EXPECT_FALSE(c.set(Quant::Vector2f(1, 1), L2));
    AttributeT<Basalt::ColorPMA> pma;
    EXPECT_TRUE(pma.set(Quant::Vector4f(0.1f, 0.2f, 0.3f, 0.5f), L2));
    EXPECT_EQ(pma.value(), Basalt::ColorPMA(0.1f, 0.2f, 0.3f, 0.5f));

    AttributeT<Basalt::TimeStamp> t;
    EXPECT_TRUE(t.set(QString("1763855000123456"), L2));
    EXPECT_EQ(t.value().value(), 1763855000123456LL);
    EXPECT_EQ(t.asString(), "1763855000123456");
    EXPECT_FALSE(t.set(5, L2));
    EXPECT_FALSE(t.set(QString("soon"), L2));

    AttributeT<QString> s;
    EXPECT_TRUE(s.set(12, L2));
    EXPECT_EQ(s.value(), "12");
    EXPECT_EQ(s.asInt(&ok), 12);
    EXPECT_TRUE(ok);
    EXPECT_TRUE(s.set(0.5f, L2));
    EXPECT_EQ(s.value(), "0.5");
    EXPECT_EQ(s.asFloat(&ok), 0.5f);
    EXPECT_TRUE(s.set(QString("abc"), L2));
    s.asInt(&ok);
    EXPECT_FALSE(ok);

    AttributeT<QStringList> list;
    EXPECT_TRUE(list.set(QString("a,b,c"), L2));
    EXPECT_EQ(list.value(), QStringList({"a", "b", "c"}));
    EXPECT_EQ(list.asString(), "a,b,c");
    EXPECT_TRUE(list.set(QString(), L2));
    EXPECT_TRUE(list.value().isEmpty());

    EXPECT_EQ(AttributeT<Quant::Vector2f>().type(), "vec2f");
    EXPECT_EQ(AttributeT<Quant::Vector3i>().type(), "vec3i");
    EXPECT_EQ(AttributeT<Quant::Rectd>().type(), "rectd");
    EXPECT_EQ(AttributeT<Quant::Matrix4f>().type(), "mat4f");
    EXPECT_EQ(AttributeT<Basalt::Color>().type(), "color");
    EXPECT_EQ(AttributeT<Basalt::ColorPMA>().type(), "colorpma");
    EXPECT_EQ(AttributeT<Basalt::TimeStamp>().type(), "timestamp");
    EXPECT_EQ(AttributeT<QString>().type(), "string");
    EXPECT_EQ(AttributeT<QStringList>().type(), "stringlist");
}

TEST(AttributeConversions, EnumTakesIntegersAndNames) {
    Node root;
    auto* mode =
        new AttributeEnum(&root, "mode", {{"off", 0}, {"on", 1}, {"auto", 5}}, /*default*/ 1);
    Changes changes(*mode);
    Attribute* base = root.attribute("mode");
    ASSERT_EQ(base, mode);
    EXPECT_EQ(base->type(), "enum");
    EXPECT_EQ(base->asString(), "on");

    // What a received integer does: set(value, layer 2, plain number).
    EXPECT_TRUE(base->set(5, Attribute::Layer(2), Attribute::ValueUnit(0)));
    EXPECT_EQ(base->asInt(nullptr, Attribute::Layer(6)), 5);
    EXPECT_EQ(base->asString(), "auto");
    EXPECT_EQ(changes.count, 1);
    EXPECT_TRUE(base->set(QString("off"), L2));
    EXPECT_EQ(mode->value(), 0);
    EXPECT_TRUE(base->set(QString("3"), L2)); // unnamed values are kept
    EXPECT_EQ(base->asString(), "3");
    EXPECT_FALSE(base->set(QString("bogus"), L2));
    EXPECT_EQ(changes.count, 3);
    mode->addName("three", 3);
    EXPECT_EQ(mode->asString(), "three");
    int value = -1;
    EXPECT_TRUE(mode->valueOf("auto", value));
    EXPECT_EQ(value, 5);
    EXPECT_FALSE(mode->valueOf("none", value));
    EXPECT_TRUE(mode->nameOf(2).isNull());

    // The same integer path works on the other numeric attributes.
    AttributeT<float> f;
    AttributeT<double> d;
    AttributeT<int64_t> i64;
    for (Attribute* numeric : {static_cast<Attribute*>(&f), static_cast<Attribute*>(&d),
                               static_cast<Attribute*>(&i64)}) {
        EXPECT_TRUE(numeric->set(-8, Attribute::Layer(2), Attribute::ValueUnit(0)));
        EXPECT_EQ(numeric->asInt(nullptr, Attribute::Layer(6)), -8) << numeric->type().data();
    }

    auto* asset = new AttributeAsset(&root, "texture", "images/a.png");
    EXPECT_EQ(asset->type(), "asset");
    EXPECT_NE(dynamic_cast<AttributeT<QString>*>(static_cast<Attribute*>(asset)), nullptr);
    EXPECT_EQ(asset->asString(), "images/a.png");
}
