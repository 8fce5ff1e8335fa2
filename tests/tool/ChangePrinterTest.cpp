// The lines of `dovel watch`, byte for byte, from the changes of a RemoteNode's tree
// (the test thread is the tree thread): nothing before start(), one line per change,
// addition and removal after it, and nothing for a value written again unchanged.
#include "dovel/ChangePrinter.h"

#include "Dovel/sync/RemoteNode.h"

#include "Tessel/AttributeT.h"

#include <gtest/gtest.h>

namespace {

using DovelTool::ChangePrinter;

TEST(ChangePrinter, LinesFollowTheTree) {
    Dovel::RemoteNode scratch(nullptr, "scratch");
    const ChangePrinter lines(scratch, {});
    EXPECT_EQ(lines.addedLine("a/b", "\"x\""), "+ a/b = \"x\"\n");
    EXPECT_EQ(lines.removedLine("a/b"), "- a/b\n");
    // A path that would make a line ambiguous is written as a JSON string.
    const QPair<QByteArray, QByteArray> changed[] = {
        {"a/b", "a/b = 1.5\n"},
        {"a+b c", "a+b c = 1.5\n"},
        {"a = b", "\"a = b\" = 1.5\n"},
        {"two\nlines", "\"two\\nlines\" = 1.5\n"},
        {"say \"hi\"", "\"say \\\"hi\\\"\" = 1.5\n"},
        {"+ x", "\"+ x\" = 1.5\n"},
        {"- x", "\"- x\" = 1.5\n"},
        // Nothing a terminal acts on or a reader cannot see reaches the line as it is:
        // NUL (kept, not cut), DEL, an 8-bit CSI, a right-to-left override; bytes that
        // are not UTF-8 are quoted too.
        {QByteArray("n/ok\0evil", 9), "\"n/ok\\u0000evil\" = 1.5\n"},
        {"a\x7f", "\"a\\u007f\" = 1.5\n"},
        {"a\xc2\x9b"
         "31m",
         "\"a\\u009b31m\" = 1.5\n"},
        {"a\xe2\x80\xae"
         "b",
         "\"a\\u202eb\" = 1.5\n"},
        {"u/\xff", "\"u/\xef\xbf\xbd\" = 1.5\n"},
        {"caf\xc3\xa9", "caf\xc3\xa9 = 1.5\n"},
    };
    for (const auto& row : changed)
        EXPECT_EQ(lines.changedLine(row.first, "1.5"), row.second) << row.first.constData();
    const ChangePrinter json(scratch, {}, ChangePrinter::Json);
    EXPECT_EQ(json.changedLine("a = b", "1.5"),
              "{\"event\":\"set\",\"path\":\"a = b\",\"value\":1.5}\n");
    EXPECT_EQ(json.addedLine("a\n", "[1]"),
              "{\"event\":\"added\",\"path\":\"a\\n\",\"value\":[1]}\n");
    EXPECT_EQ(json.removedLine("a/b"), "{\"event\":\"removed\",\"path\":\"a/b\"}\n");

    // On a tree: changes, additions and removals; values are shown as JSON.
    Dovel::RemoteNode root(nullptr, "root");
    auto* scene = new Tessel::Node(&root, "scene");
    auto* count = new Tessel::AttributeT<int32_t>(scene, "count", 1);
    root.update();

    QByteArray printed;
    ChangePrinter printer(root, [&](const QByteArray& line) { printed += line; });
    count->setValue(2, Tessel::Attribute::LayerRemote);
    root.update();
    EXPECT_EQ(printed, "");
    EXPECT_EQ(printer.start(), 1);

    count->setValue(3, Tessel::Attribute::LayerRemote);
    root.update();
    auto* more = new Tessel::Node(scene, "more");
    new Tessel::AttributeT<Quant::Vector3f>(more, "position", Quant::Vector3f(1, 0.5f, -2));
    root.update();
    EXPECT_EQ(printed, "scene/count = 3\n"
                       "+ scene/more/position = {\"@type\":\"vec3f\",\"value\":[1,0.5,-2]}\n");

    // The value it already showed, written on another layer: no line.
    printed.clear();
    count->setValue(3, Tessel::Attribute::LayerUser);
    root.update();
    EXPECT_EQ(printed, "");

    scene->deleteAttribute(count);
    root.update();
    EXPECT_EQ(printed, "- scene/count\n");
    // A name that sorts between "more" and "more/" stays when the node goes.
    new Tessel::AttributeT<int32_t>(scene, "more-x", 1);
    root.update();
    printed.clear();
    scene->deleteAttribute(more);
    root.update();
    EXPECT_EQ(printed, "- scene/more/position\n");
}

} // namespace
