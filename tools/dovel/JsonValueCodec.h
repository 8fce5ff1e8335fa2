// The JSON form of one attribute value, per type code: the table of type names and
// value shapes, and the conversion between a JSON value and the bundle encoding of the
// value (the bytes that the type registry's serializers write and its deserializers
// read), so that the registry's own codecs move values in and out of attributes.
// Stateless; thread-safe.
//
// Numbers: integers travel exactly. A 64-bit integer (int64, uint64, timestamp) is
// written as a JSON number below 2^53 in magnitude and as a string of decimal digits
// from there on; both forms are read, but a number of 2^53 or more is refused rather
// than rounded (the JSON parser may have rounded it already). Floats and doubles are written with
// the shortest text that reads back to the same bits; NaN, the infinities and negative zero, which
// JSON numbers cannot carry, are the strings "nan", "inf", "-inf" and "-0" wherever a float or
// double is expected (every NaN reads back as the quiet NaN).
#pragma once

#include "Tessel/AttributeEnum.h"

#include <QJsonValue>
#include <QString>

#include <cstdint>
#include <vector>

namespace Dovel {
class BundleReaderCore;
class BundleWriterCore;
} // namespace Dovel

namespace DovelTool {

struct JsonType {
    // How the value looks in JSON.
    enum class Shape {
        Scalar,     // one element
        Array,      // exactly `count` elements in an array
        Vector,     // any number of items, each one element (count 1) or a pair (count 2)
        String,     // a string
        StringList, // an array of strings
        Grid,       // {"width": W, "height": H, "data": "<base64 of the rows>"}
        Enum,       // an int32, or the name of one of the enumeration's values
    };
    // The kind of one number.
    enum class Element { None, Bool, Int32, UInt32, Int64, UInt64, Float, Double };

    uint32_t code;
    const char* name;
    Shape shape;
    Element element;
    int count;
};

class JsonValueCodec {
public:
    // Every supported type, in code order.
    static const std::vector<JsonType>& types();
    // Null when the code or name is not in the table.
    static const JsonType* byCode(uint32_t code);
    static const JsonType* byName(const QString& name);

    // The type that a value written without "@type" stands for: true/false a bool, a
    // whole number that fits 32 bits an int, any other number a float, a string a
    // string, an array of strings a string list. Null (with `problem` set) for anything
    // else.
    static const JsonType* plainType(const QJsonValue& value, QString& problem);
    // Whether a value of `type`, as decode() gave it, may be written without "@type"
    // and still read back as the same type and value.
    static bool isPlain(const JsonType& type, const QJsonValue& decoded);

    // Appends the bundle encoding of `value` read as a `type`. `names` are the value
    // names of an enumeration (may be null). False, with `problem` saying what was
    // expected, when the value does not fit; the writer may then hold partial bytes.
    static bool encode(const JsonType& type, const QJsonValue& value,
                       const Tessel::AttributeEnum::Names* names, Dovel::BundleWriterCore& writer,
                       QString& problem);
    // Reads one value of `type`. Throws std::out_of_range when the bytes run short.
    static QJsonValue decode(const JsonType& type, Dovel::BundleReaderCore& reader);
};

} // namespace DovelTool
