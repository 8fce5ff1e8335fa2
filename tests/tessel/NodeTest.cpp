// Children of nodes: order, names, the added/removed notifications and ownership on
// destruction.
#include "Tessel/Node.h"
#include "Tessel/AttributeT.h"
#include "Tessel/TreeObserver.h"

#include "Basalt/BinaryData.h"

#include "TesselTestUtil.h"

#include <gtest/gtest.h>

#include <QStringList>

#include <map>
#include <string>
#include <vector>

using namespace Tessel;
using namespace TesselTest;

namespace {

QByteArrayList namesOf(const Node& node) {
    QByteArrayList names;
    for (Attribute* child : node.children())
        names << child->name();
    return names;
}

QByteArray readName(Basalt::BinaryData& data) {
    QByteArray name;
    EXPECT_TRUE(data.readString(name));
    EXPECT_TRUE(data.atEnd());
    return name;
}

// Logs the virtual notifications and the child events with what the list held then.
class RecordingNode : public Node {
public:
    RecordingNode() {
        for (const char* event : {"attribute-added", "attribute-removed"}) {
            eventAddListenerBd(
                event,
                [this, event](Basalt::BinaryData& data) {
                    const QByteArray name = readName(data);
                    log << QString("%1 %2 listed=%3")
                               .arg(event, QString(name))
                               .arg(attribute(name) != nullptr);
                },
                Direct);
        }
    }
    // The remaining children are deleted while the log still exists.
    ~RecordingNode() override { aboutToBeDestroyed(); }
    QStringList log;

protected:
    void attributeAdded(Attribute* a) override { note("added", a); }
    void attributeRemoved(Attribute* a) override { note("removed", a); }

private:
    void note(const char* what, Attribute* a) {
        log << QString("%1 %2 listed=%3 host=%4")
                   .arg(what, QString(a->name()))
                   .arg(attribute(a->name()) == a)
                   .arg(a->host() == this);
    }
};

// Logs what it hears into a RecordingNode's log, between the hooks and the events.
struct LoggingObserver : TreeObserver {
    explicit LoggingObserver(QStringList& log) : log(log) {}
    void attributeChanged(Attribute& a) override {
        log << QString("observer changed %1 as %2").arg(QString(a.name())).arg(a.observedAs());
    }
    void childAdded(Node& node, Attribute& child) override {
        log << QString("observer added %1 to %2").arg(QString(child.name())).arg(node.observedAs());
        if (child.name() == "doomed")
            delete &child; // allowed here, and only here
        else if (child.name() == "ends-host")
            delete &node;
    }
    void childRemoved(Node& node, Attribute& child) override {
        log << QString("observer removed %1 listed=%2")
                   .arg(QString(child.name()))
                   .arg(node.attribute(child.name()) == &child);
    }
    QStringList& log;
};

// A node class with member attributes, the usual way host objects are written.
class Widget : public Node {
public:
    Widget(Node* host, const QByteArray& name)
        : Node(host, name), size(this, "size", 1.0f), label(this, "label") {}
    AttributeT<float> size;
    AttributeT<QString> label;
};

} // namespace

