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
    return node->eventAddListenerBd(event, std::move(callback), type, this);
}

void ListenerHolder::removeListeners(Attribute* attribute) {
    if (!held.erase(attribute))
        return;
    attribute->removeListenersOf(this);
    if (Node* node = attribute->asNode())
        node->eventRemoveListenersOf(this);
}

void ListenerHolder::removeAll() {
    for (Attribute* attribute : held.values())
        removeListeners(attribute); // a no-op for one forgotten meanwhile
}

} // namespace Tessel
