// Qt meta-type ids of the value types that travel inside QVariants. Types that Qt
// knows already use its own ids; the host's value types are registered once, on first
// use, under their fixed names ("Basalt::Color", "Quant::Vector2f", ...), and the id is
// cached. Thread-safe (the cache is a function-local static).
#pragma once

#include "Basalt/Color.h"
#include "Basalt/MemGrid8u.h"
#include "Basalt/TimeStamp.h"
#include "Quant/Matrix.h"
#include "Quant/Rect.h"
#include "Quant/Size.h"
#include "Quant/Vector.h"

#include <QMetaType>
#include <QVariant>
#include <QVector>

namespace Dovel {

// The registration name of a host value type; only the types listed below have one.
template <typename T> struct MetaTypeName;

#define DOVEL_META_TYPE_NAME(T, text)                                                              \
    template <> struct MetaTypeName<T> {                                                           \
        static const char* name() { return text; }                                                 \
    };
DOVEL_META_TYPE_NAME(Basalt::Color, "Basalt::Color")
DOVEL_META_TYPE_NAME(Basalt::ColorPMA, "Basalt::ColorPMA")
DOVEL_META_TYPE_NAME(Basalt::TimeStamp, "Basalt::TimeStamp")
DOVEL_META_TYPE_NAME(Basalt::MemGrid8u, "Basalt::MemGrid8u")
DOVEL_META_TYPE_NAME(Quant::Recti, "Quant::Recti")
DOVEL_META_TYPE_NAME(Quant::Rectf, "Quant::Rectf")
DOVEL_META_TYPE_NAME(Quant::Rectd, "Quant::Rectd")
DOVEL_META_TYPE_NAME(Quant::Vector2i, "Quant::Vector2i")
DOVEL_META_TYPE_NAME(Quant::Vector2f, "Quant::Vector2f")
DOVEL_META_TYPE_NAME(Quant::Vector3i, "Quant::Vector3i")
DOVEL_META_TYPE_NAME(Quant::Vector3f, "Quant::Vector3f")
DOVEL_META_TYPE_NAME(Quant::Vector4i, "Quant::Vector4i")
DOVEL_META_TYPE_NAME(Quant::Vector4f, "Quant::Vector4f")
DOVEL_META_TYPE_NAME(Quant::Matrix2f, "Quant::Matrix2f")
DOVEL_META_TYPE_NAME(Quant::Matrix3f, "Quant::Matrix3f")
DOVEL_META_TYPE_NAME(Quant::Matrix4f, "Quant::Matrix4f")
DOVEL_META_TYPE_NAME(Quant::SizeF, "Quant::SizeF")
DOVEL_META_TYPE_NAME(Quant::SizeI, "Quant::SizeI")
DOVEL_META_TYPE_NAME(QVector<Quant::Vector2f>, "QVector<Quant::Vector2f>")
#undef DOVEL_META_TYPE_NAME

// The meta-type id of T.
template <typename T> int metaTypeId() {
    if constexpr (QMetaTypeId2<T>::Defined) {
        return qMetaTypeId<T>();
    } else {
        static const int id = qRegisterMetaType<T>(MetaTypeName<T>::name());
        return id;
    }
}

// A variant holding a copy of `value`.
template <typename T> QVariant toVariant(const T& value) {
    return QVariant(metaTypeId<T>(), &value);
}

// The T held by `variant`, or null when it holds another type.
template <typename T> const T* variantValue(const QVariant& variant) {
    if (variant.userType() != metaTypeId<T>())
        return nullptr;
    return static_cast<const T*>(variant.constData());
}

} // namespace Dovel
