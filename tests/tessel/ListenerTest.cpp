// Attribute listeners (removal and deletion during emission) and ListenerHolder.
#include "Tessel/AttributeT.h"
#include "Tessel/ListenerHolder.h"
#include "Tessel/Node.h"

#include "Basalt/BinaryData.h"

#include "TesselTestUtil.h"

#include <gtest/gtest.h>

#include <memory>
#include <vector>

using namespace Tessel;
using namespace TesselTest;

TEST(AttributeListeners, EmissionUsesTheTableAsItWasAndSkipsRemovedListeners) {
    AttributeT<int> a;
    std::vector<int> calls;
    long second = -1, third = -1, late = -1;
    a.addListener(
        [&] {
            calls.push_back(1);
            // Removing a listener whose turn has not come stops it in this emission; a
            // listener added now first runs in the next one.
            a.removeListener(third);
            if (late < 0)
                late = a.addListener([&] { calls.push_back(4); }, Attribute::RoleChange);
        },
        Attribute::RoleChange);
    second = a.addListener(
        [&] {
            calls.push_back(2);
            EXPECT_TRUE(a.removeListener(second)); // removes itself
        },
        Attribute::RoleChange);
    third = a.addListener([&] { calls.push_back(3); }, Attribute::RoleChange);

    a.setValue(1, L2);
    EXPECT_EQ(calls, (std::vector<int>{1, 2}));
    calls.clear();
    a.setValue(2, L2);
    EXPECT_EQ(calls, (std::vector<int>{1, 4}));

    // A lone listener is kept without a table; the same rules hold when it adds a second
    // one and removes itself from inside its own call.
    AttributeT<int> b;
    calls.clear();
    long lone = -1;
    lone = b.addListener(
        [&] {
            calls.push_back(1);
            b.addListener([&] { calls.push_back(2); }, Attribute::RoleChange);
            EXPECT_TRUE(b.removeListener(lone));
        },
        Attribute::RoleChange);
    b.setValue(1, L2);
    EXPECT_EQ(calls, (std::vector<int>{1}));
    EXPECT_EQ(b.listenerCount(), 1);
    b.setValue(2, L2);
    EXPECT_EQ(calls, (std::vector<int>{1, 2}));
}

TEST(AttributeListeners, AListenerMayDeleteItsAttribute) {
    auto* a = new AttributeT<int>;
    int deletions = 0;
    bool laterCalled = false;
    a->addListener([&] { ++deletions; }, Attribute::RoleDelete);
    a->addListener([&] { delete a; }, Attribute::RoleChange);
    a->addListener([&] { laterCalled = true; }, Attribute::RoleChange);
    a->setValue(1, L2); // the emission stops with the attribute (no use after free)
    EXPECT_EQ(deletions, 1);
    EXPECT_FALSE(laterCalled);

    // The same with its only listener.
    auto* b = new AttributeT<int>;
    b->addListener([&] { delete b; }, Attribute::RoleChange);
    b->setValue(1, L2);

    // What a listener holds may, as it goes with its dying attribute, reach back to it
    // (and find nothing left to remove); a spilled value goes with it too.
    struct ReachesBack {
        Attribute* attribute = nullptr;
        long id = 0;
        bool removed = true;
        ~ReachesBack() { removed = attribute->removeListener(id); }
    };
    auto* c = new AttributeT<int>;
    c->setValue(1, Attribute::LayerDefault);
    c->setValue(2, L2);
    auto reach = std::make_shared<ReachesBack>();
    reach->attribute = c;
    reach->id = c->addListener([held = reach] {}, Attribute::RoleChange);
    const std::weak_ptr<ReachesBack> watch = reach;
    reach.reset();
    delete c;
    EXPECT_TRUE(watch.expired());
}

