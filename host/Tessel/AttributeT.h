// The typed attribute: layered storage of T (AttributeBaseT) plus the conversions of the
// Attribute interface, following ValueTraits<T>. Lives on the tree thread.
//
// Instantiated for bool, int32_t, uint32_t, int64_t, uint64_t, float, double,
// Basalt::Color, Basalt::ColorPMA, Quant vectors of int and float, Quant rectangles of
// int, float and double, Quant 2x2, 3x3 and 4x4 float matrices, Basalt::TimeStamp,
// QString and QStringList. AttributeT<Quant::Vector2f, Separate>, AttributeT<Quant::SizeF>
// and AttributeT<Quant::SizeI> are tuples of two component attributes instead
// (AttributeTuple.h, included at the end of this header so the specialisations are
// always visible).
#pragma once

#include "Tessel/AttributeBaseT.h"
#include "Tessel/ValueConvert.h"

namespace Tessel {

// Traits tag of the two-float vector whose components are separate attributes.
struct Separate {};

template <typename T, typename Traits = void> class AttributeT : public AttributeBaseT<T> {
public:
    using Layer = Attribute::Layer;
    using ValueUnit = Attribute::ValueUnit;
    using Units = Attribute::Units;
    using Conversions = ValueTraits<T>;

    AttributeT() = default;
    AttributeT(Node* host, const QByteArray& name) : AttributeBaseT<T>(host, name) {}
    AttributeT(Node* host, const QByteArray& name, const T& defaultValue)
        : AttributeBaseT<T>(host, name, defaultValue) {}
    ~AttributeT() override { this->aboutToBeDestroyed(); }

    QByteArray type() const override { return Conversions::typeWord(); }

    float asFloat(bool* ok = nullptr, Layer layer = Attribute::LayerCurrent) const override {
        float out = 0.0f;
        const T* stored = this->valueOnLayer(layer);
        const bool good = stored && Conversions::toFloat(*stored, out);
        if (ok)
            *ok = good;
        return good ? out : 0.0f;
    }
    int asInt(bool* ok = nullptr, Layer layer = Attribute::LayerCurrent) const override {
        int out = 0;
        const T* stored = this->valueOnLayer(layer);
        const bool good = stored && Conversions::toInt(*stored, out);
        if (ok)
            *ok = good;
        return good ? out : 0;
    }
    QString asString(bool* ok = nullptr, Layer layer = Attribute::LayerCurrent) const override {
        QString out;
        const T* stored = this->valueOnLayer(layer);
        const bool good = stored && Conversions::toText(*stored, out);
        if (ok)
            *ok = good;
        return good ? out : QString();
    }

    bool set(float value, Layer layer, ValueUnit unit = Attribute::UnitNumber) override {
        T converted{};
        return unit == Attribute::UnitNumber && Conversions::fromFloat(value, converted) &&
               store(converted, layer);
    }
    bool set(int value, Layer layer, ValueUnit unit = Attribute::UnitNumber) override {
        T converted{};
        return unit == Attribute::UnitNumber && Conversions::fromInt(value, converted) &&
               store(converted, layer);
    }
    bool set(const QString& value, Layer layer, ValueUnit unit = Attribute::UnitNumber) override {
        T converted{};
        return unit == Attribute::UnitNumber && Conversions::fromText(value, converted) &&
               store(converted, layer);
    }
    bool set(const Quant::Vector2f& value, Layer layer, Units units = Units()) override {
        const float components[] = {value.x, value.y};
        return setVector(components, 2, layer, units);
    }
    bool set(const Quant::Vector3f& value, Layer layer, Units units = Units()) override {
        const float components[] = {value.x, value.y, value.z};
        return setVector(components, 3, layer, units);
    }
    bool set(const Quant::Vector4f& value, Layer layer, Units units = Units()) override {
        const float components[] = {value.x, value.y, value.z, value.w};
        return setVector(components, 4, layer, units);
    }

private:
    bool store(const T& value, Layer layer) {
        if (!AttributeBaseT<T>::isStorageLayer(layer))
            return false;
        this->setValue(value, layer);
        return true;
    }
    bool setVector(const float* components, int count, Layer layer, const Units& units) {
        for (ValueUnit unit : units)
            if (unit != Attribute::UnitNumber)
                return false;
        T converted{};
        return Conversions::fromVector(components, count, converted) && store(converted, layer);
    }
};

// Instantiated once in the library (AttributeT.cpp).
#define TESSEL_EXTERN_ATTRIBUTE(T)                                                                 \
    extern template class AttributeBaseT<T>;                                                       \
    extern template class AttributeT<T>;
TESSEL_EXTERN_ATTRIBUTE(bool)
TESSEL_EXTERN_ATTRIBUTE(int32_t)
TESSEL_EXTERN_ATTRIBUTE(uint32_t)
TESSEL_EXTERN_ATTRIBUTE(int64_t)
TESSEL_EXTERN_ATTRIBUTE(uint64_t)
TESSEL_EXTERN_ATTRIBUTE(float)
TESSEL_EXTERN_ATTRIBUTE(double)
TESSEL_EXTERN_ATTRIBUTE(Basalt::Color)
TESSEL_EXTERN_ATTRIBUTE(Basalt::ColorPMA)
TESSEL_EXTERN_ATTRIBUTE(Quant::Vector2i)
TESSEL_EXTERN_ATTRIBUTE(Quant::Vector2f)
TESSEL_EXTERN_ATTRIBUTE(Quant::Vector3i)
TESSEL_EXTERN_ATTRIBUTE(Quant::Vector3f)
TESSEL_EXTERN_ATTRIBUTE(Quant::Vector4i)
TESSEL_EXTERN_ATTRIBUTE(Quant::Vector4f)
TESSEL_EXTERN_ATTRIBUTE(Quant::Recti)
TESSEL_EXTERN_ATTRIBUTE(Quant::Rectf)
TESSEL_EXTERN_ATTRIBUTE(Quant::Rectd)
TESSEL_EXTERN_ATTRIBUTE(Quant::Matrix2f)
TESSEL_EXTERN_ATTRIBUTE(Quant::Matrix3f)
TESSEL_EXTERN_ATTRIBUTE(Quant::Matrix4f)
TESSEL_EXTERN_ATTRIBUTE(Basalt::TimeStamp)
TESSEL_EXTERN_ATTRIBUTE(QString)
TESSEL_EXTERN_ATTRIBUTE(QStringList)
#undef TESSEL_EXTERN_ATTRIBUTE

} // namespace Tessel

#include "Tessel/AttributeTuple.h"
