// Attributes made of a fixed number of component attributes, and the two-component
// types built on them: AttributeT<Quant::Vector2f, Separate> ("x", "y"),
// AttributeT<Quant::SizeF> and AttributeT<Quant::SizeI> ("width", "height"). Lives on
// the tree thread.
//
// A tuple is an attribute, not a node: its components are not children (a tree walk
// does not see them) but are found with attribute(name) or componentAttribute(index);
// they are owned by the tuple, have no host and are not serializable on their own.
// A component that changes on its own fires one change of the tuple. Between
// beginUpdate() and endUpdate() (which nest) component changes are only noted, and the
// outermost endUpdate() fires the tuple's change once if any component changed; this
// is how a two-component value is applied with a single notification.
#pragma once

#include "Tessel/AttributeT.h"

#include "Quant/Size.h"
#include "Quant/Vector.h"

#include <vector>

namespace Tessel {

class AttributeTuple : public Attribute {
public:
    ~AttributeTuple() override;

    int componentCount() const { return int(components.size()); }
    // Null for an index out of range.
    Attribute* componentAttribute(int index) const;
    // The component of that name, null when none.
    Attribute* attribute(const QByteArray& name) const override;

    void beginUpdate();
    void endUpdate();
    bool isUpdating() const { return updateDepth > 0; }

    // These act on every component inside one update bracket.
    bool isChanged() const override;
    bool isValueDefinedOnLayer(Layer layer) const override;
    void clearValue(Layer layer) override;
    void copyValueFromLayer(Layer from, Layer to) override;
    void setAsDefaults() override;

protected:
    // Detached; a derived class adds its components, then joins its host with attachTo.
    AttributeTuple();
    // Registers a component (a member of the derived class), in component order.
    void addComponent(Attribute* component);

private:
    void componentChanged();

    std::vector<Attribute*> components;
    int updateDepth = 0;
    bool changedDuringUpdate = false;
};

// How a two-component value splits into and is made of its components.
template <typename T> struct TupleParts;
template <typename C> struct TupleParts<Quant::Vector2T<C>> {
    static C first(const Quant::Vector2T<C>& v) { return v.x; }
    static C second(const Quant::Vector2T<C>& v) { return v.y; }
};
template <typename C> struct TupleParts<Quant::SizeT<C>> {
    static C first(const Quant::SizeT<C>& v) { return v.width; }
    static C second(const Quant::SizeT<C>& v) { return v.height; }
};

// A tuple of two AttributeT<C> components whose value is T(first, second). Its text
// form is the two numbers separated by a blank; it takes a Vector2f.
template <typename T, typename C> class AttributeTuple2 : public AttributeTuple {
public:
    using ValueType = T;
    using Component = AttributeT<C>;

    ~AttributeTuple2() override { aboutToBeDestroyed(); }

    // Composed from the components' effective values.
    T value() const { return T(firstComponent.value(), secondComponent.value()); }
    // Sets both components on `layer`; fires at most one change of the tuple.
    virtual void setValue(const T& value, Layer layer) {
        beginUpdate();
        firstComponent.setValue(TupleParts<T>::first(value), layer);
        secondComponent.setValue(TupleParts<T>::second(value), layer);
        endUpdate();
    }

    Component& component(int index) { return index == 0 ? firstComponent : secondComponent; }
    const Component& component(int index) const {
        return index == 0 ? firstComponent : secondComponent;
    }

    QString asString(bool* ok = nullptr, Layer layer = LayerCurrent) const override {
        const C* a = firstComponent.valueOnLayer(layer);
        const C* b = secondComponent.valueOnLayer(layer);
        if (ok)
            *ok = a && b;
        if (!a || !b)
            return QString();
        return Convert::joinNumbers({double(*a), double(*b)}, std::is_same<C, float>::value);
    }
    bool set(const QString& text, Layer layer, ValueUnit unit = UnitNumber) override {
        std::vector<double> numbers;
        C a{}, b{};
        if (unit != UnitNumber || !Convert::parseNumbers(text, numbers) || numbers.size() != 2 ||
            !Convert::fromDouble(numbers[0], a) || !Convert::fromDouble(numbers[1], b))
            return false;
        return store(a, b, layer);
    }
    bool set(const Quant::Vector2f& vector, Layer layer, Units units = Units()) override {
        C a{}, b{};
        for (ValueUnit unit : units)
            if (unit != UnitNumber)
                return false;
        if (!Convert::fromDouble(double(vector.x), a) || !Convert::fromDouble(double(vector.y), b))
            return false;
        return store(a, b, layer);
    }
    using Attribute::set;

protected:
    AttributeTuple2(Node* host, const QByteArray& name, const QByteArray& firstName,
                    const QByteArray& secondName, const T* defaultValue)
        : firstComponent(nullptr, firstName), secondComponent(nullptr, secondName) {
        if (defaultValue) {
            firstComponent.setValue(TupleParts<T>::first(*defaultValue), LayerDefault);
            secondComponent.setValue(TupleParts<T>::second(*defaultValue), LayerDefault);
        }
        addComponent(&firstComponent);
        addComponent(&secondComponent);
        attachTo(host, name);
    }

private:
    bool store(C a, C b, Layer layer) {
        if (layer < LayerDefault || layer >= LayerCount)
            return false;
        setValue(T(a, b), layer);
        return true;
    }

    Component firstComponent;
    Component secondComponent;
};

template <>
class AttributeT<Quant::Vector2f, Separate> : public AttributeTuple2<Quant::Vector2f, float> {
public:
    AttributeT();
    AttributeT(Node* host, const QByteArray& name);
    AttributeT(Node* host, const QByteArray& name, const Quant::Vector2f& defaultValue);
    ~AttributeT() override;
    QByteArray type() const override;
    AttributeT<float>& x() { return component(0); }
    AttributeT<float>& y() { return component(1); }
};

template <> class AttributeT<Quant::SizeF> : public AttributeTuple2<Quant::SizeF, float> {
public:
    AttributeT();
    AttributeT(Node* host, const QByteArray& name);
    AttributeT(Node* host, const QByteArray& name, const Quant::SizeF& defaultValue);
    ~AttributeT() override;
    QByteArray type() const override;
    AttributeT<float>& width() { return component(0); }
    AttributeT<float>& height() { return component(1); }
};

template <> class AttributeT<Quant::SizeI> : public AttributeTuple2<Quant::SizeI, int> {
public:
    AttributeT();
    AttributeT(Node* host, const QByteArray& name);
    AttributeT(Node* host, const QByteArray& name, const Quant::SizeI& defaultValue);
    ~AttributeT() override;
    QByteArray type() const override;
    AttributeT<int>& width() { return component(0); }
    AttributeT<int>& height() { return component(1); }
};

} // namespace Tessel