// A value attribute keeps its listeners with its layers, a node and an attribute that
// got them while being constructed in the process's table: either way they hear every
// change, across layers coming and going, until they are removed or the attribute dies.
TEST(AttributeListeners, ListenersStayWithTheirAttributeWhereverKept) {
    Node root;
    Node* node = new Node(&root, "n");
    long early = -1;
    int earlyCalls = 0;
    root.eventAddListenerBd(
        "attribute-added",
        [&](Basalt::BinaryData& data) {
            QByteArray name;
            if (data.readString(name) && name == "early")
                early =
                    root.attribute(name)->addListener([&] { ++earlyCalls; }, Attribute::RoleChange);
        },
        Node::Direct);
    auto* made = new AttributeT<float>(&root, "early"); // heard while being constructed
    auto* plain = new AttributeT<float>(&root, "plain", 1.0f);
    int plainCalls = 0, nodeCalls = 0;
    const long plainId = plain->addListener([&] { ++plainCalls; }, Attribute::RoleChange);
    node->addListener([&] { ++nodeCalls; }, Attribute::RoleChange);

    for (AttributeT<float>* a : {made, plain}) {
        a->setValue(2.0f, L2); // a second layer
        a->setAsDefaults();    // back to one
        a->setValue(3.0f, L2); // and a second again
        a->clearValue(L2);     // the defaults show: 2
        EXPECT_EQ(a->value(), 2.0f);
        EXPECT_EQ(a->listenerCount(), 1);
    }
    EXPECT_EQ(earlyCalls, 3);
    EXPECT_EQ(plainCalls, 3);
    node->emitChange();
    EXPECT_EQ(nodeCalls, 1);

    EXPECT_TRUE(made->removeListener(early));
    EXPECT_TRUE(plain->removeListener(plainId));
    EXPECT_FALSE(plain->removeListener(plainId));
    made->setValue(5.0f, L2);
    plain->setValue(5.0f, L2);
    EXPECT_EQ(earlyCalls + plainCalls, 6);
    EXPECT_EQ(made->listenerCount() + plain->listenerCount(), 0);

    // Many attributes with listeners, dying in another order than they came: each
    // hears its own changes only.
    std::vector<std::unique_ptr<AttributeT<int>>> many;
    std::vector<int> heard(2000, 0);
    for (int i = 0; i < 2000; ++i) {
        many.push_back(std::make_unique<AttributeT<int>>());
        many.back()->addListener([&heard, i] { ++heard[size_t(i)]; }, Attribute::RoleChange);
    }
    for (int i = 0; i < 2000; i += 2)
        many[size_t(i)].reset();
    for (int i = 1; i < 2000; i += 2)
        many[size_t(i)]->setValue(i, L2);
    for (int i = 0; i < 2000; ++i)
        EXPECT_EQ(heard[size_t(i)], i % 2) << i;
}

TEST(ListenerHolder, RemovesItsRegistrationsPerAttributeAndWhenDestroyed) {
    Node node;
    auto* a = new AttributeT<int>(&node, "a");
    auto* b = new AttributeT<int>(&node, "b");
    int aChanges = 0, bChanges = 0, events = 0;
    const int nodeListenersBefore = node.listenerCount();
    {
        ListenerHolder holder;
        holder.add(
            a, [&] { ++aChanges; }, Attribute::RoleChange);
        holder.add(
            a, [&] { ++aChanges; }, Attribute::RoleChange);
        holder.add(
            b, [&] { ++bChanges; }, Attribute::RoleChange);
        holder.addBd(
            &node, "ping", [&](Basalt::BinaryData&) { ++events; }, Node::Direct);
        EXPECT_TRUE(holder.holds(a));
        EXPECT_TRUE(holder.holds(&node));

        a->setValue(1, L2);
        b->setValue(1, L2);
        node.eventSend("ping");
        EXPECT_EQ(aChanges, 2);
        EXPECT_EQ(bChanges, 1);
        EXPECT_EQ(events, 1);

        holder.removeListeners(a);
        EXPECT_FALSE(holder.holds(a));
        EXPECT_EQ(a->listenerCount(), 0); // its deletion watch is gone too
        a->setValue(2, L2);
        EXPECT_EQ(aChanges, 2);
        holder.removeListeners(a); // nothing left: no effect
    }
    b->setValue(2, L2);
    node.eventSend("ping");
    EXPECT_EQ(bChanges, 1);
    EXPECT_EQ(events, 1);
    EXPECT_EQ(b->listenerCount(), 0);
    EXPECT_EQ(node.eventListenerCount(), 0);
    EXPECT_EQ(node.listenerCount(), nodeListenersBefore);
}

TEST(ListenerHolder, ForgetsAttributesDestroyedBeforeIt) {
    // Under AddressSanitizer a holder that touched a destroyed attribute would fail here.
    ListenerHolder holder;
    auto* lone = new AttributeT<float>;
    auto* parent = new Node;
    auto* child = new AttributeT<int>(parent, "child");
    int calls = 0;
    holder.add(
        lone, [&] { ++calls; }, Attribute::RoleChange | Attribute::RoleDelete);
    holder.add(
        child, [&] { ++calls; }, Attribute::RoleDelete);
    holder.addBd(
        parent, "attribute-removed", [&](Basalt::BinaryData&) { ++calls; }, Node::Direct);
    delete lone;
    EXPECT_EQ(calls, 1); // its own deletion listener still ran
    EXPECT_FALSE(holder.holds(lone));
    holder.removeListeners(lone); // a dangling pointer that is not held is not touched

    delete parent; // the child dies with it: both fire, then both are forgotten
    EXPECT_EQ(calls, 3);
    EXPECT_FALSE(holder.holds(parent));
    EXPECT_FALSE(holder.holds(child));

    // A holder that dies while its node is being torn down (here from a child's deletion
    // listener) is not touched afterwards, not even when one of its ids is removed.
    auto* parentNode = new Node;
    auto* child2 = new AttributeT<int>(parentNode, "child");
    auto* doomed = new ListenerHolder;
    const long doomedId = doomed->addBd(
        parentNode, "ping", [](Basalt::BinaryData&) {}, Node::Direct);
    child2->addListener(
        [&] {
            delete doomed;
            parentNode->eventRemoveListener(doomedId);
        },
        Attribute::RoleDelete);
    delete parentNode;
}