TEST(Node, ChildrenKeepInsertionOrderAndUniqueNames) {
    Node root;
    auto* b = new AttributeT<int>(&root, "b");
    auto* a = new Node(&root, "a");
    new AttributeT<float>(&root, "c");
    EXPECT_EQ(namesOf(root), (QByteArrayList{"b", "a", "c"}));
    EXPECT_EQ(root.attribute("b"), b);

    auto* loose = new AttributeT<int>;
    EXPECT_FALSE(root.addAttribute("b", loose)); // name taken
    EXPECT_EQ(loose->host(), nullptr);
    EXPECT_FALSE(root.addAttribute("x", nullptr));
    EXPECT_FALSE(root.addAttribute("self", &root));
    EXPECT_FALSE(a->addAttribute("up", &root)); // an ancestor would make a cycle
    EXPECT_TRUE(root.addAttribute("d", loose));
    EXPECT_EQ(loose->name(), "d");
    EXPECT_EQ(loose->host(), &root);
    Node other;
    EXPECT_FALSE(other.addAttribute("x", loose)); // already held

    EXPECT_TRUE(root.removeAttribute(loose));
    EXPECT_EQ(loose->host(), nullptr);
    EXPECT_FALSE(root.removeAttribute(loose));
    delete loose; // the caller owns a removed attribute

    EXPECT_TRUE(root.deleteAttribute(root.attribute("c")));
    AttributeT<int> stranger;
    EXPECT_FALSE(root.deleteAttribute(&stranger)); // not a child: not deleted
    EXPECT_EQ(namesOf(root), (QByteArrayList{"b", "a"}));

    // Names come free again once their child is gone.
    EXPECT_TRUE(root.addAttribute("c", new AttributeT<int>));
    EXPECT_EQ(namesOf(root), (QByteArrayList{"b", "a", "c"}));
    // Taking out the first or the last child leaves the rest in order for what follows.
    EXPECT_TRUE(root.deleteAttribute(root.attribute("b")));
    new AttributeT<int>(&root, "e");
    EXPECT_TRUE(root.deleteAttribute(root.attribute("e")));
    new AttributeT<int>(&root, "f");
    EXPECT_EQ(namesOf(root), (QByteArrayList{"a", "c", "f"}));
    EXPECT_EQ(root.childCount(), 3);

    // A node with many children finds them through an index: every name still finds
    // its own child, and no other, as children come and go in any order.
    Node wide;
    std::map<QByteArray, Attribute*> model;
    QByteArrayList order; // the names in the order their children were added
    const auto check = [&] {
        ASSERT_EQ(namesOf(wide), order);
        ASSERT_EQ(wide.childCount(), int(model.size()));
        for (int i = 0; i < 400; ++i) {
            const QByteArray name = "n" + QByteArray::number(i);
            const auto it = model.find(name);
            ASSERT_EQ(wide.attribute(name), it == model.end() ? nullptr : it->second)
                << name.constData();
        }
    };
    for (int i = 0; i < 300; ++i) {
        const QByteArray name = "n" + QByteArray::number(i);
        model[name] = new AttributeT<int>(&wide, name);
        order.append(name);
    }
    check();
    for (int i = 0; i < 300; i += 1 + i % 3) {
        const QByteArray name = "n" + QByteArray::number(i);
        EXPECT_TRUE(wide.deleteAttribute(model[name]));
        model.erase(name);
        order.removeOne(name);
    }
    for (int i = 350; i < 400; ++i) {
        const QByteArray name = "n" + QByteArray::number(i);
        model[name] = new AttributeT<int>(&wide, name);
        order.append(name);
    }
    check();
    while (!model.empty()) {
        EXPECT_TRUE(wide.deleteAttribute(model.begin()->second));
        order.removeOne(model.begin()->first);
        model.erase(model.begin());
    }
    model["n7"] = new AttributeT<int>(&wide, "n7");
    order.append("n7");
    check();
}

