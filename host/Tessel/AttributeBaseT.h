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

#include <array>
#include <cmath>
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

} // namespace Detail

template <typename T> class AttributeBaseT : public Attribute {
public:
    using ValueType = T;

    AttributeBaseT() = default;
    AttributeBaseT(Node* host, const QByteArray& name) : Attribute(host, name) {}
    // The default value is stored on layer 0 without firing a change.
    AttributeBaseT(Node* host, const QByteArray& name, const T& defaultValue)
        : Attribute(host, name), current(defaultValue) {
        layers[LayerDefault] = defaultValue;
    }
    ~AttributeBaseT() override { aboutToBeDestroyed(); }

    // The effective value; what serializers read.
    const T& value() const { return current; }
    // The value stored on `layer` (LayerCurrent: the effective value); null when the
    // layer holds none.
    const T* valueOnLayer(Layer layer) const {
        if (layer == LayerCurrent)
            return &current;
        if (!isStorageLayer(layer) || !layers[size_t(layer)])
            return nullptr;
        return &*layers[size_t(layer)];
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
        layers[size_t(layer)] = value;
        refresh();
    }

    bool isChanged() const override {
        for (int layer = LayerDefault + 1; layer < LayerCount; ++layer)
            if (layers[size_t(layer)])
                return true;
        return false;
    }
    bool isValueDefinedOnLayer(Layer layer) const override {
        if (layer == LayerCurrent) {
            for (const auto& stored : layers)
                if (stored)
                    return true;
            return false;
        }
        return isStorageLayer(layer) && layers[size_t(layer)].has_value();
    }
    void clearValue(Layer layer) override {
        if (!isStorageLayer(layer) || !layers[size_t(layer)])
            return;
        layers[size_t(layer)].reset();
        refresh();
    }
    void copyValueFromLayer(Layer from, Layer to) override {
        if (!isStorageLayer(from) || !isStorageLayer(to) || from == to)
            return;
        if (layers[size_t(from)])
            setValue(*layers[size_t(from)], to);
        else
            clearValue(to);
    }
    void setAsDefaults() override {
        for (auto& stored : layers)
            stored.reset();
        layers[LayerDefault] = current;
    }

protected:
    static bool isStorageLayer(Layer layer) { return layer >= LayerDefault && layer < LayerCount; }

private:
    // Recomputes the effective value and fires a change when it moved.
    void refresh() {
        const T* top = nullptr;
        for (int layer = LayerCount - 1; layer >= LayerDefault && !top; --layer)
            if (layers[size_t(layer)])
                top = &*layers[size_t(layer)];
        if (top ? Detail::sameValue(*top, current) : Detail::sameValue(T{}, current))
            return;
        current = top ? *top : T{};
        emitChange();
    }

    std::array<std::optional<T>, LayerCount> layers;
    T current{};
};

} // namespace Tessel
