#include "JsonValueCodec.h"

#include "Dovel/bundle/BundleReader.h"
#include "Dovel/bundle/BundleWriter.h"
#include "Dovel/types/TypeCodes.h"

#include "Basalt/Color.h"

#include <QJsonArray>
#include <QJsonObject>
#include <QVariant>

#include <charconv>
#include <climits>
#include <cmath>
#include <limits>
#include <stdexcept>

namespace DovelTool {

namespace {

using Shape = JsonType::Shape;
using Element = JsonType::Element;

// 2^53: below it every integer is exact in a double, and a number read through a
// double cannot have been rounded to it from a neighbour (2^53 + 1 reads as 2^53).
constexpr uint64_t ExactInDouble = uint64_t(1) << 53;

const std::vector<JsonType>& table() {
    static const std::vector<JsonType> types = {
        {Dovel::BoolCode, "bool", Shape::Scalar, Element::Bool, 1},
        {Dovel::ColorCode, "color", Shape::Array, Element::Float, 4},
        {Dovel::FloatCode, "float", Shape::Scalar, Element::Float, 1},
        {Dovel::DoubleCode, "double", Shape::Scalar, Element::Double, 1},
        {Dovel::IntCode, "int", Shape::Scalar, Element::Int32, 1},
        {Dovel::UIntCode, "uint", Shape::Scalar, Element::UInt32, 1},
        {Dovel::Int64Code, "int64", Shape::Scalar, Element::Int64, 1},
        {Dovel::UInt64Code, "uint64", Shape::Scalar, Element::UInt64, 1},
        {Dovel::RectICode, "recti", Shape::Array, Element::Int32, 4},
        {Dovel::RectFCode, "rectf", Shape::Array, Element::Float, 4},
        {Dovel::RectDCode, "rectd", Shape::Array, Element::Double, 4},
        {Dovel::Vector2ICode, "vec2i", Shape::Array, Element::Int32, 2},
        {Dovel::Vector2FCode, "vec2f", Shape::Array, Element::Float, 2},
        {Dovel::Vector3ICode, "vec3i", Shape::Array, Element::Int32, 3},
        {Dovel::Vector3FCode, "vec3f", Shape::Array, Element::Float, 3},
        {Dovel::Vector4ICode, "vec4i", Shape::Array, Element::Int32, 4},
        {Dovel::Vector4FCode, "vec4f", Shape::Array, Element::Float, 4},
        {Dovel::Matrix2FCode, "mat2f", Shape::Array, Element::Float, 4},
        {Dovel::Matrix3FCode, "mat3f", Shape::Array, Element::Float, 9},
        {Dovel::Matrix4FCode, "mat4f", Shape::Array, Element::Float, 16},
        {Dovel::TimeStampCode, "timestamp", Shape::Scalar, Element::Int64, 1},
        {Dovel::StringCode, "string", Shape::String, Element::None, 1},
        {Dovel::StringListCode, "stringlist", Shape::StringList, Element::None, 1},
        {Dovel::FloatVectorCode, "float-vector", Shape::Vector, Element::Float, 1},
        {Dovel::Vector2FVectorCode, "vec2f-vector", Shape::Vector, Element::Float, 2},
        {Dovel::IntVectorCode, "int-vector", Shape::Vector, Element::Int32, 1},
        {Dovel::UIntVectorCode, "uint-vector", Shape::Vector, Element::UInt32, 1},
        {Dovel::StringVectorCode, "string-vector", Shape::StringList, Element::None, 1},
        {Dovel::Grid8UCode, "grid8u", Shape::Grid, Element::None, 1},
        {Dovel::SplineCode, "spline", Shape::Vector, Element::Float, 2},
        {Dovel::EnumCode, "enum", Shape::Enum, Element::Int32, 1},
        {Dovel::ColorPMACode, "colorpma", Shape::Array, Element::Float, 4},
        {Dovel::Vector2FSeparateCode, "vec2f-separate", Shape::Array, Element::Float, 2},
        {Dovel::SizeFCode, "sizef", Shape::Array, Element::Float, 2},
        {Dovel::AssetCode, "asset", Shape::String, Element::None, 1},
        {Dovel::SizeICode, "sizei", Shape::Array, Element::Int32, 2},
    };
    return types;
}

const char* expectation(Element element) {
    switch (element) {
    case Element::Bool:
        return "true or false";
    case Element::Int32:
        return "a whole number from -2147483648 to 2147483647";
    case Element::UInt32:
        return "a whole number from 0 to 4294967295";
    case Element::Int64:
        return "a whole number from -9223372036854775808 to 9223372036854775807 (a string of "
               "digits from 2^53 on)";
    case Element::UInt64:
        return "a whole number from 0 to 18446744073709551615 (a string of digits from 2^53 on)";
    case Element::Float:
        return "a number in the range of a float (0, or 1.4e-45 to 3.4e38 in size), or "
               "\"nan\", \"inf\", \"-inf\", \"-0\"";
    case Element::Double:
        return "a number, or \"nan\", \"inf\", \"-inf\", \"-0\"";
    case Element::None:
        break;
    }
    return "a value";
}

// An exact integer as sign and magnitude, so that the whole int64 and uint64 ranges fit.
struct Integer {
    bool negative = false;
    uint64_t magnitude = 0;
};

bool digitsInteger(const QString& text, Integer& out) {
    const bool negative = text.startsWith(QLatin1Char('-'));
    const QString digits = negative ? text.mid(1) : text;
    if (digits.isEmpty() || digits.size() > 20)
        return false;
    for (QChar c : digits)
        if (c < QLatin1Char('0') || c > QLatin1Char('9'))
            return false;
    bool ok = false;
    const qulonglong magnitude = digits.toULongLong(&ok); // fails on overflow
    if (!ok)
        return false;
    out.negative = negative && magnitude != 0;
    out.magnitude = magnitude;
    return true;
}

// The exact integer a JSON number (or, when allowed, a string of digits) stands for.
// Numbers are taken only below 2^53 in magnitude: from there on the parser may already
// have rounded them (it reads "9007199254740993.0" through a double), so those must be
// written as strings.
bool jsonInteger(const QJsonValue& value, bool allowString, Integer& out) {
    if (value.isString())
        return allowString && digitsInteger(value.toString(), out);
    if (!value.isDouble())
        return false;
    const QVariant variant = value.toVariant();
    if (variant.userType() == QMetaType::LongLong) {
        const qlonglong n = variant.toLongLong();
        out.negative = n < 0;
        out.magnitude = n < 0 ? uint64_t(-(n + 1)) + 1 : uint64_t(n);
        return out.magnitude < ExactInDouble;
    }
    const double d = value.toDouble();
    if (!std::isfinite(d) || d != std::floor(d) || std::fabs(d) >= double(ExactInDouble))
        return false;
    out.negative = d < 0;
    out.magnitude = uint64_t(std::fabs(d));
    return true;
}

bool inRange(const Integer& n, Element element) {
    switch (element) {
    case Element::Int32:
        return n.negative ? n.magnitude <= uint64_t(1) << 31 : n.magnitude < uint64_t(1) << 31;
    case Element::UInt32:
        return !n.negative && n.magnitude <= UINT32_MAX;
    case Element::Int64:
        return n.negative ? n.magnitude <= uint64_t(1) << 63 : n.magnitude < uint64_t(1) << 63;
    case Element::UInt64:
        return !n.negative;
    default:
        return false;
    }
}

// Two's complement of the magnitude: the bits of the signed value.
uint64_t bits(const Integer& n) {
    return n.negative ? ~n.magnitude + 1 : n.magnitude;
}

bool jsonReal(const QJsonValue& value, double& out) {
    if (value.isDouble()) {
        out = value.toDouble();
        return true;
    }
    const QString text = value.toString();
    if (text == QLatin1String("nan"))
        out = std::numeric_limits<double>::quiet_NaN();
    else if (text == QLatin1String("inf"))
        out = std::numeric_limits<double>::infinity();
    else if (text == QLatin1String("-inf"))
        out = -std::numeric_limits<double>::infinity();
    else if (text == QLatin1String("-0"))
        out = -0.0;
    else
        return false;
    return true;
}

// The JSON form of a float or double value. A float is written as the double of its
// shortest text when that double still rounds to the float ("0.1" rather than
// 0.10000000149011612), else as its exact double.
QJsonValue realJson(double value, bool single) {
    if (std::isnan(value))
        return QStringLiteral("nan");
    if (std::isinf(value))
        return value > 0 ? QStringLiteral("inf") : QStringLiteral("-inf");
    if (value == 0 && std::signbit(value))
        return QStringLiteral("-0");
    if (single) {
        const float f = float(value);
        char buffer[64];
        const auto printed = std::to_chars(buffer, buffer + sizeof(buffer), f);
        double shortest = 0;
        const auto parsed = std::from_chars(buffer, printed.ptr, shortest);
        if (parsed.ec == std::errc() && float(shortest) == f)
            return shortest;
    }
    return value;
}

bool encodeElement(Element element, const QJsonValue& value, Dovel::BundleWriterCore& writer) {
    switch (element) {
    case Element::Bool: {
        if (!value.isBool())
            return false;
        const uint8_t byte = value.toBool() ? 1 : 0;
        writer.writeData(&byte, 1);
        return true;
    }
    case Element::Int32:
    case Element::UInt32:
    case Element::Int64:
    case Element::UInt64: {
        Integer n;
        const bool wide = element == Element::Int64 || element == Element::UInt64;
        if (!jsonInteger(value, wide, n) || !inRange(n, element))
            return false;
        if (wide)
            writer.writeUInt64(bits(n));
        else
            writer.writeUInt32(uint32_t(bits(n)));
        return true;
    }
    case Element::Float: {
        double d = 0;
        float f = 0;
        if (!jsonReal(value, d))
            return false;
        // A finite double beyond the float range is refused, not turned into inf, and
        // one too small for it, not turned into 0.
        if (std::isfinite(d) && (!std::isfinite(float(d)) || (d != 0 && float(d) == 0)))
            return false;
        f = float(d);
        writer.writeFloat(f);
        return true;
    }
    case Element::Double: {
        double d = 0;
        if (!jsonReal(value, d))
            return false;
        writer.writeDouble(d);
        return true;
    }
    case Element::None:
        break;
    }
    return false;
}

QJsonValue decodeElement(Element element, Dovel::BundleReaderCore& reader) {
    switch (element) {
    case Element::Bool:
        return *reader.read(1) != 0;
    case Element::Int32:
        return reader.readInt32();
    case Element::UInt32:
        return double(reader.readUInt32());
    case Element::Int64:
    case Element::UInt64: {
        const uint64_t raw = reader.readUInt64();
        const bool negative = element == Element::Int64 && int64_t(raw) < 0;
        const uint64_t magnitude = negative ? ~raw + 1 : raw;
        if (magnitude < ExactInDouble)
            return negative ? -double(magnitude) : double(magnitude);
        return negative ? QString::number(qlonglong(raw)) : QString::number(qulonglong(raw));
    }
    case Element::Float:
        return realJson(double(reader.readFloat()), true);
    case Element::Double:
        return realJson(reader.readDouble(), false);
    case Element::None:
        break;
    }
    return QJsonValue();
}

uint32_t elementSize(Element element) {
    switch (element) {
    case Element::Bool:
        return 1;
    case Element::Int64:
    case Element::UInt64:
    case Element::Double:
        return 8;
    default:
        return 4;
    }
}

QString elementProblem(const JsonType& type, int index, Element element) {
    return QStringLiteral("%1 element %2: expected %3")
        .arg(QLatin1String(type.name))
        .arg(index)
        .arg(QLatin1String(expectation(element)));
}

bool encodeArray(const JsonType& type, const QJsonValue& value, Dovel::BundleWriterCore& writer,
                 QString& problem) {
    // Colours also take the text forms of the colour types ("#rrggbb", "#rrggbbaa").
    if (value.isString() && (type.code == 2 || type.code == 48)) {
        const QByteArray text = value.toString().toUtf8();
        Basalt::Color color;
        Basalt::ColorPMA premultiplied;
        const bool ok = type.code == 2 ? color.set(text) : premultiplied.set(text);
        if (ok) {
            if (type.code == 2)
                writer.writeValue(color);
            else
                writer.writeValue(premultiplied);
            return true;
        }
    }
    const QJsonArray array = value.toArray();
    if (!value.isArray() || array.size() != type.count) {
        problem = QStringLiteral("%1 expects an array of %2 numbers")
                      .arg(QLatin1String(type.name))
                      .arg(type.count);
        return false;
    }
    for (int i = 0; i < type.count; ++i) {
        if (!encodeElement(type.element, array.at(i), writer)) {
            problem = elementProblem(type, i, type.element);
            return false;
        }
    }
    return true;
}

bool encodeVector(const JsonType& type, const QJsonValue& value, Dovel::BundleWriterCore& writer,
                  QString& problem) {
    const QJsonArray array = value.toArray();
    const uint32_t itemBytes = uint32_t(type.count) * elementSize(type.element);
    if (!value.isArray() || uint64_t(array.size()) * itemBytes > UINT32_MAX) {
        problem =
            type.count == 1
                ? QStringLiteral("%1 expects an array of numbers").arg(QLatin1String(type.name))
                : QStringLiteral("%1 expects an array of [x, y] pairs")
                      .arg(QLatin1String(type.name));
        return false;
    }
    writer.writeUInt32(uint32_t(array.size()) * itemBytes);
    for (int i = 0; i < array.size(); ++i) {
        const QJsonValue item = array.at(i);
        if (type.count == 1) {
            if (!encodeElement(type.element, item, writer)) {
                problem = elementProblem(type, i, type.element);
                return false;
            }
            continue;
        }
        const QJsonArray pair = item.toArray();
        if (!item.isArray() || pair.size() != type.count ||
            !encodeElement(type.element, pair.at(0), writer) ||
            !encodeElement(type.element, pair.at(1), writer)) {
            problem = QStringLiteral("%1 element %2: expected an [x, y] pair of numbers")
                          .arg(QLatin1String(type.name))
                          .arg(i);
            return false;
        }
    }
    return true;
}

bool encodeStringList(const JsonType& type, const QJsonValue& value,
                      Dovel::BundleWriterCore& writer, QString& problem) {
    const QJsonArray array = value.toArray();
    bool ok = value.isArray();
    for (int i = 0; ok && i < array.size(); ++i)
        ok = array.at(i).isString();
    if (!ok) {
        problem = QStringLiteral("%1 expects an array of strings").arg(QLatin1String(type.name));
        return false;
    }
    const uint32_t start = writer.beginSection();
    for (const QJsonValue& item : array)
        writer.writeString(item.toString());
    writer.endSection(start);
    return true;
}

bool gridDimension(const QJsonValue& value, uint32_t& out) {
    Integer n;
    if (!jsonInteger(value, false, n) || n.negative || n.magnitude > uint64_t(INT_MAX))
        return false;
    out = uint32_t(n.magnitude);
    return true;
}

bool encodeGrid(const JsonType& type, const QJsonValue& value, Dovel::BundleWriterCore& writer,
                QString& problem) {
    const QJsonObject object = value.toObject();
    uint32_t width = 0;
    uint32_t height = 0;
    bool ok = value.isObject() && object.size() == 3 && gridDimension(object["width"], width) &&
              gridDimension(object["height"], height) && object["data"].isString();
    QByteArray::FromBase64Result cells;
    if (ok) {
        cells = QByteArray::fromBase64Encoding(object["data"].toString().toLatin1(),
                                               QByteArray::AbortOnBase64DecodingErrors);
        ok = cells.decodingStatus == QByteArray::Base64DecodingStatus::Ok;
    }
    if (!ok) {
        problem = QStringLiteral("%1 expects {\"width\": W, \"height\": H, \"data\": \"<base64 of "
                                 "W x H bytes>\"}")
                      .arg(QLatin1String(type.name));
        return false;
    }
    // Both are below 2^31, so the product cannot overflow 64 bits.
    if (uint64_t(width) * height != uint64_t(cells.decoded.size()) || (width == 0 && height != 0)) {
        problem = QStringLiteral("%1 of %2 x %3 cells holds %4 bytes of data")
                      .arg(QLatin1String(type.name))
                      .arg(width)
                      .arg(height)
                      .arg(cells.decoded.size());
        return false;
    }
    writer.writeUInt32(uint32_t(cells.decoded.size()) + 4);
    writer.writeUInt32(width);
    writer.writeData(cells.decoded.constData(), uint32_t(cells.decoded.size()));
    return true;
}

bool encodeEnum(const JsonType& type, const QJsonValue& value,
                const Tessel::AttributeEnum::Names* names, Dovel::BundleWriterCore& writer,
                QString& problem) {
    if (value.isString() && names) {
        for (const auto& entry : *names) {
            if (entry.first == value.toString()) {
                writer.writeInt32(entry.second);
                return true;
            }
        }
    }
    if (encodeElement(Element::Int32, value, writer))
        return true;
    problem = value.isString()
                  ? QStringLiteral("%1 has no value named \"%2\"")
                        .arg(QString::fromLatin1(type.name), value.toString())
                  : QStringLiteral("%1 expects %2 or the name of a value")
                        .arg(QLatin1String(type.name), QLatin1String(expectation(Element::Int32)));
    return false;
}

} // namespace

const std::vector<JsonType>& JsonValueCodec::types() {
    return table();
}

const JsonType* JsonValueCodec::byCode(uint32_t code) {
    for (const JsonType& type : table())
        if (type.code == code)
            return &type;
    return nullptr;
}

const JsonType* JsonValueCodec::byName(const QString& name) {
    for (const JsonType& type : table())
        if (name == QLatin1String(type.name))
            return &type;
    return nullptr;
}

const JsonType* JsonValueCodec::plainType(const QJsonValue& value, QString& problem) {
    switch (value.type()) {
    case QJsonValue::Bool:
        return byCode(1);
    case QJsonValue::Double: {
        Integer n;
        return byCode(jsonInteger(value, false, n) && inRange(n, Element::Int32) ? 9 : 3);
    }
    case QJsonValue::String:
        return byCode(35);
    case QJsonValue::Array: {
        for (const QJsonValue& item : value.toArray()) {
            if (!item.isString()) {
                problem = QStringLiteral("an array without \"@type\" must hold only strings");
                return nullptr;
            }
        }
        return byCode(36);
    }
    default:
        problem = QStringLiteral("null is not a value");
        return nullptr;
    }
}

bool JsonValueCodec::isPlain(const JsonType& type, const QJsonValue& decoded) {
    switch (type.code) {
    case 1:
    case 9:
    case 35:
    case 36:
        return true;
    case 3: {
        QString problem;
        return decoded.isDouble() && plainType(decoded, problem) == &type;
    }
    default:
        return false;
    }
}

bool JsonValueCodec::encode(const JsonType& type, const QJsonValue& value,
                            const Tessel::AttributeEnum::Names* names,
                            Dovel::BundleWriterCore& writer, QString& problem) {
    switch (type.shape) {
    case Shape::Scalar:
        if (encodeElement(type.element, value, writer))
            return true;
        problem = QStringLiteral("%1 expects %2")
                      .arg(QLatin1String(type.name), QLatin1String(expectation(type.element)));
        return false;
    case Shape::Array:
        return encodeArray(type, value, writer, problem);
    case Shape::Vector:
        return encodeVector(type, value, writer, problem);
    case Shape::String:
        if (value.isString()) {
            writer.writeString(value.toString());
            return true;
        }
        problem = QStringLiteral("%1 expects a string").arg(QLatin1String(type.name));
        return false;
    case Shape::StringList:
        return encodeStringList(type, value, writer, problem);
    case Shape::Grid:
        return encodeGrid(type, value, writer, problem);
    case Shape::Enum:
        return encodeEnum(type, value, names, writer, problem);
    }
    return false;
}

QJsonValue JsonValueCodec::decode(const JsonType& type, Dovel::BundleReaderCore& reader) {
    switch (type.shape) {
    case Shape::Scalar:
    case Shape::Enum:
        return decodeElement(type.element, reader);
    case Shape::Array: {
        QJsonArray array;
        for (int i = 0; i < type.count; ++i)
            array.append(decodeElement(type.element, reader));
        return array;
    }
    case Shape::Vector: {
        const uint32_t itemBytes = uint32_t(type.count) * elementSize(type.element);
        const uint32_t items = reader.readUInt32() / itemBytes;
        // The bytes are checked before anything is built from the count.
        if (uint64_t(reader.pos()) + uint64_t(items) * itemBytes > reader.bundle().size())
            throw std::out_of_range("JsonValueCodec::decode # vector runs past the end");
        QJsonArray array;
        for (uint32_t i = 0; i < items; ++i) {
            if (type.count == 1) {
                array.append(decodeElement(type.element, reader));
                continue;
            }
            QJsonArray pair;
            for (int c = 0; c < type.count; ++c)
                pair.append(decodeElement(type.element, reader));
            array.append(pair);
        }
        return array;
    }
    case Shape::String:
        return reader.readString();
    case Shape::StringList: {
        QJsonArray array;
        const uint32_t total = reader.readUInt32();
        const uint64_t end = uint64_t(reader.pos()) + total;
        while (reader.pos() < end)
            array.append(reader.readString());
        return array;
    }
    case Shape::Grid: {
        const uint32_t length = reader.readUInt32();
        if (length < 4)
            throw std::out_of_range("JsonValueCodec::decode # grid without its width");
        const uint32_t width = reader.readUInt32();
        const uint32_t bytes = length - 4;
        const char* cells = reader.read(bytes);
        const uint32_t height = width != 0 ? bytes / width : 0;
        QJsonObject grid;
        grid["width"] = double(width);
        grid["height"] = double(height);
        grid["data"] = QString::fromLatin1(
            QByteArray::fromRawData(cells, int(uint64_t(width) * height)).toBase64());
        return grid;
    }
    }
    return QJsonValue();
}

} // namespace DovelTool
