// The tree file format: round trips of every type code, the exact text of a dump, the
// plain-form rules, exact numbers and errors. (Assigning values by an attribute's type
// is PathValuesTest's; the text of one value is the `get` command's, tested as a process.)
#include "TreeJsonTestUtil.h"

#include "dovel/JsonValueCodec.h"
#include "dovel/TreeJson.h"

#include <QJsonArray>

#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <set>
#include <string>

using namespace TreeJsonTest;
using DovelTool::TreeJson;

namespace {

template <typename A> A* find(const Node& root, const QByteArray& path) {
    const Node* node = &root;
    const QList<QByteArray> parts = path.split('/');
    for (int i = 0; i + 1 < parts.size(); ++i) {
        node = dynamic_cast<Node*>(node->attribute(parts[i]));
        if (!node)
            return nullptr;
    }
    return dynamic_cast<A*>(node->attribute(parts.last()));
}

// The bits of a float or double, so that NaN, -0 and denormals compare exactly.
template <typename T> uint64_t bitsOf(T value) {
    uint64_t bits = 0;
    std::memcpy(&bits, &value, sizeof value);
    return bits;
}

// Loads `json` into a fresh root, which must fail and stay empty; the error text.
std::string loadError(const TreeJson& format, const QByteArray& json) {
    Node root;
    QString error;
    EXPECT_FALSE(format.load(json, root, &error)) << json.constData();
    EXPECT_EQ(root.childCount(), 0);
    return error.toStdString();
}

} // namespace

TEST(TreeJson, EveryTypeRoundTripsByteForByte) {
    // The type table names every type code once, and the sample tree holds them all.
    const std::set<uint32_t> expected = {1,  2,  3,  4,  9,  10, 11, 12, 13, 14, 15, 16,
                                         17, 19, 20, 22, 23, 26, 29, 32, 34, 35, 36, 40,
                                         41, 42, 43, 44, 45, 46, 47, 48, 49, 50, 51, 52};
    std::set<uint32_t> codes, inTree;
    std::set<QString> names;
    for (const DovelTool::JsonType& type : DovelTool::JsonValueCodec::types()) {
        codes.insert(type.code);
        names.insert(QLatin1String(type.name));
        EXPECT_EQ(DovelTool::JsonValueCodec::byName(QLatin1String(type.name)), &type);
    }
    EXPECT_EQ(codes, expected);
    EXPECT_EQ(names.size(), codes.size());
    const TreeJson format;
    Node original;
    buildEveryType(original);
    for (const auto& leaf : leaves(original))
        if (leaf.second.code != 0)
            inTree.insert(leaf.second.code);
    EXPECT_EQ(inTree, expected);
    const QByteArray dumped = format.dumpBytes(original);

    Node loaded;
    QString error;
    ASSERT_TRUE(format.load(dumped, loaded, &error)) << qPrintable(error);
    EXPECT_EQ(leaves(loaded), leaves(original)) << dumped.constData();
    EXPECT_EQ(format.dumpBytes(loaded), dumped);

    // Same classes, not merely the same codes, and the values are the defaults.
    ASSERT_NE(find<AttributeEnum>(loaded, "deep/er/mode"), nullptr);
    EXPECT_EQ(find<AttributeEnum>(loaded, "deep/er/mode")->nameOf(5), "auto");
    EXPECT_NE((find<AttributeT<Quant::Vector2f, Separate>>(loaded, "deep/er/anchor")), nullptr);
    EXPECT_FALSE(loaded.isChanged());
    EXPECT_EQ(find<AttributeT<float>>(loaded, "values/ratio")->valueOnLayer(Attribute::LayerRemote),
              nullptr);
    EXPECT_EQ(
        *find<AttributeT<float>>(loaded, "values/ratio")->valueOnLayer(Attribute::LayerDefault),
        0.1f);
}

