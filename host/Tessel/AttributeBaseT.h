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
#include <new>
#include <optional>
#include <type_traits>
#include <utility>

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
        : Attribute(host, name), store(defaultValue) {
        setDefined(bit(LayerDefault));
    }
    ~AttributeBaseT() override {
        aboutToBeDestroyed();
        if (blocked() && hasListeners && !listenersInTable) {
            // Emissions still running over this attribute (a listener deleted it) skip
            // the rest; what a dying listener lets go of may come back to it, and finds
            // it without listeners and with its value (wherever that is kept then).
            const ListenerSnapshot dying = std::move(store.block->listeners);
            hasListeners = false;
            for (std::size_t i = 0; i < dying.size(); ++i)
                dying.at(i).removed = true;
        }
        if (blocked())
            delete store.block;
        else
            store.current.~T();
    }

    // The effective value; what serializers read. Valid until the attribute changes
    // (a value, a layer, a listener).
    const T& value() const { return blocked() ? store.block->current : store.current; }

    // The value stored on `layer` (LayerCurrent: the effective value); null when the
    // layer holds none.
    const T* valueOnLayer(Layer layer) const {
        if (layer == LayerCurrent)
            return &value();
        if (!isStorageLayer(layer) || !(defined() & bit(layer)))
            return nullptr;
        const Layers* table = layers();
        return table ? &*(*table)[size_t(layer)] : &value();
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
        if (!layers()) {
            if (defined() == 0 || defined() == bit(layer)) {
                // The only layer with a value: it is the effective value. An equal value
                // that is not the same (which changes nothing) is kept as written, in the
                // table.
                T& now = current();
                if (Detail::identicalValue(value, now)) {
                    setDefined(bit(layer));
                    return;
                }
                if (!Detail::sameValue(value, now)) {
                    setDefined(bit(layer));
                    now = value;
                    emitChange();
                    return;
                }
            }
            // `value` may be this attribute's own (value()), which the table may move.
            if (&value == &current()) {
                const T copy = value;
                setValue(copy, layer);
                return;
            }
            spill();
        }
        (*layers())[size_t(layer)] = value;
        setDefined(defined() | bit(layer));
        refresh();
    }

    bool isChanged() const override { return (defined() & ~bit(LayerDefault)) != 0; }

    bool isValueDefinedOnLayer(Layer layer) const override {
        if (layer == LayerCurrent)
            return defined() != 0;
        return isStorageLayer(layer) && (defined() & bit(layer));
    }

    void clearValue(Layer layer) override {
        if (!isStorageLayer(layer) || !(defined() & bit(layer)))
            return;
        setDefined(defined() & uint8_t(~bit(layer)));
        if (Layers* table = layers())
            (*table)[size_t(layer)].reset();
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
        setDefined(bit(LayerDefault));
    }

protected:
    static bool isStorageLayer(Layer layer) { return layer >= LayerDefault && layer < LayerCount; }

private:
    using Layers = std::array<std::optional<T>, LayerCount>;
    // What few attributes need beside their value: the listeners, and once two layers
    // hold a value, a table of every layer; the effective value moves in with them.
    struct Block {
        T current{};
        ListenerSnapshot listeners;
        std::unique_ptr<Layers> layers; // null while at most one layer holds a value
    };
    // Until there is a block (Attribute::valueInBlock), the effective value itself.
    // Without a table of layers, at most one layer bit is set, and that layer holds
    // exactly the effective value. Most attributes hold a value on one layer only and
    // have no listeners: a block kept where the value was costs them no pointer.
    union Store {
        Store() : current() {}
        explicit Store(const T& value) : current(value) {}
        ~Store() {}
        T current;
        Block* block;
    };

    static uint8_t bit(Layer layer) { return uint8_t(1u << unsigned(layer)); }
    // One bit per storage layer holding a value (kept in Attribute's flags).
    uint8_t defined() const { return uint8_t(layersDefined); }
    void setDefined(uint8_t bits) { layersDefined = bits & ((1u << LayerCount) - 1); }

    bool blocked() const { return valueInBlock; }
    T& current() { return blocked() ? store.block->current : store.current; }
    Layers* layers() const { return blocked() ? store.block->layers.get() : nullptr; }

    // Moves the value into a block of its own.
    void makeBlock() {
        auto block = std::make_unique<Block>();
        block->current = std::move(store.current);
        store.current.~T();
        store.block = block.release();
        valueInBlock = true;
    }

    // A table of every layer, from where a second layer on the same attribute is stored.
    void spill() {
        auto table = std::make_unique<Layers>();
        for (int layer = LayerDefault; layer < LayerCount; ++layer)
            if (defined() & bit(Layer(layer)))
                (*table)[size_t(layer)] = value();
        if (!blocked())
            makeBlock();
        store.block->layers = std::move(table);
    }

    ListenerSnapshot* listenerHome(bool make) override {
        if (!blocked()) {
            if (!make)
                return nullptr;
            makeBlock();
        }
        return &store.block->listeners;
    }

    void listenerHomeEmptied() override {
        if (blocked() && !store.block->layers)
            dropBlock();
    }

    // Back to the effective value alone (the layer bits are the caller's to set); the
    // block stays while it holds listeners.
    void dropLayers() {
        if (!blocked())
            return;
        if (hasListeners && !listenersInTable)
            store.block->layers.reset();
        else
            dropBlock();
    }

    // The value back where the block was (which holds no listeners).
    void dropBlock() {
        Block* const block = store.block;
        try {
            new (&store.current) T(std::move_if_noexcept(block->current));
        } catch (...) {
            store.block = block;
            throw;
        }
        valueInBlock = false;
        delete block;
    }

    // Recomputes the effective value and fires a change when it moved.
    void refresh() {
        const Layers* const table = layers();
        T& now = current();
        const T* top = nullptr;
        for (int layer = LayerCount - 1; layer >= LayerDefault && !top; --layer)
            if (defined() & bit(Layer(layer)))
                top = table ? &*(*table)[size_t(layer)] : &now;
        if (top ? Detail::sameValue(*top, now) : Detail::sameValue(T{}, now))
            return;
        now = top ? *top : T{};
        emitChange();
    }

    Store store;
};

} // namespace Tessel
