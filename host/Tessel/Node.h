// An attribute that holds named child attributes in insertion order and carries named
// events.
//
// Thread contract: the children, the attribute listeners and update() belong to the
// tree's update thread. The event operations (eventAdd*, eventRemoveListener,
// eventSend, eventProcess) and invokeAfterUpdate may be called from any thread: the
// event-listener table is guarded by its own mutex and callbacks run without it held.
//
// Ownership: addAttribute does not take ownership by itself, but a node deletes the
// children it still holds when it is destroyed. An attribute that is a member of some
// object must therefore be destroyed (it then detaches itself) or removed before the
// node that holds it dies. Destroying a node first fires its deletion listeners, then
// detaches it from its own host, then deletes its children one by one in insertion
// order; each child, at the start of its destructor, fires its own deletion listeners
// and sends "attribute-removed" on this node, so removal listeners still see it whole.
// A removal listener must not delete the child it is told about. Last, the node drops
// its event listeners, waiting (as eventRemoveListener does) for calls in progress on
// other threads; queued deliveries still waiting are dropped.
//
// Child notifications: after a child is added the node calls attributeAdded(child),
// then its observer's childAdded (TreeObserver), then sends the event "attribute-added";
// before a child leaves the list it calls attributeRemoved(child), then the observer's
// childRemoved, then sends "attribute-removed". The payload of both events is a
// Basalt::BinaryData holding one string item, the child's name.
#pragma once

#include "Tessel/Attribute.h"
#include "Tessel/ChildIndex.h"

#include <QByteArray>
#include <QList>

#include <atomic>
#include <functional>
#include <memory>
#include <vector>

namespace Basalt {
class BinaryData;
}

namespace Tessel {

class NodeEventTable;

class Node : public Attribute {
public:
    // How an event listener is called: Queued on the update thread through
    // invokeAfterUpdate (with a copy of the payload), Direct on the sending thread
    // before eventSend returns.
    enum ListenerType { Queued = 0, Direct = 1 };

    Node();
    // Adds itself to `host` once fully constructed, so the host's listeners see a Node.
    Node(Node* host, const QByteArray& name);
    ~Node() override;

    QByteArray type() const override;
    Node* asNode() override { return this; }
    // The child of that name, null when absent.
    Attribute* attribute(const QByteArray& name) const override;

    // Adds a child: sets its name and host. False when `attribute` is null, this node or
    // one of its ancestors, already has a host or is being destroyed, or when the name
    // is taken.
    bool addAttribute(const QByteArray& name, Attribute* attribute);
    // Detaches a child; the caller owns it afterwards. False when it is not a child.
    bool removeAttribute(Attribute* attribute);
    // Detaches a child and deletes it. False (nothing deleted) when it is not a child.
    bool deleteAttribute(Attribute* attribute);
    // A copy of the children in insertion order.
    std::vector<Attribute*> children() const;
    // Calls `visit(Attribute*)` for each child in insertion order, without a copy: the
    // visitor must not add, remove or delete children of this node.
    template <typename Visit> void forEachChild(Visit&& visit) const {
        for (Attribute* child = firstChild; child; child = child->nextSibling)
            visit(child);
    }
    int childCount() const;

    // True when any child reports a change from its defaults.
    bool isChanged() const override;
    // Makes the current values of the whole subtree its defaults.
    void setAsDefaults() override;

    // Called by the application's update pass; nothing here.
    virtual void update();

    // Event declarations: the names the node accepts and raises. Informative only;
    // sending or listening to an undeclared name works as well.
    void eventAddIn(const QByteArray& name);
    void eventAddOut(const QByteArray& name);
    QList<QByteArray> eventsIn() const;
    QList<QByteArray> eventsOut() const;