TEST(TreeJson, SmallTreeDumpsToExactText) {
    const TreeJson format;
    Node root;
    auto* scene = new Node(&root, "scene");
    new AttributeT<QString>(scene, "title", QStringLiteral("Demo"));
    // Written as escapes: what a terminal would act on (DEL, C1) or a reader not see.
    new AttributeT<QString>(scene, "x\xc2\x9b",
                            QString::fromUtf8("\x7f\xe2\x80\xa8\xe2\x80\xaeok"));
    new AttributeT<bool>(scene, "visible", true);
    new AttributeT<int>(scene, "count", 3);
    new AttributeT<float>(scene, "fov", 60.5f);
    new AttributeT<float>(scene, "fraction", 0.1f);
    new AttributeT<float>(scene, "scale", 2.0f);
    new AttributeT<double>(scene, "ratio", 0.1);
    new AttributeT<uint64_t>(scene, "big", (uint64_t(1) << 60) + 1);
    new AttributeT<int64_t>(scene, "low", -(int64_t(1) << 53) + 1);
    new AttributeT<Quant::Vector3f>(scene, "position", Quant::Vector3f(0, 1.5f, -4));
    new AttributeEnum(scene, "mode", {{"off", 0}, {"on", 1}}, 1);
    new AttributeT<QStringList>(scene, "tags", QStringList{"a", "b"});
    auto* grid = new AttributeGrid<uint8_t>(scene, "mask");
    const uint8_t cells[] = {1, 2, 3, 4};
    grid->setGrid(cells, 2, 2);
    new AttributeAlias(scene, "zoom", scene->attribute("fov"));
    new AttributeAlias(scene, "dangling");
    new Node(&root, "empty");

    const QByteArray expected =
        R"({"empty":{},"scene":{)"
        R"("big":{"@type":"uint64","value":"1152921504606846977"},)"
        R"("count":3,)"
        R"("fov":60.5,)"
        R"("fraction":0.1,)"
        R"("low":{"@type":"int64","value":-9007199254740991},)"
        R"("mask":{"@type":"grid8u","value":{"data":"AQIDBA==","height":2,"width":2}},)"
        R"("mode":{"@type":"enum","names":{"off":0,"on":1},"value":1},)"
        R"("position":{"@type":"vec3f","value":[0,1.5,-4]},)"
        R"("ratio":{"@type":"double","value":0.1},)"
        R"("scale":{"@type":"float","value":2},)"
        R"("tags":["a","b"],)"
        R"("title":"Demo",)"
        R"("visible":true,)"
        R"("x\u009b":"\u007f\u2028\u202eok",)"
        R"("zoom":60.5}})";
    EXPECT_EQ(format.dumpBytes(root, QJsonDocument::Compact), expected);
}

TEST(TreeJson, PlainFormsFollowTheRules) {
    const TreeJson format;
    Node root;
    QString error;
    // Whole numbers are ints however they are spelt, up to the int range; other numbers
    // are floats; arrays of strings are string lists. The dump names every type that its
    // plain form would not give back (whole floats of the int range, doubles), so it shows what was
    // made. Keys may hold any character but "/", a zero character included.
    ASSERT_TRUE(format.load(R"({"i": 5, "low": -2147483648, "high": 2147483647,
        "over": 2147483648, "f": 2.5, "whole": 3.0, "exp": 1.5e3, "s": "x",
        "l": ["a", "b"], "none": [], "b": false, "n": {"m": {}}, "a\u0000b": {"\u00e9\"": 1}})",
                            root, &error))
        << qPrintable(error);
    EXPECT_EQ(format.dumpBytes(root, QJsonDocument::Compact).toStdString(),
              R"({"a\u0000b":{"é\"":1},"b":false,"exp":1500,"f":2.5,"high":2147483647,)"
              R"("i":5,"l":["a","b"],"low":-2147483648,"n":{"m":{}},"none":[],)"
              R"("over":2147483648,"s":"x","whole":3})");
    EXPECT_NE(find<AttributeT<int>>(root, QByteArray("a\0b/\xc3\xa9\"", 7)), nullptr);

    // Whole floats, negative zero and floats of the int range stay floats.
    for (float value : {2.0f, 0.0f, -2147483648.0f, 1e10f, 3.5f}) {
        Node source;
        new AttributeT<float>(&source, "v", value);
        Node back;
        ASSERT_TRUE(format.load(format.dumpBytes(source), back, &error)) << qPrintable(error);
        ASSERT_NE(find<AttributeT<float>>(back, "v"), nullptr) << value;
        EXPECT_EQ(bitsOf(find<AttributeT<float>>(back, "v")->value()), bitsOf(value));
    }
}

