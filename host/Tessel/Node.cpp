#include "Tessel/Node.h"

#include "Tessel/ListenerHolder.h"
#include "Tessel/NodeEventTable.h"
#include "Tessel/SharedNames.h"
#include "Tessel/TreeObserver.h"
#include "Tessel/UpdateLoop.h"

#include "Basalt/BinaryData.h"
#include "Basalt/Trace.h"

#include <mutex>

namespace Tessel {

// A tree holds a node per handful of attributes: 72 bytes fit an 80-byte heap block.
static_assert(sizeof(void*) != 8 || sizeof(Node) <= 72, "a node should stay in 72 bytes");

Node::Node() = default;

NodeEventTable& Node::ensureEvents() {
    if (NodeEventTable* table = eventTable.load(std::memory_order_acquire))
        return *table;
    // Rare (a node's first declaration or listener) and from any thread: one lock for all.
    static std::mutex creation;
    std::lock_guard<std::mutex> lock(creation);
    if (NodeEventTable* table = eventTable.load(std::memory_order_relaxed))
        return *table;
    NodeEventTable* made = NodeEventTable::makeForNode();
    eventTable.store(made, std::memory_order_release);
    return *made;
}

Node::Node(Node* host, const QByteArray& name) : Node() {
    attachTo(host, name);
}

Node::~Node() {
    aboutToBeDestroyed();
    if (NodeEventTable* table = eventTable.load(std::memory_order_acquire))
        table->releaseNode();
}

void Node::aboutToBeDestroyed() {
    Attribute::aboutToBeDestroyed();
    // Each child unlists itself at the start of its destructor, sending
    // "attribute-removed" here while it still has its real dynamic type.
    while (firstChild)
        delete firstChild;
    // Waits for event callbacks running on other threads; queued ones become no-ops.
    if (NodeEventTable* table = eventTable.load(std::memory_order_acquire))
        table->clear();
}

QByteArray Node::type() const {
    return "node";
}

Attribute* Node::attribute(const QByteArray& name) const {
    return findChild(name);
}

Attribute* Node::findChild(const QByteArray& name) const {
    if (!childIndex.isEmpty())
        return childIndex.find(name);
    for (Attribute* child = firstChild; child; child = child->nextSibling)
        if (child->attributeName == name)
            return child;
    return nullptr;
}

void Node::indexChild(Attribute* child) {
    if (!childIndex.isEmpty()) {
        childIndex.insert(child);
        return;
    }
    const uint32_t listed = scanCount(UnindexedChildren + 1);
    if (listed <= UnindexedChildren)
        return;
    childIndex.create(listed);
    for (Attribute* each = firstChild; each; each = each->nextSibling)
        childIndex.insert(each);
}

uint32_t Node::scanCount(uint32_t limit) const {
    uint32_t count = 0;
    for (Attribute* child = firstChild; child && count < limit; child = child->nextSibling)
        ++count;
    return count;
}

int Node::childCount() const {
    // A node without an index has no more children than an index is made for.
    return int(childIndex.isEmpty() ? scanCount(UnindexedChildren + 1) : childIndex.children());
}

void Node::listChild(Attribute* child) {
    child->nextSibling = nullptr;
    if (!firstChild) {
        firstChild = child;
        child->previousSibling = child;
    } else {
        Attribute* const last = firstChild->previousSibling;
        last->nextSibling = child;
        child->previousSibling = last;
        firstChild->previousSibling = child;
    }
    childIndex.childListed();
}

void Node::unlistChild(Attribute* child) {
    Attribute* const previous = child->previousSibling;
    Attribute* const next = child->nextSibling;
    if (child == firstChild) {
        firstChild = next;
        if (next)
            next->previousSibling = previous; // the last child
    } else {
        previous->nextSibling = next;
        (next ? next : firstChild)->previousSibling = previous;
    }
    child->previousSibling = nullptr;
    child->nextSibling = nullptr;
    childIndex.childUnlisted();
}

bool Node::isSelfOrAncestor(const Attribute* attribute) const {
    for (const Node* node = this; node; node = node->host())
        if (node == attribute)
            return true;
    return false;
}

bool Node::addAttribute(const QByteArray& name, Attribute* attribute) {
    if (!attribute || attribute->hostNode || attribute->isBeingDestroyed() ||
        isSelfOrAncestor(attribute) || findChild(name))
        return false;
    attribute->attributeName = sharedName(name);
    attribute->hostNode = this;
    listChild(attribute);
    indexChild(attribute);
    attributeAdded(attribute);
    if (TreeObserver* observer = this->observer()) {
        // What the observer reports may delete the child (whose own name `name` may be)
        // or this node.
        const QByteArray kept = name;
        const EndWatch watch(this);
        observer->childAdded(*this, *attribute);
        if (!watch.ended())
            sendChildEvent(QByteArrayLiteral("attribute-added"), kept);
        return true;
    }
    sendChildEvent(QByteArrayLiteral("attribute-added"), name);
    return true;
}

bool Node::removeAttribute(Attribute* attribute) {
    if (!attribute || attribute->hostNode != this)
        return false;
    if (findChild(attribute->name()) != attribute)
        return false;
    detach(attribute);
    return true;
}

bool Node::deleteAttribute(Attribute* attribute) {
    if (!removeAttribute(attribute))
        return false;
    delete attribute;
    return true;
}

void Node::detach(Attribute* child) {
    const QByteArray name = child->name();
    if (!child->detaching) {
        child->detaching = true;
        // Both notifications come while the child is still listed, findable and hosted.
        attributeRemoved(child);
        if (TreeObserver* observer = this->observer())
            observer->childRemoved(*this, *child);
        sendChildEvent(QByteArrayLiteral("attribute-removed"), name);
        // A listener may have removed or deleted the child meanwhile (that nested
        // removal unlisted it without notifying again); then it must not be touched.
        if (findChild(name) != child)
            return;
    }
    unlistChild(child);
    if (!childIndex.isEmpty())
        childIndex.remove(name);
    child->hostNode = nullptr;
    child->detaching = false;
}

void Node::sendChildEvent(const QByteArray& event, const QByteArray& childName) {
    if (!eventTable.load(std::memory_order_acquire))
        return; // no listener, and eventProcess is not involved
    // Every child added or removed sends one: a short name's item is laid out on the
    // stack (a queued listener gets its own copy).
    char local[256];
    Basalt::BinaryData payload;
    if (const int size = Basalt::BinaryData::encodeString(childName, local, int(sizeof local))) {
        payload.linkTo(local, size);
    } else {
        payload.ensure(8 + uint64_t(childName.size())); // tag, count, bytes: one allocation
        payload.write(childName);
    }
    eventSend(event, payload);
}

std::vector<Attribute*> Node::children() const {
    std::vector<Attribute*> copy;
    copy.reserve(std::size_t(childCount()));
    for (Attribute* child = firstChild; child; child = child->nextSibling)
        copy.push_back(child);
    return copy;
}

bool Node::isChanged() const {
    for (Attribute* child = firstChild; child; child = child->nextSibling)
        if (child->isChanged())
            return true;
    return false;
}

void Node::setAsDefaults() {
    for (Attribute* child : children())
        child->setAsDefaults();
}

void Node::update() {}

void Node::attributeAdded(Attribute*) {}

void Node::attributeRemoved(Attribute*) {}

void Node::eventAddIn(const QByteArray& name) {
    ensureEvents().declareIn(name);
}

void Node::eventAddOut(const QByteArray& name) {
    ensureEvents().declareOut(name);
}

QList<QByteArray> Node::eventsIn() const {
    const NodeEventTable* table = eventTable.load(std::memory_order_acquire);
    return table ? table->declaredIn() : QList<QByteArray>();
}

QList<QByteArray> Node::eventsOut() const {
    const NodeEventTable* table = eventTable.load(std::memory_order_acquire);
    return table ? table->declaredOut() : QList<QByteArray>();
}

long Node::eventAddListener(const QByteArray& name, std::function<void()> callback,
                            ListenerType type) {
    auto listener = std::make_shared<NodeEventTable::Listener>();
    listener->name = name;
    listener->queued = type == Queued;
    listener->callback = callback ? std::move(callback) : [] {};
    return ensureEvents().add(std::move(listener));
}

long Node::eventAddListener(const QByteArray& source, const QByteArray& target, Node* receiver,
                            ListenerType type, const Basalt::BinaryData* defaultPayload) {
    if (!receiver)
        return -1;
    auto listener = std::make_shared<NodeEventTable::Listener>();
    listener->name = source;
    listener->queued = type == Queued;
    NodeEventTable::Forward forward;
    forward.receiver = receiver;
    forward.target = target;
    if (defaultPayload)
        forward.defaultPayload = std::make_unique<Basalt::BinaryData>(*defaultPayload);
    listener->callback = std::move(forward);
    return ensureEvents().add(std::move(listener));
}

long Node::eventAddListenerBd(const QByteArray& name,
                              std::function<void(Basalt::BinaryData&)> callback,
                              ListenerType type) {
    return eventAddListenerBd(name, std::move(callback), type, nullptr);
}

long Node::eventAddListenerBd(const QByteArray& name,
                              std::function<void(Basalt::BinaryData&)> callback, ListenerType type,
                              ListenerHolder* holder) {
    auto listener = std::make_shared<NodeEventTable::Listener>();
    listener->name = name;
    listener->queued = type == Queued;
    using WithData = std::function<void(Basalt::BinaryData&)>;
    listener->callback = callback ? std::move(callback) : WithData([](Basalt::BinaryData&) {});
    listener->holder = holder;
    return ensureEvents().add(std::move(listener));
}

bool Node::eventRemoveListener(long id) {
    NodeEventTable* table = eventTable.load(std::memory_order_acquire);
    return table && table->remove(id);
}

bool Node::eventRemoveListenersOf(const ListenerHolder* holder) {
    NodeEventTable* table = eventTable.load(std::memory_order_acquire);
    return table && table->removeListenersOf(holder);
}

bool Node::hasEventListenersOf(const ListenerHolder* holder) const {
    const NodeEventTable* table = eventTable.load(std::memory_order_acquire);
    return table && table->hasListenersOf(holder);
}

void Node::forgetEventHolders() {
    if (NodeEventTable* table = eventTable.load(std::memory_order_acquire))
        for (ListenerHolder* holder : table->releaseHolders())
            holder->forget(this);
}

int Node::eventListenerCount() const {
    const NodeEventTable* table = eventTable.load(std::memory_order_acquire);
    return table ? table->count() : 0;
}

void Node::eventSend(const QByteArray& name) {
    if (NodeEventTable* table = eventTable.load(std::memory_order_acquire))
        table->dispatch(name, nullptr);
}

void Node::eventSend(const QByteArray& name, Basalt::BinaryData& data) {
    if (NodeEventTable* table = eventTable.load(std::memory_order_acquire))
        table->dispatch(name, &data);
}

void Node::eventProcess(const QByteArray& name, Basalt::BinaryData& data) {
    if (NodeEventTable* table = eventTable.load(std::memory_order_acquire))
        table->dispatch(name, &data);
}

void Node::invokeAfterUpdate(std::function<void()> function) {
    UpdateLoop::post(std::move(function));
}

} // namespace Tessel