TEST(Node, ChildNotificationsCarryTheNameAndBracketTheList) {
    RecordingNode root;
    auto* x = new AttributeT<int>(&root, "x");
    auto* n = new Node(&root, "n");
    EXPECT_EQ(root.log, (QStringList{"added x listed=1 host=1", "attribute-added x listed=1",
                                     "added n listed=1 host=1", "attribute-added n listed=1"}));
    root.log.clear();

    EXPECT_TRUE(root.removeAttribute(x));
    delete x;
    delete n;
    EXPECT_EQ(root.log, (QStringList{"removed x listed=1 host=1", "attribute-removed x listed=1",
                                     "removed n listed=1 host=1", "attribute-removed n listed=1"}));
    EXPECT_EQ(root.childCount(), 0);

    // The payload is exactly one string item holding the name, and each payload
    // listener reads it from its start.
    Basalt::BinaryData expected;
    expected.write(QByteArray("item"));
    QList<QByteArray> seen;
    for (int i = 0; i < 2; ++i)
        root.eventAddListenerBd(
            "attribute-added",
            [&](Basalt::BinaryData& data) {
                EXPECT_EQ(data.toByteArray(), expected.toByteArray());
                seen << readName(data);
            },
            Node::Direct);
    new AttributeT<int>(&root, "item");
    EXPECT_EQ(seen, (QList<QByteArray>{"item", "item"}));

    // An observer hears them between the hook and the event, and an observed
    // attribute's changes before its listeners; only the attribute's own observer hears.
    RecordingNode observed;
    LoggingObserver observer(observed.log);
    observed.setObserver(&observer, 7);
    auto* y = new AttributeT<int>(&observed, "y");
    y->setObserver(&observer, 8);
    y->addListener([&] { observed.log << "listener"; }, Attribute::RoleChange);
    y->setValue(1, L2);
    // Deleted by the observer as it is added: the node goes on with the name it was given.
    EXPECT_TRUE(observed.addAttribute("doomed", new AttributeT<int>));
    auto* inner = new Node(&observed, "inner");
    new AttributeT<int>(inner, "unobserved");
    auto* host = new Node(&observed, "host");
    host->setObserver(&observer, 9);
    // Deleted by the observer with its new child: it sends no event any more.
    EXPECT_TRUE(host->addAttribute("ends-host", new AttributeT<int>));
    EXPECT_EQ(observed.attribute("host"), nullptr);
    delete y;
    EXPECT_EQ(observed.log, (QStringList{"added y listed=1 host=1",
                                         "observer added y to 7",
                                         "attribute-added y listed=1",
                                         "observer changed y as 8",
                                         "listener",
                                         "added doomed listed=1 host=1",
                                         "observer added doomed to 7",
                                         "removed doomed listed=1 host=1",
                                         "observer removed doomed listed=1",
                                         "attribute-removed doomed listed=1",
                                         "attribute-added doomed listed=0",
                                         "added inner listed=1 host=1",
                                         "observer added inner to 7",
                                         "attribute-added inner listed=1",
                                         "added host listed=1 host=1",
                                         "observer added host to 7",
                                         "attribute-added host listed=1",
                                         "observer added ends-host to 9",
                                         "removed host listed=1 host=1",
                                         "observer removed host listed=1",
                                         "attribute-removed host listed=1",
                                         "observer removed ends-host listed=1",
                                         "removed y listed=1 host=1",
                                         "observer removed y listed=1",
                                         "attribute-removed y listed=1"}));
    observed.setObserver(nullptr, 0);

    // An attribute left naming an observer that has ended finds none.
    AttributeT<int> orphan;
    {
        LoggingObserver gone(observed.log);
        orphan.setObserver(&gone, 3);
        EXPECT_EQ(orphan.observer(), &gone);
    }
    EXPECT_EQ(orphan.observer(), nullptr);
}

TEST(NodeDestruction, MemberAndNewedAttributesAreEachDestroyedOnce) {
    std::map<std::string, int> deleted;
    auto watch = [&](Attribute* a, const char* label) {
        a->addListener([&deleted, label] { ++deleted[label]; }, Attribute::RoleDelete);
    };
    {
        Node root;
        auto* w = new Widget(&root, "w");
        EXPECT_EQ(namesOf(*w), (QByteArrayList{"size", "label"}));
        auto* extra = new AttributeT<int>(w, "extra");
        auto* sub = new Node(w, "sub");
        auto* leaf = new AttributeT<QString>(sub, "leaf");
        watch(w, "w");
        watch(&w->size, "size");
        watch(&w->label, "label");
        watch(extra, "extra");
        watch(sub, "sub");
        watch(leaf, "leaf");

        // Deleting a member-holding node directly: members detach themselves, newed
        // children are deleted by the node.
        delete w;
        EXPECT_EQ(root.childCount(), 0);
        for (const char* label : {"w", "size", "label", "extra", "sub", "leaf"})
            EXPECT_EQ(deleted[label], 1) << label;

        // A node on the stack with members and newed children, then a root that still
        // holds a subtree when it goes out of scope.
        Widget local(nullptr, "local");
        new AttributeT<int>(&local, "extra");
        new Widget(&root, "w2");
        new AttributeT<int>(new Node(&root, "n"), "deep");
    }
    EXPECT_EQ(deleted.size(), 6u);
}
