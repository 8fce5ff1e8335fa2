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
    EXPECT_EQ(ChangePrinter::changedLine("a/b", "1.5"), "a/b = 1.5\n");
    EXPECT_EQ(ChangePrinter::addedLine("a/b", "\"x\""), "+ a/b = \"x\"\n");
    EXPECT_EQ(ChangePrinter::removedLine("a/b"), "- a/b\n");

    Dovel::RemoteNode root(nullptr, "root");
    auto* scene = new Tessel::Node(&root, "scene");
    auto* count = new Tessel::AttributeT<int32_t>(scene, "count", 1);
    auto* position = new Tessel::AttributeT<Quant::Vector3f>(scene, "position");
    root.update();

    QByteArray printed;
    ChangePrinter printer(root, [&](const QByteArray& line) { printed += line; });
    count->setValue(2, Tessel::Attribute::LayerRemote);
    root.update();
    EXPECT_EQ(printed, "");
    EXPECT_EQ(printer.start(), 2);

    count->setValue(3, Tessel::Attribute::LayerRemote);
    position->setValue(Quant::Vector3f(1, 0.5f, -2), Tessel::Attribute::LayerRemote);
    root.update();
    EXPECT_EQ(printed, "scene/count = 3\n"
                       "scene/position = {\"@type\":\"vec3f\",\"value\":[1,0.5,-2]}\n");

    printed.clear();
    auto* more = new Tessel::Node(scene, "more");
    new Tessel::AttributeT<QString>(more, "title", QStringLiteral("hi"));
    root.update();
    EXPECT_EQ(printed, "+ scene/more/title = \"hi\"\n");

    // The value it already showed, written on another layer: no line.
    printed.clear();
    count->setValue(3, Tessel::Attribute::LayerUser);
    root.update();
    EXPECT_EQ(printed, "");

    scene->deleteAttribute(count);
    root.update();
    EXPECT_EQ(printed, "- scene/count\n");
    printed.clear();
    scene->deleteAttribute(more);
    root.update();
    EXPECT_EQ(printed, "- scene/more/title\n");
}

} // namespace
