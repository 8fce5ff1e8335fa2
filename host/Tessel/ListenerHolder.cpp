#include "Tessel/ListenerHolder.h"

namespace Tessel {

ListenerHolder::ListenerHolder() = default;

ListenerHolder::~ListenerHolder() {
    removeAll();
}

ListenerHolder::Registrations& ListenerHolder::entryFor(Attribute* attribute) {
    auto it = held.find(attribute);
    if (it != held.end())
        return it->second;
    Registrations& entry = held[attribute];
    // The attribute's destruction drops its own listeners; only the bookkeeping goes.
    entry.deathWatch =
        attribute->addListener([this, attribute] { held.erase(attribute); }, Attribute::RoleDelete);
    return entry;
}

long ListenerHolder::add(Attribute* attribute, const std::function<void()>& callback,
                         int roleMask) {
    if (!attribute)
        return -1;
    Registrations& entry = entryFor(attribute);
    const long id = attribute->addListener(callback, roleMask);
    entry.listeners.push_back(id);
    return id;
}

long ListenerHolder::addBd(Node* node, const QByteArray& event,
                           const std::function<void(Basalt::BinaryData&)>& callback,
                           Node::ListenerType type) {
    if (!node)
        return -1;
    Registrations& entry = entryFor(node);
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
    attribute->removeListener(entry.deathWatch);
    for (long id : entry.listeners)
        attribute->removeListener(id);
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
