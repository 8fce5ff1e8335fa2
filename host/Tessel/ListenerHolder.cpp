#include "Tessel/ListenerHolder.h"

#include <utility>

namespace Tessel {

ListenerHolder::ListenerHolder() = default;

ListenerHolder::~ListenerHolder() {
    removeAll();
}

long ListenerHolder::add(Attribute* attribute, std::function<void()> callback, int roleMask) {
    if (!attribute || attribute->destroying)
        return -1;
    held.insert(attribute);
    return attribute->addListener(std::move(callback), roleMask, this);
}

long ListenerHolder::addBd(Node* node, const QByteArray& event,
                           std::function<void(Basalt::BinaryData&)> callback,
                           Node::ListenerType type) {
    if (!node || node->destroying)
        return -1;
    held.insert(node);
    auto made = nodeEvents.try_emplace(node);
    // Something of ours that nobody else removes must sit on the node for it to tell us
    // of its end: event listeners are not attribute listeners.
    if (made.second) {
        node->addListener(std::function<void()>(), 0, this);
        made.first->second.reserve(2); // the common case: one or two events
    }
    const long id = node->eventAddListenerBd(event, std::move(callback), type);
    made.first->second.push_back(id);
    return id;
}

void ListenerHolder::removeListeners(Attribute* attribute) {
    if (!held.erase(attribute))
        return;
    std::vector<long> eventListeners;
    auto it = nodeEvents.find(attribute);
    if (it != nodeEvents.end()) {
        eventListeners = std::move(it->second);
        nodeEvents.erase(it);
    }
    attribute->removeListenersOf(this);
    for (long id : eventListeners)
        static_cast<Node*>(attribute)->eventRemoveListener(id); // only nodes have them
}

void ListenerHolder::removeAll() {
    for (Attribute* attribute : held.values())
        removeListeners(attribute); // a no-op for one forgotten meanwhile
}

} // namespace Tessel
