// Aliases (retargets reported, value changes not) and two-component tuples (one
// change per update, as the receiver applies them).
#include "Tessel/AttributeAlias.h"
#include "Tessel/AttributeT.h"
#include "Tessel/Node.h"

#include "TesselTestUtil.h"

#include <gtest/gtest.h>

#include <vector>

using namespace Tessel;
using namespace TesselTest;

TEST(AttributeAlias, ReportsRetargetsButNotValueChanges) {
    Node root;
    auto* a = new AttributeT<float>(&root, "a");
    auto* b = new AttributeT<float>(&root, "b");
    auto* alias = new AttributeAlias(&root, "alias");
    Changes changes(*alias);
    bool ok = true;
    EXPECT_FALSE(alias->set(1.0f, L2)); // no target yet

    EXPECT_TRUE(alias->setTarget(a));
    EXPECT_EQ(changes.count, 1);
    EXPECT_TRUE(alias->setTarget(a)); // same target: nothing
    EXPECT_EQ(changes.count, 1);
    a->setValue(3.0f, L2);
    EXPECT_EQ(changes.count, 1);
    EXPECT_EQ(alias->asFloat(&ok), 3.0f);
    EXPECT_TRUE(alias->set(4.0f, L2)); // conversions reach the target
    EXPECT_EQ(a->value(), 4.0f);
    EXPECT_EQ(changes.count, 1);

    EXPECT_TRUE(alias->setTarget(b));
    EXPECT_EQ(changes.count, 2);
    EXPECT_EQ(a->listenerCount(), 0); // unhooked from the old target
    a->setValue(5.0f, L2);
    b->setValue(5.0f, L2);
    EXPECT_EQ(changes.count, 2);
    EXPECT_FALSE(alias->setTarget(alias)); // a cycle
    EXPECT_EQ(alias->attribute(), b);
    EXPECT_TRUE(alias->setTarget(nullptr));
    EXPECT_EQ(changes.count, 3);
    EXPECT_EQ(b->listenerCount(), 0);

    // An alias destroyed while it has a target leaves no listener behind on it.
    alias->setTarget(b);
    EXPECT_GT(b->listenerCount(), 0);
    delete alias;
    EXPECT_EQ(b->listenerCount(), 0);
}

TEST(AttributeTuple, SeparateVectorFiresOneChangePerUpdate) {
    Node root;
    auto* pos = new AttributeT<Quant::Vector2f, Separate>(&root, "pos");
    Changes changes(*pos);
    EXPECT_EQ(pos->type(), "vec2f-separate");

    // Components are attributes of the tuple, not children of the node.
    EXPECT_EQ(root.children(), (std::vector<Attribute*>{pos}));
    EXPECT_EQ(pos->attribute("y"), &pos->y());
    EXPECT_FALSE(pos->x().isSerializable());

    pos->setValue(Quant::Vector2f(1, 2), L2);
    EXPECT_EQ(changes.count, 1);
    EXPECT_EQ(pos->value(), Quant::Vector2f(1, 2));
    pos->setValue(Quant::Vector2f(1, 2), L2);
    EXPECT_EQ(changes.count, 1);

    pos->x().setValue(5, L2); // a component on its own
    EXPECT_EQ(changes.count, 2);
    EXPECT_EQ(pos->value(), Quant::Vector2f(5, 2));

    // What the receiver does: component 0 then 1 at layer 2 inside an update bracket.
    pos->beginUpdate();
    pos->component(0).setValue(7, L2);
    pos->component(1).setValue(8, L2);
    EXPECT_EQ(changes.count, 2);
    pos->endUpdate();
    EXPECT_EQ(changes.count, 3);
    EXPECT_EQ(pos->value(), Quant::Vector2f(7, 8));

    pos->beginUpdate(); // nothing changed inside: nothing fired
    pos->component(0).setValue(7, L2);
    pos->endUpdate();
    EXPECT_EQ(changes.count, 3);

    pos->beginUpdate(); // brackets nest
    pos->beginUpdate();
    pos->x().setValue(1, L2);
    pos->endUpdate();
    EXPECT_EQ(changes.count, 3);
    EXPECT_TRUE(pos->isUpdating());
    pos->endUpdate();
    EXPECT_EQ(changes.count, 4);
    pos->endUpdate(); // unbalanced: ignored
    EXPECT_FALSE(pos->isUpdating());

    int deletions = 0;
    pos->addListener([&] { ++deletions; }, Attribute::RoleDelete);
    root.deleteAttribute(pos);
    EXPECT_EQ(deletions, 1);
    EXPECT_EQ(changes.count, 4); // components dying is no change
}
