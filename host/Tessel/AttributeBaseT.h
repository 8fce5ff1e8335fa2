// Typed layered storage: one optional value of T per storage layer and the cached
// effective value (the value of the highest defined layer, else T()). Lives on the tree
// thread.
//
// setValue and the layer operations fire one change exactly when the effective value
// changes: writing an equal value, or writing under a higher defined layer, fires
// nothing. Floating-point values compare equal when both are NaN, so re-setting NaN is
// no change.
#pragma once

#include "Tessel/Attribute.h"

#include "Basalt/Trace.h"

#include <QByteArray>
#include <QString>

#include <array>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <memory>
#include <optional>
#include <type_traits>

namespace Tessel {

namespace Detail {

template <typename T> bool sameValue(const T& a, const T& b) {
    // -0 and +0 compare equal but are different values: a change between them is one.
    if constexpr (std::is_floating_point<T>::value)
        return (a == b && std::signbit(a) == std::signbit(b)) || (std::isnan(a) && std::isnan(b));
    else
        return a == b;
}

// Whether b is a's very value, not only an equal one (-0 for +0 in a vector, a null
// string for an empty one, another NaN).
template <typename T> bool identicalValue(const T& a, const T& b) {
    if constexpr (std::is_trivially_copyable<T>::value)
        return std::memcmp(&a, &b, sizeof(T)) == 0;
    else if constexpr (std::is_same<T, QString>::value || std::is_same<T, QByteArray>::value)
        return a.isNull() == b.isNull() && a == b;
    else
        return a == b;
}

} // namespace Detail

template <typename T> class AttributeBaseT : public Attribute {
public:
    using ValueType = T;

    AttributeBaseT() = default;
    AttributeBaseT(Node* host, const QByteArray& name) : Attribute(host, name) {}
    // The default value is stored on layer 0 without firing a change.
    AttributeBaseT(Node* host, const QByteArray& name, const T& defaultValue)
        : Attribute(host, name), current(defaultValue), defined(bit(LayerDefault)) {}
    ~AttributeBaseT() override {
        aboutToBeDestroyed();
        dropLayers();
    }

    // The effective value; what serializers read.
    const T& value() const { return current; }

    // The value stored on `layer` (LayerCurrent: the effective value); null when the
    // layer holds none.
    const T* valueOnLayer(Layer layer) const {
        if (layer == LayerCurrent)
            return &current;
        if (!isStorageLayer(layer) || !(defined & bit(layer)))
            return nullptr;
        return spilled ? &*(*layers())[size_t(layer)] : &current;
    }

    // Stores `value` on a storage layer; LayerCurrent or an invalid layer is refused
    // with a warning.
    virtual void setValue(const T& value, Layer layer) {
        if (!isStorageLayer(layer)) {
            Basalt::Trace::warning("AttributeBaseT::setValue # Layer %d of '%s' is not a storage "
                                   "layer",
                                   int(layer), name().constData());
            return;
        }
        if (!spilled && (defined == 0 || defined == bit(layer))) {
            // The only layer with a value: it is the effective value. An equal value that
            // is not the same (which changes nothing) is kept as written, in the table.
            if (Detail::identicalValue(value, current)) {
                defined = bit(layer);
                return;
            }
            if (!Detail::sameValue(value, current)) {
                defined = bit(layer);
                current = value;
                emitChange();
                return;
            }
        }
        if (!spilled)
            spill();
        (*layers())[size_t(layer)] = value;
        defined |= bit(layer);
        refresh();
    }

    bool isChanged() const override { return (defined & ~bit(LayerDefault)) != 0; }

    bool isValueDefinedOnLayer(Layer layer) const override {
        if (layer == LayerCurrent)
            return defined != 0;
        return isStorageLayer(layer) && (defined & bit(layer));
    }

    void clearValue(Layer layer) override {
        if (!isStorageLayer(layer) || !(defined & bit(layer)))
            return;
        defined &= uint8_t(~bit(layer));
        if (spilled)
            (*layers())[size_t(layer)].reset();
        refresh();
    }

    void copyValueFromLayer(Layer from, Layer to) override {
        if (!isStorageLayer(from) || !isStorageLayer(to) || from == to)
            return;
        if (const T* stored = valueOnLayer(from)) {
            const T copy = *stored; // setValue may move where it is kept
            setValue(copy, to);
        } else {
            clearValue(to);
        }
    }

    void setAsDefaults() override {
        dropLayers();
        defined = bit(LayerDefault);
    }

protected:
    static bool isStorageLayer(Layer layer) { return layer >= LayerDefault && layer < LayerCount; }

private:
    using Layers = std::array<std::optional<T>, LayerCount>;

    static uint8_t bit(Layer layer) { return uint8_t(1u << unsigned(layer)); }

    // The table of every layer, once spilled: the attribute's side table.
    Layers* layers() const { return static_cast<Layers*>(sideTable()); }

    // Moves the one stored value (kept as `current`) into a table of every layer, from
    // where a second layer on the same attribute is stored.
    void spill() {
        auto table = std::make_unique<Layers>();
        for (int layer = LayerDefault; layer < LayerCount; ++layer)
            if (defined & bit(Layer(layer)))
                (*table)[size_t(layer)] = current;
        setSideTable(table.get());
        table.release();
        spilled = true;
    }

    void dropLayers() {
        if (!spilled)
            return;
        Layers* table = layers();
        spilled = false;
        setSideTable(nullptr);
        delete table;
    }

    // Recomputes the effective value and fires a change when it moved.
    void refresh() {
        const T* top = nullptr;
        for (int layer = LayerCount - 1; layer >= LayerDefault && !top; --layer)
            if (defined & bit(Layer(layer)))
                top = spilled ? &*(*layers())[size_t(layer)] : &current;
        if (top ? Detail::sameValue(*top, current) : Detail::sameValue(T{}, current))
            return;
        current = top ? *top : T{};
        emitChange();
    }

    // One bit per storage layer holding a value. Until `spilled` (a table of every layer
    // kept as the side table), at most one bit is set and that layer's value is exactly
    // `current`: most attributes hold a value on one layer only, and a table of every
    // layer would double or triple their size.
    T current{};
    uint8_t defined = 0;
    bool spilled = false;
};

} // namespace Tessel
