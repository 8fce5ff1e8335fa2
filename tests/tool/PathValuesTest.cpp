// The PATH=VALUE words of `dovel set`: what they parse to, and writing them into a tree
// all or nothing, by the existing attribute's type or, for a new path, by the value's.
#include "dovel/PathValues.h"
#include "dovel/TreeJson.h"

#include "Tessel/AttributeT.h"
#include "Tessel/Node.h"

#include <QJsonArray>
#include <QJsonObject>

#include <gtest/gtest.h>

namespace {

using DovelTool::PathValues;
using DovelTool::TreeJson;

TEST(PathValues, ParseChecksEveryWord) {
    PathValues values;
    QString error;
    ASSERT_TRUE(values.parse({"a/b=1.5", "c=\"x=y\"", "d= [1, 2] ",
                              "e={\"@type\":\"uint\","
                              "\"value\":3}"},
                             error))
        << error.toStdString();
    QStringList paths;
    QJsonArray parsed;
    for (const auto& entry : values.entries()) {
        paths << entry.path;
        parsed << entry.value;
    }
    EXPECT_EQ(paths, (QStringList{"a/b", "c", "d", "e"}));
    EXPECT_EQ(parsed, (QJsonArray{1.5, "x=y", QJsonArray{1, 2},
                                  QJsonObject{{"@type", "uint"}, {"value", 3}}}));

    const QList<QPair<QStringList, QString>> bad = {
        {{"a"}, "'a' is not PATH=VALUE"},
        {{"=1"}, "'' is not a path (names joined by '/')"},
        {{"a/=1"}, "'a/' is not a path (names joined by '/')"},
        {{"a/@type=1"}, "'a/@type' is not a path (names joined by '/')"},
        {{"a=1", "a=2"}, "a is given twice"},
        {{"a="}, "a: '' is not a JSON value (strings need their quotes)"},
        {{"a=text"}, "a: 'text' is not a JSON value (strings need their quotes)"},
        {{"a=1 2"}, "a: '1 2' is not a JSON value (strings need their quotes)"},
        {{"a=1]"}, "a: '1]' is not a JSON value (strings need their quotes)"},
    };
    for (const auto& word : bad) {
        EXPECT_FALSE(values.parse(word.first, error)) << word.first.join(' ').toStdString();
        EXPECT_EQ(error, word.second);
    }
    EXPECT_FALSE(values.parse({"a={\"k\":1,\"k\":2}"}, error));
    EXPECT_TRUE(error.startsWith("a: duplicate key")) << error.toStdString();
}

TEST(PathValues, ApplyIsAllOrNothing) {
    TreeJson json;
    Tessel::Node root;
    auto* scene = new Tessel::Node(&root, "scene");
    auto* count = new Tessel::AttributeT<int32_t>(scene, "count", 1);
    auto* ratio = new Tessel::AttributeT<double>(scene, "ratio", 0.5);
    new Tessel::AttributeT<QString>(scene, "title", QStringLiteral("t"));

    PathValues values;
    QString error;
    // The double keeps its type for a whole number; a new path takes the value's type.
    ASSERT_TRUE(values.parse(
        {"scene/count=7", "scene/ratio=2", "scene/new/deep=true", "top=\"text\""}, error));
    ASSERT_TRUE(values.apply(root, json, error)) << error.toStdString();
    EXPECT_EQ(count->value(), 7);
    EXPECT_EQ(count->valueOnLayer(Tessel::Attribute::LayerRemote) != nullptr, true);
    EXPECT_EQ(ratio->value(), 2.0);
    EXPECT_EQ(json.dumpBytes(root, QJsonDocument::Compact),
              R"({"scene":{"count":7,"new":{"deep":true},"ratio":{"@type":"double","value":2},)"
              R"("title":"t"},"top":"text"})");

    // One value that does not fit leaves everything as it was, and names its path.
    const QByteArray before = json.dumpBytes(root);
    const QList<QPair<QStringList, QString>> failing = {
        {{"scene/count=8", "scene/title=5"}, "scene/title: "},
        {{"scene/count=8", "scene/ratio=\"x\""}, "scene/ratio: "},
        {{"fresh=1", "scene/count/below=1"},
         "scene/count/below: scene/count is a value, not a "
         "node"},
        {{"scene=1"}, "scene: is a node, not a value"},
        {{"n/a=1", "n/a/b=2"}, "n/a and n/a/b cannot both be created"},
        {{"fresh=1", "other=null"}, "other: "},
    };
    for (const auto& words : failing) {
        ASSERT_TRUE(values.parse(words.first, error)) << error.toStdString();
        EXPECT_FALSE(values.apply(root, json, error)) << words.first.join(' ').toStdString();
        EXPECT_TRUE(error.startsWith(words.second)) << error.toStdString();
        EXPECT_EQ(json.dumpBytes(root), before) << words.first.join(' ').toStdString();
    }
}

} // namespace