TEST(TreeJson, NumbersRoundTripExactly) {
    const TreeJson format;
    using F = std::numeric_limits<float>;
    using D = std::numeric_limits<double>;
    const float floats[] = {0.1f,           1.0f / 3.0f,   F::max(), F::min(),    F::denorm_min(),
                            -F::lowest(),   16777217.0f,   -1e-7f,   123456.789f, F::infinity(),
                            -F::infinity(), F::quiet_NaN()};
    const double doubles[] = {0.1,        1.0 / 3.0,     D::max(),      D::denorm_min(),
                              1e15 + 0.3, D::infinity(), D::quiet_NaN()};
    Node source;
    for (size_t i = 0; i < sizeof(floats) / sizeof(floats[0]); ++i)
        new AttributeT<float>(&source, "f" + QByteArray::number(int(i)), floats[i]);
    for (size_t i = 0; i < sizeof(doubles) / sizeof(doubles[0]); ++i)
        new AttributeT<double>(&source, "d" + QByteArray::number(int(i)), doubles[i]);
    const int64_t int64s[] = {INT64_MIN, INT64_MAX, int64_t(1) << 53, (int64_t(1) << 53) + 1,
                              -(int64_t(1) << 53) - 1};
    for (size_t i = 0; i < 5; ++i)
        new AttributeT<int64_t>(&source, "i" + QByteArray::number(int(i)), int64s[i]);
    new AttributeT<uint64_t>(&source, "u", UINT64_MAX);
    new AttributeT<Quant::Vector2f>(&source, "specials", Quant::Vector2f(std::nanf(""), -0.0f));

    const QJsonObject dumped = format.dump(source);
    EXPECT_EQ(dumped["f9"].toObject()["value"], QJsonValue("inf"));
    EXPECT_EQ(dumped["f10"].toObject()["value"], QJsonValue("-inf"));
    EXPECT_EQ(dumped["f11"].toObject()["value"], QJsonValue("nan"));
    EXPECT_EQ(dumped["d6"].toObject()["value"], QJsonValue("nan"));
    EXPECT_EQ(dumped["i2"].toObject()["value"], QJsonValue("9007199254740992"));
    EXPECT_EQ(dumped["i3"].toObject()["value"], QJsonValue("9007199254740993"));
    EXPECT_EQ(dumped["i4"].toObject()["value"], QJsonValue("-9007199254740993"));
    EXPECT_EQ(dumped["u"].toObject()["value"], QJsonValue("18446744073709551615"));
    EXPECT_EQ(dumped["specials"].toObject()["value"], (QJsonArray{"nan", "-0"}));

    Node back;
    QString error;
    ASSERT_TRUE(format.load(format.dumpBytes(source), back, &error)) << qPrintable(error);
    for (size_t i = 0; i < sizeof(floats) / sizeof(floats[0]); ++i) {
        const float value =
            find<AttributeT<float>>(back, "f" + QByteArray::number(int(i)))->value();
        EXPECT_EQ(bitsOf(value), bitsOf(floats[i])) << i;
    }
    for (size_t i = 0; i < sizeof(doubles) / sizeof(doubles[0]); ++i) {
        const double value =
            find<AttributeT<double>>(back, "d" + QByteArray::number(int(i)))->value();
        EXPECT_EQ(bitsOf(value), bitsOf(doubles[i])) << i;
    }
    EXPECT_EQ(leaves(back), leaves(source));

    // Negative zero is "-0" both ways. (A scalar attribute that starts at +0 keeps its
    // cached +0 when -0 is stored, since the object model counts them equal, so this
    // is checked on the value bytes.)
    Node zeros;
    new AttributeT<float>(&zeros, "f", -0.0f);
    new AttributeT<double>(&zeros, "d", -0.0);
    EXPECT_EQ(format.dumpBytes(zeros, QJsonDocument::Compact),
              R"({"d":{"@type":"double","value":"-0"},"f":{"@type":"float","value":"-0"}})");
    for (uint32_t code : {3u, 4u}) {
        Dovel::Bundle bundle;
        Dovel::BundleWriterCore writer(bundle);
        QString problem;
        ASSERT_TRUE(DovelTool::JsonValueCodec::encode(*DovelTool::JsonValueCodec::byCode(code),
                                                      QJsonValue("-0"), nullptr, writer, problem));
        const QByteArray bytes = bundle.packet().mid(int(Dovel::BundleCore::HeaderSize));
        EXPECT_EQ(bytes, code == 3 ? QByteArray("\x00\x00\x00\x80", 4)
                                   : QByteArray("\x00\x00\x00\x00\x00\x00\x00\x80", 8));
    }

    // Numbers and strings both read; numbers the parser could not keep exact do not.
    ASSERT_TRUE(format.load(R"({"a": {"@type": "int64", "value": "9007199254740993"},
        "m": {"@type": "int64", "value": -9007199254740991},
        "b": {"@type": "uint64", "value": "18446744073709551615"},
        "c": {"@type": "int64", "value": "-9223372036854775808"},
        "t": {"@type": "timestamp", "value": -1}})",
                            back, &error))
        << qPrintable(error);
    EXPECT_EQ(find<AttributeT<int64_t>>(back, "a")->value(), (int64_t(1) << 53) + 1);
    EXPECT_EQ(find<AttributeT<int64_t>>(back, "m")->value(), -(int64_t(1) << 53) + 1);
    EXPECT_EQ(find<AttributeT<uint64_t>>(back, "b")->value(), UINT64_MAX);
    EXPECT_EQ(find<AttributeT<int64_t>>(back, "c")->value(), INT64_MIN);
    EXPECT_EQ(find<AttributeT<Basalt::TimeStamp>>(back, "t")->value().value(), -1);
    for (const char* bad : {R"({"x": {"@type": "uint64", "value": 1e19}})",
                            R"({"x": {"@type": "int64", "value": 9007199254740993}})",
                            R"({"x": {"@type": "int64", "value": 9007199254740993.0}})",
                            R"({"x": {"@type": "int64", "value": -9007199254740992}})",
                            R"({"x": {"@type": "uint64", "value": "18446744073709551616"}})",
                            R"({"x": {"@type": "uint64", "value": "-1"}})",
                            R"({"x": {"@type": "int64", "value": " 12"}})",
                            R"({"x": {"@type": "int64", "value": 0.5}})",
                            R"({"x": {"@type": "int", "value": "12"}})"})
        EXPECT_EQ(loadError(format, bad).rfind("x: ", 0), 0u) << bad;
    for (const char* out : {R"({"x": 1e39})", R"({"x": 1e-50})", R"({"x": -1e-46})"})
        EXPECT_EQ(loadError(format, out),
                  "x: float expects a number in the range of a float (0, or 1.4e-45 to 3.4e38 in "
                  "size), or \"nan\", \"inf\", \"-inf\", \"-0\"")
            << out;
}

