#include "Tessel/ListenerHolder.h"

namespace Tessel {

ListenerHolder::ListenerHolder() = default;

ListenerHolder::~ListenerHolder() {
    removeAll();
}

ListenerHolder::Registrations& ListenerHolder::entryFor(Attribute* attribute, bool tagged) {
    const auto inserted = held.try_emplace(attribute);
    // Something of ours must sit on the attribute for it to tell us of its end: a node
    // that gets only event listeners carries an inert listener for that.
    if (inserted.second && !tagged)
        attribute->addListener(std::function<void()>(), 0, this);
    return inserted.first->second;
}

long ListenerHolder::add(Attribute* attribute, const std::function<void()>& callback,
                         int roleMask) {
    if (!attribute)
        return -1;
    entryFor(attribute, true);
    return attribute->addListener(callback, roleMask, this);
}

long ListenerHolder::addBd(Node* node, const QByteArray& event,
                           const std::function<void(Basalt::BinaryData&)>& callback,
                           Node::ListenerType type) {
    if (!node)
        return -1;
    Registrations& entry = entryFor(node, false);
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
