#include "Tessel/Attribute.h"

#include "Tessel/Node.h"

#include "Tessel/ListenerHolder.h"
#include "Tessel/ListenerId.h"
#include "Tessel/Snapshot.h"

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

Attribute::~Attribute() {
    aboutToBeDestroyed();
    // Emissions still running over this attribute (a listener deleted it) skip the rest.
    if (listeners)
        for (const auto& listener : *listeners)
            listener->removed = true;
}

void Attribute::aboutToBeDestroyed() {
    if (destroying)
        return;
    destroying = true;
    emitDelete();
    // Holders forget this attribute now, the way a deletion listener of theirs would.
    if (listeners)
        for (const auto& listener : *listeners)
            if (listener->holder)
                listener->holder->forget(this);
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
    const std::shared_ptr<const ListenerTable> snapshot = listeners;
    for (const auto& listener : *snapshot)
        if ((listener->roles & role) && !listener->removed)
            listener->callback();
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
    // Ids only grow, so the new one goes last.
    listeners = appended(listeners, std::move(listener));
    return id;
}

template <typename Keep> void Attribute::replaceListeners(Keep keep) {
    std::size_t kept = 0;
    for (const auto& listener : *listeners)
        kept += keep(*listener);
    if (kept == 0) {
        for (const auto& listener : *listeners)
            listener->removed = true;
        listeners = nullptr;
        return;
    }
    auto table = std::make_shared<ListenerTable>();
    table->reserve(kept);
    for (const auto& listener : *listeners) {
        if (keep(*listener))
            table->push_back(listener);
        else
            listener->removed = true;
    }
    listeners = std::move(table);
}

bool Attribute::removeListener(long id) {
    if (!listeners)
        return false;
    const auto found = std::find_if(listeners->begin(), listeners->end(),
                                    [id](const auto& listener) { return listener->id == id; });
    if (found == listeners->end())
        return false;
    ListenerHolder* holder = (*found)->holder;
    replaceListeners([id](const Listener& listener) { return listener.id != id; });
    // A holder with nothing left here would not hear of this attribute's end.
    if (holder &&
        (!listeners || std::none_of(listeners->begin(), listeners->end(),
                                    [holder](const auto& l) { return l->holder == holder; })))
        holder->forget(this);
    return true;
}

bool Attribute::removeListenersOf(const ListenerHolder* holder) {
    if (!listeners || std::none_of(listeners->begin(), listeners->end(),
                                   [holder](const auto& l) { return l->holder == holder; }))
        return false;
    replaceListeners([holder](const Listener& listener) { return listener.holder != holder; });
    return true;
}

} // namespace Tessel
