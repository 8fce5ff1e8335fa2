#include "Tessel/AttributeAlias.h"

namespace Tessel {

AttributeAlias::AttributeAlias() {
    isAlias = true;
}

AttributeAlias::AttributeAlias(Node* host, const QByteArray& name, Attribute* target)
    : Attribute(host, name) {
    isAlias = true;
    if (target)
        setTarget(target);
}

AttributeAlias::~AttributeAlias() {
    aboutToBeDestroyed();
    unhook();
    isAlias = false;
}

QByteArray AttributeAlias::type() const {
    return "alias";
}

Attribute* AttributeAlias::resolve(Attribute* attribute) {
    while (attribute && attribute->isAlias)
        attribute = static_cast<AttributeAlias*>(attribute)->directTarget;
    return attribute;
}

bool AttributeAlias::setTarget(Attribute* target) {
    if (target == directTarget)
        return true;
    // Walk the new chain: reaching this alias would close a cycle.
    for (Attribute* link = target; link;) {
        if (link == this)
            return false;
        auto* alias = dynamic_cast<AttributeAlias*>(link);
        link = alias ? alias->directTarget : nullptr;
    }
    unhook();
    directTarget = target;
    hook();
    emitChange();
    return true;
}

void AttributeAlias::hook() {
    if (!directTarget)
        return;
    deathListener = directTarget->addListener([this] { targetDestroyed(); }, RoleDelete);
    if (dynamic_cast<AttributeAlias*>(directTarget))
        retargetListener = directTarget->addListener([this] { emitChange(); }, RoleChange);
}

void AttributeAlias::unhook() {
    if (directTarget) {
        directTarget->removeListener(deathListener);
        if (retargetListener >= 0)
            directTarget->removeListener(retargetListener);
    }
    deathListener = -1;
    retargetListener = -1;
}

void AttributeAlias::targetDestroyed() {
    // The target is still alive while its deletion listeners run.
    unhook();
    directTarget = nullptr;
    emitChange();
}

Attribute* AttributeAlias::attribute(const QByteArray& name) const {
    Attribute* target = finalTarget();
    return target ? target->attribute(name) : nullptr;
}

float AttributeAlias::asFloat(bool* ok, Layer layer) const {
    Attribute* target = finalTarget();
    return target ? target->asFloat(ok, layer) : Attribute::asFloat(ok, layer);
}

int AttributeAlias::asInt(bool* ok, Layer layer) const {
    Attribute* target = finalTarget();
    return target ? target->asInt(ok, layer) : Attribute::asInt(ok, layer);
}

QString AttributeAlias::asString(bool* ok, Layer layer) const {
    Attribute* target = finalTarget();
    return target ? target->asString(ok, layer) : Attribute::asString(ok, layer);
}

bool AttributeAlias::set(float value, Layer layer, ValueUnit unit) {
    Attribute* target = finalTarget();
    return target && target->set(value, layer, unit);
}

bool AttributeAlias::set(int value, Layer layer, ValueUnit unit) {
    Attribute* target = finalTarget();
    return target && target->set(value, layer, unit);
}

bool AttributeAlias::set(const QString& value, Layer layer, ValueUnit unit) {
    Attribute* target = finalTarget();
    return target && target->set(value, layer, unit);
}

bool AttributeAlias::set(const Quant::Vector2f& value, Layer layer, Units units) {
    Attribute* target = finalTarget();
    return target && target->set(value, layer, units);
}

bool AttributeAlias::set(const Quant::Vector3f& value, Layer layer, Units units) {
    Attribute* target = finalTarget();
    return target && target->set(value, layer, units);
}

bool AttributeAlias::set(const Quant::Vector4f& value, Layer layer, Units units) {
    Attribute* target = finalTarget();
    return target && target->set(value, layer, units);
}

} // namespace Tessel
