#include "Tessel/ListenerHolder.h"

namespace Tessel {

ListenerHolder::ListenerHolder() = default;

ListenerHolder::~ListenerHolder() {
    removeAll();
}

long ListenerHolder::add(Attribute* attribute, const std::function<void()>& callback,
                         int roleMask) {
    if (!attribute || attribute->destroying)
        return -1;
    entryFor(attribute);
    return attribute->addListener(callback, roleMask, this);
}

long ListenerHolder::addBd(Node* node, const QByteArray& event,
                           const std::function<void(Basalt::BinaryData&)>& callback,
                           Node::ListenerType type) {
    if (!node || node->destroying)
        return -1;
    Registrations& entry = entryFor(node);
    // Something of ours that nobody else removes must sit on the node for it to tell us
    // of its end: event listeners are not attribute listeners.
    if (!entry.inert) {
        node->addListener(std::function<void()>(), 0, this);
        entry.inert = true;
    }
    const long id = node->eventAddListenerBd(event, callback, type);
    entry.eventListeners.push_back(id);
    return id;
}

void ListenerHolder::removeListeners(Attribute* attribute) {
    auto it = held.find(attribute);
    if (it == held.end())
        return;
    const Registrations entry = std::move(it->second);
    held.erase(it);
    attribute->removeListenersOf(this);
    if (!entry.eventListeners.empty()) {
        Node* node = static_cast<Node*>(attribute); // only nodes get event registrations
        for (long id : entry.eventListeners)
            node->eventRemoveListener(id);
    }
}

void ListenerHolder::removeAll() {
    while (!held.empty())
        removeListeners(held.begin()->first);
}

} // namespace Tessel
