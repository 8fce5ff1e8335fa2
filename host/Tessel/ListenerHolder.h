// Keeps track of listener registrations made on attributes and on node events, so that
// they can be dropped per attribute or all at once (on destruction). Lives on the tree
// thread.
//
// It never touches an attribute that has been destroyed: an attribute tells the holders
// of its listeners when it starts being destroyed (right after its deletion listeners
// ran), and they forget it then (the attribute's own destruction drops its listeners; a
// node's drops its event listeners).
#pragma once

#include "Tessel/Node.h"

#include "Basalt/PointerSet.h"

#include <QByteArray>

#include <functional>
#include <unordered_map>
#include <vector>

namespace Basalt {
class BinaryData;
}

namespace Tessel {

class ListenerHolder {
public:
    ListenerHolder();
    // Removes every registration still held.
    ~ListenerHolder();
    ListenerHolder(const ListenerHolder&) = delete;
    ListenerHolder& operator=(const ListenerHolder&) = delete;

    // Attribute::addListener, remembered. -1 (nothing registered) for a null attribute or
    // one being destroyed. Removing the returned id on the attribute itself is allowed:
    // the holder forgets the attribute once none of its listeners are left there.
    long add(Attribute* attribute, std::function<void()> callback, int roleMask);
    // Node::eventAddListenerBd, remembered. -1 for a null node or one being destroyed.
    long addBd(Node* node, const QByteArray& event,
               std::function<void(Basalt::BinaryData&)> callback, Node::ListenerType type);
    // Removes everything registered through this holder on that attribute or node.
    void removeListeners(Attribute* attribute);
    void removeAll();
    // Whether registrations on `attribute` are held.
    bool holds(Attribute* attribute) const { return held.contains(attribute); }

private:
    friend class Attribute;
    // Called by an attribute that is being destroyed.
    void forget(Attribute* attribute) {
        if (held.erase(attribute))
            nodeEvents.erase(attribute);
    }

    // Every attribute or node with registrations of ours. The attribute's listeners are
    // found by their holder tag; only node event listeners need their ids kept.
    Basalt::PointerSet<Attribute> held;
    // Per node with event registrations: their ids (Node::eventAddListenerBd). A node
    // gets an inert tagged listener with its first one, so that it tells us of its end.
    std::unordered_map<Attribute*, std::vector<long>> nodeEvents;
};

} // namespace Tessel
