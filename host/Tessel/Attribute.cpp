#include "Tessel/Attribute.h"

#include "Tessel/Node.h"

#include "Tessel/ListenerId.h"

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
    auto listener = std::make_shared<Listener>();
    listener->id = issueListenerId();
    listener->callback = std::move(callback);
    listener->roles = roleMask;
    auto table =
        listeners ? std::make_shared<ListenerTable>(*listeners) : std::make_shared<ListenerTable>();
    // Ids only grow, so the new one goes last.
    table->push_back(listener);
    listeners = std::move(table);
    return listener->id;
}

bool Attribute::removeListener(long id) {
    if (!listeners)
        return false;
    const auto found = std::find_if(listeners->begin(), listeners->end(),
                                    [id](const auto& listener) { return listener->id == id; });
    if (found == listeners->end())
        return false;
    (*found)->removed = true;
    auto table = std::make_shared<ListenerTable>();
    table->reserve(listeners->size() - 1);
    for (const auto& listener : *listeners)
        if (listener->id != id)
            table->push_back(listener);
    listeners = table->empty() ? nullptr : std::move(table);
    return true;
}

} // namespace Tessel