TEST(TreeJson, ErrorsNameWhereAndWhat) {
    const TreeJson format;
    const std::string gridShape = "g: grid8u expects {\"width\": W, \"height\": H, \"data\": "
                                  "\"<base64 of W x H bytes>\"}";
    const QPair<QByteArray, std::string> errors[] = {
        {"{\n  \"a\": 1,\n  \"b\": [1, 2,}\n}",
         "line 3, column 15: object is missing after a comma"},
        {"{\"a\": 1", "line 1, column 8: invalid termination by number"},
        {"[1, 2]", "the document must be a JSON object"},
        // A key written twice is refused, however it is spelt, rather than one being picked.
        {R"({"a": {"x": 1, "x": [2]}})", "line 1, column 16: duplicate key \"x\""},
        {R"({"a": 1, "\u0061": {}})", "line 1, column 10: duplicate key \"a\""},
        // Raw control characters are not JSON; escaped ones are. A raw zero byte would make
        // two different keys compare equal in the reader.
        {QByteArray("{\"\0x\": {}, \"\0y\": []}", 20),
         "line 1, column 3: control character in a string"},
        {"{\"a\": \"line\nbreak\"}", "line 1, column 12: control character in a string"},
        // The reader would take "\s" for "s": an escape JSON does not have is refused.
        {R"({"list\s": {"": {}}, "lists": []})", "line 1, column 7: invalid escape in a string"},
        {R"({"a": "\u12G4"})", "line 1, column 8: invalid escape in a string"},
        {R"({"a": {"b": {"@type": "vec9f", "value": [1]}}})", "a/b: unknown @type \"vec9f\""},
        {R"({"a": {"@type": 3, "value": 1}})", "a: @type must be a string naming a type"},
        {R"({"p": {"@type": "vec3f", "value": [1, 2]}})", "p: vec3f expects an array of 3 numbers"},
        {R"({"p": {"@type": "vec3i", "value": [1, 2.5, 3]}})",
         "p: vec3i element 1: expected a whole number from -2147483648 to 2147483647"},
        {R"({"p": {"@type": "spline", "value": [[1, 2], [3]]}})",
         "p: spline element 1: expected an [x, y] pair of numbers"},
        {R"({"p": {"@type": "float"}})", "p: @type \"float\" without \"value\""},
        {R"({"p": {"@type": "float", "value": 1, "unit": "m"}})",
         "p: unexpected key \"unit\" beside @type \"float\""},
        {R"({"p": {"@type": "string", "value": 1}})", "p: string expects a string"},
        {R"({"p": {"q": null}})", "p/q: null is not a value"},
        {R"({"p": ["a", 1]})", "p: an array without \"@type\" must hold only strings"},
        {R"({"p": {"a/b": 1}})",
         "p: the key \"a/b\" is not a name (names are not empty and hold no \"/\")"},
        {R"({"": 1})", "the key \"\" is not a name (names are not empty and hold no \"/\")"},
        {R"({"e": {"@type": "enum", "value": "up", "names": {"down": 0}}})",
         "e: enum has no value named \"up\""},
        {R"({"e": {"@type": "enum", "value": 0, "names": {"a": 0, "b": 0}}})",
         "e: value 0 has two names"},
        {R"({"e": {"@type": "int", "value": 0, "names": {}}})",
         "e: unexpected key \"names\" beside @type \"int\""},
        // Grids: the data must match width x height; nothing is allocated from the sizes.
        {R"({"g": {"@type": "grid8u", "value": {"width": 3, "height": 2, "data": "AAECAwQ="}}})",
         "g: grid8u of 3 x 2 cells holds 5 bytes of data"},
        {R"({"g": {"@type": "grid8u",
            "value": {"width": 2147483647, "height": 2147483647, "data": "AAAA"}}})",
         "g: grid8u of 2147483647 x 2147483647 cells holds 3 bytes of data"},
        {R"({"g": {"@type": "grid8u", "value": {"width": 0, "height": 5, "data": ""}}})",
         "g: grid8u of 0 x 5 cells holds 0 bytes of data"},
        {R"({"g": {"@type": "grid8u", "value": {"width": 1, "height": 1, "data": "!!"}}})",
         gridShape},
        {R"({"g": {"@type": "grid8u", "value": {"width": -1, "height": 1, "data": ""}}})",
         gridShape},
    };
    for (const auto& row : errors)
        EXPECT_EQ(loadError(format, row.first), row.second) << row.first.constData();
    // Escaped zeros, and names that differ only in where they stand, are distinct keys.
    Node escaped;
    ASSERT_TRUE(format.load(QByteArray(R"({"\u0000x": 1, "\u0000y": "\n"})"), escaped, nullptr));
    EXPECT_EQ(escaped.children().size(), 2);
    Node distinct;
    ASSERT_TRUE(format.load(QByteArray(R"({"a": {"a": "a", "b": ["a", "a"]}, "b": {"a": 1},
                                          "c\"": 1, "c": 2})"),
                            distinct, nullptr));
    EXPECT_EQ(find<AttributeT<QString>>(distinct, "a/a")->value(), "a");
    EXPECT_NE(find<AttributeT<int>>(distinct, "c\""), nullptr);

    // A failed load leaves the tree as it was, even when earlier children were fine.
    Node root;
    new AttributeT<int>(&root, "taken", 1);
    QString error;
    EXPECT_FALSE(format.load(QByteArray(R"({"a": 1, "b": {"c": null}})"), root, &error));
    EXPECT_EQ(error.toStdString(), "b/c: null is not a value");
    EXPECT_FALSE(format.load(QByteArray(R"({"a": 1, "taken": 2})"), root, &error));
    EXPECT_EQ(error.toStdString(), "taken: the tree already holds this name");
    EXPECT_EQ(root.childCount(), 1);
    ASSERT_TRUE(format.load(QByteArray(R"({"a": 1})"), root, nullptr));
    EXPECT_EQ(root.childCount(), 2);
}

TEST(TreeJson, DumpSkipsWhatTheFormatCannotHold) {
    const TreeJson format;
    Node root;
    new AttributeT<int>(&root, "a/b", 1);
    new AttributeT<int>(&root, "@type", 2);
    new Attribute(&root, "opaque");
    new AttributeAlias(&root, "toNode", &root);
    new AttributeT<int>(&root, "kept", 3);
    // Skipped with a warning each, rather than written as something that reads back wrong.
    EXPECT_EQ(format.dumpBytes(root, QJsonDocument::Compact), R"({"kept":3})");
}
