// Seeds for the tree-file fuzz target, written by the tool's own dumper where they are
// dumps: the good seeds load and reload to the same dump, the broken ones are refused
// with a reason, and each equals its file in fuzz/corpus/treejson. Write them with
//   DOVEL_WRITE_CORPUS=fuzz/corpus/treejson build/bin/test_tool --gtest_filter='TreeJsonCorpus.*'
#include "CorpusSeeds.h"
#include "TreeJsonTestUtil.h"

#include "dovel/TreeJson.h"

#include <gtest/gtest.h>

#include <map>

using namespace TreeJsonTest;
using DovelTool::TreeJson;

namespace {

struct Seed {
    QByteArray bytes;
    bool loads = true;
};

std::map<QString, Seed> makeSeeds(const TreeJson& format) {
    std::map<QString, Seed> seeds;
    Node every;
    buildEveryType(every);
    seeds["every_type.json"] = {format.dumpBytes(every, QJsonDocument::Indented)};
    seeds["every_type_compact.json"] = {format.dumpBytes(every, QJsonDocument::Compact)};

    Node specials;
    new AttributeT<float>(&specials, "nan", std::numeric_limits<float>::quiet_NaN());
    new AttributeT<float>(&specials, "inf", std::numeric_limits<float>::infinity());
    new AttributeT<double>(&specials, "zero", -0.0);
    new AttributeT<float>(&specials, "whole", 4.0f);
    new AttributeT<int64_t>(&specials, "big", (int64_t(1) << 53) + 1);
    new AttributeT<uint64_t>(&specials, "max", UINT64_MAX);
    new AttributeT<Quant::Vector2f>(&specials, "mixed",
                                    Quant::Vector2f(-std::numeric_limits<float>::infinity(), 0));
    seeds["specials.json"] = {format.dumpBytes(specials, QJsonDocument::Compact)};

    // Hand-written forms that the dumper never writes but the loader takes.
    seeds["plain.json"] = {R"({"i": 5, "f": 2.5, "over": 2147483648, "s": "x", "l": ["a", ""],
        "none": [], "b": false, "n": {"m": {}},
        "e": {"@type": "enum", "value": "on", "names": {"off": 0, "on": 1}},
        "c": {"@type": "color", "value": "#ff8800"},
        "u": {"@type": "uint64", "value": 9007199254740991},
        "g": {"@type": "grid8u", "value": {"width": 0, "height": 0, "data": ""}}})"};

    seeds["broken_syntax.json"] = {"{\n  \"a\": [1, 2,\n}", false};
    seeds["duplicate_key.json"] = {R"({"a": {"x": {"y": 1}, "x": [2]}})", false};
    seeds["unknown_type.json"] = {R"({"a": {"b": {"@type": "vec9f", "value": [1]}}})", false};
    seeds["wrong_shape.json"] = {R"({"p": {"@type": "mat2f", "value": [1, 2, 3]}})", false};
    seeds["grid_mismatch.json"] = {R"({"g": {"@type": "grid8u",
        "value": {"width": 65536, "height": 65536, "data": "AAAA"}}})",
                                   false};
    return seeds;
}

} // namespace

TEST(TreeJsonCorpus, SeedsAreMadeByTheTool) {
    const TreeJson format;
    const std::map<QString, Seed> seeds = makeSeeds(format);
    for (const auto& seed : seeds) {
        Node root;
        QString error;
        const bool loaded = format.load(seed.second.bytes, root, &error);
        EXPECT_EQ(loaded, seed.second.loads)
            << seed.first.toStdString() << ": " << error.toStdString();
        if (!loaded) {
            EXPECT_FALSE(error.isEmpty());
            continue;
        }
        const QByteArray dumped = format.dumpBytes(root);
        Node again;
        ASSERT_TRUE(format.load(dumped, again, &error)) << error.toStdString();
        EXPECT_EQ(format.dumpBytes(again), dumped) << seed.first.toStdString();
        EXPECT_EQ(leaves(again), leaves(root)) << seed.first.toStdString();
    }

    CorpusSeeds::Seeds files;
    for (const auto& seed : seeds)
        files.emplace_back(seed.first, seed.second.bytes);
    CorpusSeeds::writeOrCompare("treejson", files);
}
