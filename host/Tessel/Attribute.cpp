#include "Tessel/Attribute.h"

#include "Tessel/Node.h"

#include "Tessel/ListenerId.h"

#include "Basalt/Trace.h"

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
    for (auto& entry : listeners)
        entry.second->removed = true;
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
    std::vector<std::shared_ptr<Listener>> batch;
    for (const auto& entry : listeners)
        if (entry.second->roles & role)
            batch.push_back(entry.second);
    // The batch keeps each entry (and its callback) alive while it runs, even if the
    // callback removes it or destroys this attribute; `removed` tells the rest to skip.
    for (const auto& listener : batch)
        if (!listener->removed)
            listener->callback();
}

long Attribute::addListener(std::function<void()> callback, int roleMask) {
    const long id = issueListenerId();
    auto listener = std::make_shared<Listener>();
    listener->callback = std::move(callback);
    listener->roles = roleMask;
    listeners.emplace(id, std::move(listener));
    return id;
}

bool Attribute::removeListener(long id) {
    auto it = listeners.find(id);
    if (it == listeners.end())
        return false;
    it->second->removed = true;
    listeners.erase(it);
    return true;
}

} // namespace Tessel
