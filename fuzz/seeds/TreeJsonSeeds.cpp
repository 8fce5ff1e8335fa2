// Seeds of the treejson target: dumps written by the tool's own dumper, forms the dumper
// never writes but the loader takes, and documents the loader refuses.
#include "Seeds.h"
#include "tool/TreeJsonTestUtil.h"

#include "dovel/TreeJson.h"

#include <limits>

using namespace TreeJsonTest;

FuzzSeeds::Seeds FuzzSeeds::treejson() {
    const DovelTool::TreeJson format;
    Seeds seeds;
    Node every;
    buildEveryType(every);
    seeds.emplace_back("every_type.json", format.dumpBytes(every, QJsonDocument::Indented));
    seeds.emplace_back("every_type_compact.json", format.dumpBytes(every, QJsonDocument::Compact));

    Node specials;
    new AttributeT<float>(&specials, "nan", std::numeric_limits<float>::quiet_NaN());
    new AttributeT<float>(&specials, "inf", std::numeric_limits<float>::infinity());
    new AttributeT<double>(&specials, "zero", -0.0);
    new AttributeT<float>(&specials, "whole", 4.0f);
    new AttributeT<int64_t>(&specials, "big", (int64_t(1) << 53) + 1);
    new AttributeT<uint64_t>(&specials, "max", UINT64_MAX);
    new AttributeT<Quant::Vector2f>(&specials, "mixed",
                                    Quant::Vector2f(-std::numeric_limits<float>::infinity(), 0));
    seeds.emplace_back("specials.json", format.dumpBytes(specials, QJsonDocument::Compact));

    seeds.emplace_back("plain.json",
                       R"({"i": 5, "f": 2.5, "over": 2147483648, "s": "x", "l": ["a", ""],
        "none": [], "b": false, "n": {"m": {}},
        "e": {"@type": "enum", "value": "on", "names": {"off": 0, "on": 1}},
        "c": {"@type": "color", "value": "#ff8800"},
        "u": {"@type": "uint64", "value": 9007199254740991},
        "g": {"@type": "grid8u", "value": {"width": 0, "height": 0, "data": ""}}})");

    seeds.emplace_back("broken_syntax.json", "{\n  \"a\": [1, 2,\n}");
    seeds.emplace_back("duplicate_key.json", R"({"a": {"x": {"y": 1}, "x": [2]}})");
    seeds.emplace_back("unknown_type.json", R"({"a": {"b": {"@type": "vec9f", "value": [1]}}})");
    seeds.emplace_back("wrong_shape.json", R"({"p": {"@type": "mat2f", "value": [1, 2, 3]}})");
    seeds.emplace_back("grid_mismatch.json", R"({"g": {"@type": "grid8u",
        "value": {"width": 65536, "height": 65536, "data": "AAAA"}}})");
    return seeds;
}
