// Conversions between the value types of typed attributes and the plain forms of the
// Attribute interface (float, int, text, float vectors), and each type's type word.
// Stateless; thread-safe.
//
// Rules: numbers (bool and the integer and floating-point types) convert among
// themselves; a fraction goes to an integer type rounded to nearest (halves away from
// zero), and a value that does not fit the target (NaN into an integer or bool, out of
// range, negative into unsigned) is refused. bool takes any non-zero number as true and
// reads the texts "true", "false", "1", "0". Composite values (colours, vectors,
// rectangles, matrices) write their numbers separated by single blanks and read numbers
// separated by blanks or commas; they take a float vector of their own width (a colour
// also a Vector3f, with alpha 1; a rectangle a Vector4f as x0, y0, x1, y1). Time stamps
// use the decimal count of microseconds. A string converts to and from numbers through
// their text; a string list joins its items with "," (items that contain commas do not
// round-trip).
#pragma once

#include "Basalt/Color.h"
#include "Basalt/TimeStamp.h"

#include "Quant/Matrix.h"
#include "Quant/Rect.h"
#include "Quant/Vector.h"

#include <QString>
#include <QStringList>

#include <cmath>
#include <cstdint>
#include <limits>
#include <type_traits>
#include <vector>

namespace Tessel {
namespace Convert {

// Shortest texts that read back to the same value.
QString floatText(float value);
QString doubleText(double value);
// Numbers separated by blanks or commas (at least one); false on any other text.
bool parseNumbers(const QString& text, std::vector<double>& out);
// The numbers' texts separated by single blanks.
QString joinNumbers(const std::vector<double>& values, bool singlePrecision);

// `value` into an arithmetic T, refusing what does not fit.
// NaN goes only to floating-point types.
template <typename T> bool fromDouble(double value, T& out) {
    if constexpr (std::is_same<T, bool>::value) {
        if (std::isnan(value))
            return false;
        out = value != 0.0;
    } else if constexpr (std::is_floating_point<T>::value) {
        if (std::isfinite(value) && !std::isfinite(T(value)))
            return false; // beyond the range of a float
        out = T(value);
    } else {
        const double rounded = std::round(value); // NaN fails the bounds test below
        // The bounds are powers of two, exact in a double.
        const int bits = int(sizeof(T) * 8);
        const double low = std::is_signed<T>::value ? -std::ldexp(1.0, bits - 1) : 0.0;
        const double high = std::ldexp(1.0, std::is_signed<T>::value ? bits - 1 : bits);
        if (!(rounded >= low && rounded < high))
            return false;
        out = static_cast<T>(rounded);
    }
    return true;
}

} // namespace Convert

// Refuses every conversion; the base of the traits that define only some.
template <typename T> struct NoConversions {
    static const char* typeWord() { return "value"; }
    static bool toFloat(const T&, float&) { return false; }
    static bool toInt(const T&, int&) { return false; }
    static bool toText(const T&, QString&) { return false; }
    static bool fromFloat(float, T&) { return false; }
    static bool fromInt(int, T&) { return false; }
    static bool fromText(const QString&, T&) { return false; }
    // A float vector of `count` components (2, 3 or 4).
    static bool fromVector(const float*, int, T&) { return false; }
};

// The conversions of one value type; types without a specialisation convert nothing.
template <typename T, typename Enable = void> struct ValueTraits : NoConversions<T> {};

// bool, the integer types and the floating-point types.
template <typename T>
struct ValueTraits<T, typename std::enable_if<std::is_arithmetic<T>::value>::type> {
    static const char* typeWord() {
        if (std::is_same<T, bool>::value)
            return "bool";
        if (std::is_same<T, float>::value)
            return "float";
        if (std::is_same<T, double>::value)
            return "double";
        if (sizeof(T) == 8)
            return std::is_signed<T>::value ? "int64" : "uint64";
        return std::is_signed<T>::value ? "int" : "uint";
    }
    static bool toFloat(const T& value, float& out) {
        out = float(value);
        return true;
    }
    // Every value that fits an int is exact in a double, so going through one is exact.
    static bool toInt(const T& value, int& out) { return Convert::fromDouble(double(value), out); }
    static bool toText(const T& value, QString& out) {
        if constexpr (std::is_same<T, bool>::value)
            out = value ? QStringLiteral("true") : QStringLiteral("false");
        else if constexpr (std::is_same<T, float>::value)
            out = Convert::floatText(value);
        else if constexpr (std::is_floating_point<T>::value)
            out = Convert::doubleText(double(value));
        else
            out = QString::number(value);
        return true;
    }
    static bool fromFloat(float value, T& out) { return Convert::fromDouble(double(value), out); }
    static bool fromInt(int value, T& out) { return Convert::fromDouble(double(value), out); }
    static bool fromText(const QString& text, T& out) {
        const QString t = text.trimmed();
        bool ok = false;
        if constexpr (std::is_same<T, bool>::value) {
            if (t.compare(QLatin1String("true"), Qt::CaseInsensitive) == 0 || t == "1")
                out = true;
            else if (t.compare(QLatin1String("false"), Qt::CaseInsensitive) == 0 || t == "0")
                out = false;
            else
                return false;
            return true;
        } else if constexpr (std::is_floating_point<T>::value) {
            const double value = t.toDouble(&ok);
            return ok && Convert::fromDouble(value, out);
        } else if constexpr (std::is_signed<T>::value) {
            const qlonglong value = t.toLongLong(&ok);
            if (!ok || value < qlonglong(std::numeric_limits<T>::min()) ||
                value > qlonglong(std::numeric_limits<T>::max()))
                return false;
            out = T(value);
            return true;
        } else {
            const qulonglong value = t.toULongLong(&ok);
            if (!ok || t.startsWith('-') || value > qulonglong(std::numeric_limits<T>::max()))
                return false;
            out = T(value);
            return true;
        }
    }
    static bool fromVector(const float*, int, T&) { return false; }
};

// Values made of a fixed number of numbers of one type, stored in order: vectors,
// rectangles and matrices. Derived traits give the type word and the vector widths.
template <typename T, typename S, int Count> struct CompositeTraits {
    static const S* numbers(const T& value) { return reinterpret_cast<const S*>(&value); }
    static S* numbers(T& value) { return reinterpret_cast<S*>(&value); }

    static bool toFloat(const T&, float&) { return false; }
    static bool toInt(const T&, int&) { return false; }
    static bool fromFloat(float, T&) { return false; }
    static bool fromInt(int, T&) { return false; }
    static bool toText(const T& value, QString& out) {
        std::vector<double> values(numbers(value), numbers(value) + Count);
        out = Convert::joinNumbers(values, std::is_same<S, float>::value);
        return true;
    }
    static bool fromText(const QString& text, T& out) {
        std::vector<double> values;
        if (!Convert::parseNumbers(text, values) || int(values.size()) != Count)
            return false;
        T result = out;
        for (int i = 0; i < Count; ++i)
            if (!Convert::fromDouble(values[size_t(i)], numbers(result)[i]))
                return false;
        out = result;
        return true;
    }
    // A float vector of exactly Count components.
    static bool fromVector(const float* vector, int count, T& out) {
        if (count != Count)
            return false;
        T result = out;
        for (int i = 0; i < Count; ++i)
            if (!Convert::fromDouble(double(vector[i]), numbers(result)[i]))
                return false;
        out = result;
        return true;
    }
};

template <typename S>
struct ValueTraits<Quant::Vector2T<S>> : CompositeTraits<Quant::Vector2T<S>, S, 2> {
    static const char* typeWord() { return std::is_same<S, float>::value ? "vec2f" : "vec2i"; }
};
template <typename S>
struct ValueTraits<Quant::Vector3T<S>> : CompositeTraits<Quant::Vector3T<S>, S, 3> {
    static const char* typeWord() { return std::is_same<S, float>::value ? "vec3f" : "vec3i"; }
};
template <typename S>
struct ValueTraits<Quant::Vector4T<S>> : CompositeTraits<Quant::Vector4T<S>, S, 4> {
    static const char* typeWord() { return std::is_same<S, float>::value ? "vec4f" : "vec4i"; }
};
template <typename S> struct ValueTraits<Quant::RectT<S>> : CompositeTraits<Quant::RectT<S>, S, 4> {
    static const char* typeWord() {
        return std::is_same<S, float>::value ? "rectf"
                                             : (std::is_same<S, double>::value ? "rectd" : "recti");
    }
};
template <typename S, int N>
struct ValueTraits<Quant::MatrixNT<S, N>> : CompositeTraits<Quant::MatrixNT<S, N>, S, N * N> {
    static const char* typeWord() { return N == 2 ? "mat2f" : (N == 3 ? "mat3f" : "mat4f"); }
    static bool fromVector(const float*, int, Quant::MatrixNT<S, N>&) { return false; }
};

// Colours read a Vector4f as r, g, b, a and a Vector3f as r, g, b with alpha 1.
template <typename C> struct ColorTraits : CompositeTraits<C, float, 4> {
    static bool toText(const C& value, QString& out) {
        out = QString::fromLatin1(value.toString());
        return true;
    }
    static bool fromText(const QString& text, C& out) { return out.set(text.toUtf8()); }
    static bool fromVector(const float* vector, int count, C& out) {
        if (count != 3 && count != 4)
            return false;
        out = C(vector[0], vector[1], vector[2], count == 4 ? vector[3] : 1.0f);
        return true;
    }
};
template <> struct ValueTraits<Basalt::Color> : ColorTraits<Basalt::Color> {
    static const char* typeWord() { return "color"; }
};
template <> struct ValueTraits<Basalt::ColorPMA> : ColorTraits<Basalt::ColorPMA> {
    static const char* typeWord() { return "colorpma"; }
};

template <> struct ValueTraits<Basalt::TimeStamp> : NoConversions<Basalt::TimeStamp> {
    static const char* typeWord() { return "timestamp"; }
    static bool toText(const Basalt::TimeStamp& value, QString& out) {
        out = QString::number(value.value());
        return true;
    }
    static bool fromText(const QString& text, Basalt::TimeStamp& out) {
        bool ok = false;
        const qlonglong value = text.trimmed().toLongLong(&ok);
        if (ok)
            out.setValue(value);
        return ok;
    }
};

template <> struct ValueTraits<QString> : NoConversions<QString> {
    static const char* typeWord() { return "string"; }
    static bool toFloat(const QString& value, float& out) {
        double number = 0;
        return ValueTraits<double>::fromText(value, number) && Convert::fromDouble(number, out);
    }
    static bool toInt(const QString& value, int& out) {
        return ValueTraits<int>::fromText(value, out);
    }
    static bool toText(const QString& value, QString& out) {
        out = value;
        return true;
    }
    static bool fromFloat(float value, QString& out) {
        out = Convert::floatText(value);
        return true;
    }
    static bool fromInt(int value, QString& out) {
        out = QString::number(value);
        return true;
    }
    static bool fromText(const QString& text, QString& out) {
        out = text;
        return true;
    }
};

template <> struct ValueTraits<QStringList> : NoConversions<QStringList> {
    static const char* typeWord() { return "stringlist"; }
    static bool toText(const QStringList& value, QString& out) {
        out = value.join(QLatin1Char(','));
        return true;
    }
    static bool fromText(const QString& text, QStringList& out) {
        out = text.isEmpty() ? QStringList() : text.split(QLatin1Char(','));
        return true;
    }
};

} // namespace Tessel
