#include "Tessel/AttributeTuple.h"

namespace Tessel {

AttributeTuple::AttributeTuple() = default;

AttributeTuple::~AttributeTuple() {
    aboutToBeDestroyed();
}

Attribute* AttributeTuple::componentAttribute(int index) const {
    if (index < 0 || index >= componentCount())
        return nullptr;
    return components[size_t(index)];
}

Attribute* AttributeTuple::attribute(const QByteArray& name) const {
    for (Attribute* component : components)
        if (component->name() == name)
            return component;
    return nullptr;
}

void AttributeTuple::addComponent(Attribute* component) {
    component->setSerializable(false);
    components.push_back(component);
    // The component dies with the tuple (it is a member), and so does this listener.
    component->addListener([this] { componentChanged(); }, RoleChange);
}

void AttributeTuple::componentChanged() {
    if (updateDepth > 0)
        changedDuringUpdate = true;
    else
        emitChange();
}

void AttributeTuple::beginUpdate() {
    ++updateDepth;
}

void AttributeTuple::endUpdate() {
    if (updateDepth == 0)
        return;
    if (--updateDepth > 0 || !changedDuringUpdate)
        return;
    changedDuringUpdate = false;
    emitChange();
}

bool AttributeTuple::isChanged() const {
    for (Attribute* component : components)
        if (component->isChanged())
            return true;
    return false;
}

bool AttributeTuple::isValueDefinedOnLayer(Layer layer) const {
    for (Attribute* component : components)
        if (component->isValueDefinedOnLayer(layer))
            return true;
    return false;
}

void AttributeTuple::clearValue(Layer layer) {
    beginUpdate();
    for (Attribute* component : components)
        component->clearValue(layer);
    endUpdate();
}

void AttributeTuple::copyValueFromLayer(Layer from, Layer to) {
    beginUpdate();
    for (Attribute* component : components)
        component->copyValueFromLayer(from, to);
    endUpdate();
}

void AttributeTuple::setAsDefaults() {
    for (Attribute* component : components)
        component->setAsDefaults();
}

// AttributeT<Quant::Vector2f, Separate>

AttributeT<Quant::Vector2f, Separate>::AttributeT() : AttributeT(nullptr, QByteArray()) {}

AttributeT<Quant::Vector2f, Separate>::AttributeT(Node* host, const QByteArray& name)
    : AttributeTuple2(host, name, "x", "y", nullptr) {}

AttributeT<Quant::Vector2f, Separate>::AttributeT(Node* host, const QByteArray& name,
                                                  const Quant::Vector2f& defaultValue)
    : AttributeTuple2(host, name, "x", "y", &defaultValue) {}

AttributeT<Quant::Vector2f, Separate>::~AttributeT() {
    aboutToBeDestroyed();
}

QByteArray AttributeT<Quant::Vector2f, Separate>::type() const {
    return "vec2f-separate";
}

// AttributeT<Quant::SizeF>

AttributeT<Quant::SizeF>::AttributeT() : AttributeT(nullptr, QByteArray()) {}

AttributeT<Quant::SizeF>::AttributeT(Node* host, const QByteArray& name)
    : AttributeTuple2(host, name, "width", "height", nullptr) {}

AttributeT<Quant::SizeF>::AttributeT(Node* host, const QByteArray& name,
                                     const Quant::SizeF& defaultValue)
    : AttributeTuple2(host, name, "width", "height", &defaultValue) {}

AttributeT<Quant::SizeF>::~AttributeT() {
    aboutToBeDestroyed();
}

QByteArray AttributeT<Quant::SizeF>::type() const {
    return "sizef";
}

// AttributeT<Quant::SizeI>

AttributeT<Quant::SizeI>::AttributeT() : AttributeT(nullptr, QByteArray()) {}

AttributeT<Quant::SizeI>::AttributeT(Node* host, const QByteArray& name)
    : AttributeTuple2(host, name, "width", "height", nullptr) {}

AttributeT<Quant::SizeI>::AttributeT(Node* host, const QByteArray& name,
                                     const Quant::SizeI& defaultValue)
    : AttributeTuple2(host, name, "width", "height", &defaultValue) {}

AttributeT<Quant::SizeI>::~AttributeT() {
    aboutToBeDestroyed();
}

QByteArray AttributeT<Quant::SizeI>::type() const {
    return "sizei";
}

} // namespace Tessel