    // Listener without payload. Returns its id.
    long eventAddListener(const QByteArray& name, std::function<void()> callback,
                          ListenerType type);
    // Forwarding listener: when `source` is sent on this node,
    // receiver->eventProcess(target, payload) is called with the sent data, or with a
    // copy of `defaultPayload` (empty data when null) when the event had none. The
    // receiver must outlive the registration.
    long eventAddListener(const QByteArray& source, const QByteArray& target, Node* receiver,
                          ListenerType type, const Basalt::BinaryData* defaultPayload = nullptr);
    // Listener with payload (empty data when the event had none).
    long eventAddListenerBd(const QByteArray& name,
                            std::function<void(Basalt::BinaryData&)> callback, ListenerType type);
    // Once this returns the callback is not running and will not run again: it waits
    // for a call in progress on another thread (not for one on the calling thread, so a
    // callback may remove itself). Two callbacks running on two threads must not remove
    // each other: each would wait for the other. False for an unknown id.
    bool eventRemoveListener(long id);
    int eventListenerCount() const;

    // Delivers the event to this node's listeners of that name, in id order. Direct
    // payload listeners get `data` itself, rewound to its start before each call (they
    // must not write to it); Queued listeners get a copy made now, rewound before each
    // call. Plain listeners are called without the data.
    void eventSend(const QByteArray& name);
    void eventSend(const QByteArray& name, Basalt::BinaryData& data);
    // Delivery of an incoming event; delivers to the listeners like eventSend.
    // Subclasses override it to route events elsewhere.
    virtual void eventProcess(const QByteArray& name, Basalt::BinaryData& data);

    // Runs `function` on the update thread at the next UpdateLoop::runOnce.
    // Thread-safe.
    static void invokeAfterUpdate(std::function<void()> function);

protected:
    // Called after a child was added, before "attribute-added" is sent.
    virtual void attributeAdded(Attribute* attribute);
    // Called before a child leaves the list, before "attribute-removed" is sent.
    virtual void attributeRemoved(Attribute* attribute);
    void aboutToBeDestroyed() override;

private:
    friend class Attribute;
    friend class ListenerHolder;

    // The holder's registrations (ListenerHolder::addBd); the holder is told of the
    // node's end, as attribute listeners' holders are.
    long eventAddListenerBd(const QByteArray& name,
                            std::function<void(Basalt::BinaryData&)> callback, ListenerType type,
                            ListenerHolder* holder);
    bool eventRemoveListenersOf(const ListenerHolder* holder);
    bool hasEventListenersOf(const ListenerHolder* holder) const;
    // Called once the deletion listeners ran: every holder of event listeners forgets
    // this node.
    void forgetEventHolders();

    // Nodes with up to this many children find them by a scan of the list: most nodes
    // have a handful, and an index would cost more than the children's own records.
    static constexpr std::size_t UnindexedChildren = 8;

    // The listed child of that name, or null.
    Attribute* findChild(const QByteArray& name) const;
    // Indexes a child just listed, or every child once there are too many to scan.
    void indexChild(Attribute* child);
    // Puts `child` last in the list, or takes it out.
    void listChild(Attribute* child);
    void unlistChild(Attribute* child);
    void detach(Attribute* child);
    void sendChildEvent(const QByteArray& event, const QByteArray& childName);
    bool isSelfOrAncestor(const Attribute* attribute) const;
    // The children, counted along the list up to `limit`.
    uint32_t scanCount(uint32_t limit) const;

    // The event table, made on the first declaration or listener (most nodes of a large
    // tree never get one): `eventTable` is null until then, and set once.
    NodeEventTable& ensureEvents();

    // The children in order; the first one's previousSibling is the last one.
    Attribute* firstChild = nullptr;
    // Finds the children by name, and counts them, once they are many.
    ChildIndex childIndex;
    // Owned through the table itself (NodeEventTable::makeForNode), and shared with
    // queued deliveries, which may run after the node is gone.
    std::atomic<NodeEventTable*> eventTable{nullptr};
};

// The node that `attribute` is, or null (also for null); see Attribute::asNode.
inline Node* asNode(Attribute* attribute) {
    return attribute ? attribute->asNode() : nullptr;
}

} // namespace Tessel
