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
    // The returned id may be removed on the node itself, from any thread: the holder then
    // keeps the node until it dies or removeListeners lets it go.
    long addBd(Node* node, const QByteArray& event,
               std::function<void(Basalt::BinaryData&)> callback, Node::ListenerType type);
    // Removes everything registered through this holder on that attribute or node.
    void removeListeners(Attribute* attribute);
    void removeAll();
    // Whether registrations on `attribute` are held.
    bool holds(Attribute* attribute) const { return held.contains(attribute); }

private:
    friend class Attribute;
    friend class Node;

    // Called by an attribute that is being destroyed, and by one that has none of our
    // listeners left.
    void forget(Attribute* attribute) { held.erase(attribute); }

    // Every attribute or node with registrations of ours. They are found there by their
    // holder tag, attribute listeners and node event listeners alike.
    Basalt::PointerSet<Attribute> held;
};

} // namespace Tessel
