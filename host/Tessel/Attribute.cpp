#include "Tessel/Attribute.h"

#include "Tessel/Node.h"

#include "Tessel/ListenerHolder.h"
#include "Tessel/ListenerId.h"
#include "Tessel/TreeObserver.h"

#include "Basalt/Trace.h"

#include <algorithm>
#include <vector>

namespace Tessel {

Attribute::Attribute() = default;

Attribute::Attribute(Node* host, const QByteArray& name) {
    attachTo(host, name);
}

void Attribute::attachTo(Node* host, const QByteArray& name) {
    if (!hostNode)
        attributeName = name;
    if (host && !host->addAttribute(name, this))
        Basalt::Trace::warning("Attribute::attachTo # Could not add '%s' to '%s'", name.constData(),
                               host->name().constData());
}

Attribute::ListenerSnapshot::ListenerSnapshot(std::shared_ptr<const ListenerBlock> entries)
    : entries(std::move(entries)) {}

std::size_t Attribute::ListenerSnapshot::size() const {
    if (!entries)
        return 0;
    return entries->isTable ? table().entries.size() : 1;
}

Attribute::Listener& Attribute::ListenerSnapshot::at(std::size_t index) const {
    if (entries->isTable)
        return *table().entries[index];
    // Made as a mutable Listener by addListener; only its `removed` flag ever changes.
    return const_cast<Listener&>(static_cast<const Listener&>(*entries));
}

std::shared_ptr<Attribute::Listener> Attribute::ListenerSnapshot::share(std::size_t index) const {
    if (entries->isTable)
        return table().entries[index];
    return std::shared_ptr<Listener>(entries, &at(0));
}

Attribute::~Attribute() {
    aboutToBeDestroyed();
    // Emissions still running over this attribute (a listener deleted it) skip the rest.
    for (std::size_t i = 0; i < listeners.size(); ++i)
        listeners.at(i).removed = true;
}

thread_local Attribute::EndWatch* Attribute::endWatches = nullptr;

Attribute::EndWatch::EndWatch(const Attribute* attribute) : watched(attribute), next(endWatches) {
    endWatches = this;
}

Attribute::EndWatch::~EndWatch() {
    endWatches = next;
}

void Attribute::aboutToBeDestroyed() {
    if (destroying)
        return;
    destroying = true;
    for (EndWatch* watch = endWatches; watch; watch = watch->next)
        if (watch->watched == this)
            watch->hasEnded = true;
    emitDelete();
    // Holders forget this attribute now, the way a deletion listener of theirs would.
    for (std::size_t i = 0; i < listeners.size(); ++i)
        if (ListenerHolder* holder = listeners.at(i).holder)
            holder->forget(this);
    if (Node* node = asNode())
        node->forgetEventHolders();
    if (hostNode)
        hostNode->removeAttribute(this);
}

void Attribute::setName(const QByteArray& name) {
    if (hostNode) {
        Basalt::Trace::warning("Attribute::setName # '%s' is held by a node and keeps its name",
                               attributeName.constData());
        return;
    }
    attributeName = name;
}

QByteArray Attribute::type() const {
    return "attribute";
}

Attribute* Attribute::attribute(const QByteArray&) const {
    return nullptr;
}

float Attribute::asFloat(bool* ok, Layer) const {
    if (ok)
        *ok = false;
    return 0.0f;
}

int Attribute::asInt(bool* ok, Layer) const {
    if (ok)
        *ok = false;
    return 0;
}

QString Attribute::asString(bool* ok, Layer) const {
    if (ok)
        *ok = false;
    return QString();
}

bool Attribute::set(float, Layer, ValueUnit) {
    return false;
}

bool Attribute::set(int, Layer, ValueUnit) {
    return false;
}

bool Attribute::set(const QString&, Layer, ValueUnit) {
    return false;
}

bool Attribute::set(const Quant::Vector2f&, Layer, Units) {
    return false;
}

bool Attribute::set(const Quant::Vector3f&, Layer, Units) {
    return false;
}

bool Attribute::set(const Quant::Vector4f&, Layer, Units) {
    return false;
}

bool Attribute::isChanged() const {
    return false;
}

bool Attribute::isValueDefinedOnLayer(Layer) const {
    return false;
}

void Attribute::clearValue(Layer) {}

void Attribute::copyValueFromLayer(Layer, Layer) {}

void Attribute::setAsDefaults() {}

void Attribute::emitChange() {
    if (treeObserver)
        treeObserver->attributeChanged(*this);
    emitRole(RoleChange);
}

void Attribute::emitDelete() {
    emitRole(RoleDelete);
}

void Attribute::emitRole(int role) {
    if (!listeners)
        return;
    // The snapshot keeps each entry (and its callback) alive while it runs, even if the
    // callback removes it or destroys this attribute; `removed` tells the rest to skip.
    const ListenerSnapshot snapshot = listeners;
    for (std::size_t i = 0, count = snapshot.size(); i < count; ++i) {
        Listener& listener = snapshot.at(i);
        if ((listener.roles & role) && !listener.removed)
            listener.callback();
    }
}

long Attribute::addListener(std::function<void()> callback, int roleMask) {
    return addListener(std::move(callback), roleMask, nullptr);
}

long Attribute::addListener(std::function<void()> callback, int roleMask, ListenerHolder* holder) {
    auto listener = std::make_shared<Listener>();
    listener->id = issueListenerId();
    listener->callback = std::move(callback);
    listener->holder = holder;
    listener->roles = roleMask;
    const long id = listener->id;
    if (!listeners) {
        listeners = ListenerSnapshot(std::move(listener));
        return id;
    }
    // Ids only grow, so the new one goes last.
    auto table = std::make_shared<ListenerTable>();
    table->entries.reserve(listeners.size() + 1);
    for (std::size_t i = 0; i < listeners.size(); ++i)
        table->entries.push_back(listeners.share(i));
    table->entries.push_back(std::move(listener));
    listeners = ListenerSnapshot(std::move(table));
    return id;
}

template <typename Keep> void Attribute::replaceListeners(Keep keep) {
    std::size_t kept = 0;
    for (std::size_t i = 0; i < listeners.size(); ++i)
        kept += keep(listeners.at(i));
    auto table = kept > 1 ? std::make_shared<ListenerTable>() : nullptr;
    if (table)
        table->entries.reserve(kept);
    std::shared_ptr<Listener> only;
    for (std::size_t i = 0; i < listeners.size(); ++i) {
        if (!keep(listeners.at(i)))
            listeners.at(i).removed = true;
        else if (table)
            table->entries.push_back(listeners.share(i));
        else
            only = listeners.share(i);
    }
    if (table)
        listeners = ListenerSnapshot(std::move(table));
    else if (only)
        listeners = ListenerSnapshot(std::move(only));
    else
        listeners = ListenerSnapshot();
}

bool Attribute::removeListener(long id) {
    std::size_t found = 0;
    while (found < listeners.size() && listeners.at(found).id != id)
        ++found;
    if (found == listeners.size())
        return false;
    ListenerHolder* holder = listeners.at(found).holder;
    replaceListeners([id](const Listener& listener) { return listener.id != id; });
    // A holder with nothing left here would not hear of this attribute's end.
    if (holder && !hasListenersOf(holder)) {
        Node* node = asNode();
        if (!node || !node->hasEventListenersOf(holder))
            holder->forget(this);
    }
    return true;
}

bool Attribute::hasListenersOf(const ListenerHolder* holder) const {
    for (std::size_t i = 0; i < listeners.size(); ++i)
        if (listeners.at(i).holder == holder)
            return true;
    return false;
}

bool Attribute::removeListenersOf(const ListenerHolder* holder) {
    if (!hasListenersOf(holder))
        return false;
    replaceListeners([holder](const Listener& listener) { return listener.holder != holder; });
    return true;
}

} // namespace Tessel
