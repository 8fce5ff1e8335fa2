// Two sessions back to back: a tree of every type mirrored, creation of missing
// attributes on and off, echo suppression, and conflicting values at the start of a
// session (the master's win).
#include "SessionHarness.h"

#include "Dovel/types/MetaTypes.h"

#include "Basalt/Trace.h"
#include "Tessel/AttributeEnum.h"
#include "Tessel/AttributeT.h"

#include <gtest/gtest.h>

#include <typeinfo>

using Dovel::Bundle;
using Dovel::RemoteNode;
using SessionHarness::pump;
using SessionHarness::Session;
using Tessel::Attribute;
using Tessel::AttributeT;
using Tessel::Node;

using SessionHarness::allCodes;
using SessionHarness::encoded;
using SessionHarness::fill;
using SessionHarness::L2;
using SessionHarness::L3;

TEST(SessionExchange, EveryTypeIsMirroredWithItsValueAndMissingNodesAreCreated) {
    RemoteNode master(nullptr, "master");
    RemoteNode mirror(nullptr, "mirror");
    Dovel::TypeRegistry types;
    for (uint32_t code : allCodes) {
        // A created 47 is a plain integer: only a real enumeration sends that code.
        Attribute* attribute = code == 47
                                   ? new Tessel::AttributeEnum(nullptr, "", {{"off", 0}, {"on", 1}})
                                   : types.createAttribute(code);
        fill(types, code, attribute);
        ASSERT_TRUE(master.addDeepAttribute("scene/types/t" + QByteArray::number(code), attribute));
    }
    Session a(master, true, true);
    Session b(mirror, false, true);
    Basalt::TraceCapture log;
    pump(a, b);

    Node* types0 = dynamic_cast<Node*>(master.attribute("scene")->attribute("types"));
    Node* types1 = dynamic_cast<Node*>(mirror.attribute("scene")->attribute("types"));
    ASSERT_TRUE(types0 && types1);
    for (uint32_t code : allCodes) {
        SCOPED_TRACE(testing::Message() << "type code " << code);
        const QByteArray name = "t" + QByteArray::number(code);
        Attribute* source = types0->attribute(name);
        Attribute* copy = types1->attribute(name);
        ASSERT_TRUE(copy);
        uint32_t sourceCode = 0, copyCode = 0;
        EXPECT_EQ(encoded(types, *copy, &copyCode), encoded(types, *source, &sourceCode));
        EXPECT_EQ(sourceCode, code);
        // A remote enumeration arrives as an integer attribute.
        EXPECT_EQ(copyCode, code == 47 ? 9u : code);
        if (code != 47) {
            EXPECT_EQ(typeid(*copy), typeid(*source));
        }
    }
    EXPECT_EQ(log.count("", Basalt::Trace::Error), 0) << log.dump().toStdString();
    EXPECT_EQ(log.count("Session::input"), 0) << log.dump().toStdString();
    // Nothing travels back: the mirror's announcements carry no values.
    EXPECT_EQ(pump(a, b), 0);
}

TEST(SessionExchange, WithoutCreationOnlyExistingAttributesTakeValues) {
    RemoteNode master(nullptr, "master");
    RemoteNode mirror(nullptr, "mirror");
    master.addDeepAttribute("a/missing", new AttributeT<QString>(nullptr, "", "skipped text"));
    master.addDeepAttribute("a/grid/size", new AttributeT<Quant::Vector3f>(nullptr, "", {1, 2, 3}));
    master.addDeepAttribute("a/x", new AttributeT<int>(nullptr, "", 42));
    master.addDeepAttribute("b/y", new AttributeT<float>(nullptr, "", 0.5f));
    auto* x = new AttributeT<int>(nullptr, "", 1);
    mirror.addDeepAttribute("a/x", x);

    Session a(master, true, true);
    Session b(mirror, false, false);
    Basalt::TraceCapture log;
    pump(a, b);

    EXPECT_EQ(x->value(), 42);
    Node* nodeA = dynamic_cast<Node*>(mirror.attribute("a"));
    ASSERT_TRUE(nodeA);
    EXPECT_EQ(nodeA->childCount(), 1);
    EXPECT_EQ(mirror.attribute("b"), nullptr);
    EXPECT_EQ(log.count("Session::input"), 0) << log.dump().toStdString();

    // Later updates of the attributes that were not created are read past as well.
    master.attribute("a")->attribute("missing")->set(QStringLiteral("still skipped"), L3);
    master.attribute("a")->attribute("x")->set(43, L3);
    pump(a, b);
    EXPECT_EQ(x->value(), 43);
    EXPECT_EQ(log.count("", Basalt::Trace::Warning), 0) << log.dump().toStdString();
}

TEST(SessionExchange, AppliedValuesAreNotEchoedButLaterChangesAre) {
    RemoteNode left(nullptr, "left");
    RemoteNode right(nullptr, "right");
    auto* value = new AttributeT<float>(nullptr, "", 1.0f);
    left.addDeepAttribute("obj/value", value);
    Session a(left, true, true);
    Session b(right, false, true);
    pump(a, b);
    Attribute* mirrored = right.attribute("obj")->attribute("value");
    ASSERT_TRUE(mirrored);

    value->set(2.0f, L2);
    std::vector<Bundle> out = a.output();
    ASSERT_FALSE(out.empty());
    b.input(out);
    EXPECT_FLOAT_EQ(mirrored->asFloat(), 2.0f);
    EXPECT_TRUE(b.output().empty()) << "the applied value went back";
    EXPECT_EQ(b.sender->ignoredCount(), 0);

    // An update equal to the local value fires no change and leaves no ignore entry.
    value->set(3.0f, L2);
    out = a.output();
    mirrored->set(3.0f, L2);
    b.output(); // the mirror's own change of the same value goes out first
    a.output();
    b.input(out);
    EXPECT_EQ(b.sender->ignoredCount(), 0);
    EXPECT_TRUE(b.output().empty());

    // A genuine change of the same attribute afterwards is still sent.
    mirrored->set(4.0f, L2);
    pump(a, b);
    EXPECT_FLOAT_EQ(value->asFloat(), 4.0f);
}

TEST(SessionExchange, ConflictingStartValuesConvergeOnTheMaster) {
    for (bool masterFirst : {true, false}) {
        SCOPED_TRACE(masterFirst ? "master's batch first" : "other batch first");
        RemoteNode masterNode(nullptr, "m");
        RemoteNode otherNode(nullptr, "o");
        auto* mx = new AttributeT<int>(nullptr, "", 10);
        auto* ox = new AttributeT<int>(nullptr, "", 20);
        masterNode.addDeepAttribute("a/x", mx);
        otherNode.addDeepAttribute("a/x", ox);
        Session m(masterNode, true, true);
        Session o(otherNode, false, true);
        // Both sides write their first batch before seeing the other's.
        const std::vector<Bundle> fromM = m.output();
        const std::vector<Bundle> fromO = o.output();
        if (masterFirst) {
            o.input(fromM);
            m.input(fromO);
        } else {
            m.input(fromO);
            o.input(fromM);
        }
        pump(m, o);
        EXPECT_EQ(mx->value(), 10);
        EXPECT_EQ(ox->value(), 10);
    }
}
