// An attribute that stands for another one, its target (possibly null, possibly another
// alias, forming a chain). Lives on the tree thread.
//
// The alias's RoleChange listeners report changes of what it points to, never value
// changes of the target: they fire when its own target is set to another one, when an
// alias further down the chain is retargeted, and when the target is destroyed (the
// alias then falls back to null). Value conversions and sub-attribute lookup go to the
// final target of the chain.
#pragma once

#include "Tessel/Attribute.h"

namespace Tessel {

class AttributeAlias : public Attribute {
public:
    AttributeAlias();
    AttributeAlias(Node* host, const QByteArray& name, Attribute* target = nullptr);
    ~AttributeAlias() override;

    QByteArray type() const override;

    // Points the alias at `target` (null to unset). False, and no change, when the
    // target would close a cycle (itself, or a chain that leads back to it).
    bool setTarget(Attribute* target);
    // The direct target; null when unset.
    Attribute* attribute() const { return directTarget; }
    // The end of the chain: the first attribute that is not an alias, or null.
    Attribute* finalTarget() const { return resolve(directTarget); }
    // `attribute` itself when it is not an alias, else the end of its chain.
    static Attribute* resolve(Attribute* attribute);

    // The final target's sub-attribute; null without a target.
    Attribute* attribute(const QByteArray& name) const override;
    float asFloat(bool* ok = nullptr, Layer layer = LayerCurrent) const override;
    int asInt(bool* ok = nullptr, Layer layer = LayerCurrent) const override;
    QString asString(bool* ok = nullptr, Layer layer = LayerCurrent) const override;
    bool set(float value, Layer layer, ValueUnit unit = UnitNumber) override;
    bool set(int value, Layer layer, ValueUnit unit = UnitNumber) override;
    bool set(const QString& value, Layer layer, ValueUnit unit = UnitNumber) override;
    bool set(const Quant::Vector2f& value, Layer layer, Units units = Units()) override;
    bool set(const Quant::Vector3f& value, Layer layer, Units units = Units()) override;
    bool set(const Quant::Vector4f& value, Layer layer, Units units = Units()) override;

private:
    void hook();
    void unhook();
    void targetDestroyed();

    Attribute* directTarget = nullptr;
    long deathListener = -1;
    long retargetListener = -1; // on a target that is itself an alias
};

} // namespace Tessel
