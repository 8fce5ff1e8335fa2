#include "TreeJson.h"

#include "JsonPreflight.h"
#include "JsonValueCodec.h"

#include "Dovel/bundle/Bundle.h"
#include "Dovel/bundle/BundleReader.h"
#include "Dovel/bundle/BundleWriter.h"
#include "Dovel/sync/RemoteNode.h"

#include "Tessel/AttributeAlias.h"
#include "Tessel/AttributeEnum.h"
#include "Tessel/Node.h"

#include "Basalt/Trace.h"

#include <QJsonArray>
#include <QJsonParseError>
#include <QSet>

#include <climits>
#include <cmath>
#include <exception>

namespace DovelTool {

namespace {

using Dovel::childPath;

const QString TypeKey = QStringLiteral("@type");
const QString ValueKey = QStringLiteral("value");
const QString NamesKey = QStringLiteral("names");

// A name or path as text. Names may hold zero characters (JSON keys can), which
// QString::fromUtf8(QByteArray) would stop at.
QString text(const QByteArray& utf8) {
    return QString::fromUtf8(utf8.constData(), utf8.size());
}

// "PATH: message", or the message alone at the top of the document.
QString located(const QByteArray& path, const QString& message) {
    return path.isEmpty() ? message : text(path) + QStringLiteral(": ") + message;
}

bool isValidName(const QByteArray& name) {
    return !name.isEmpty() && !name.contains('/') && name != TypeKey.toUtf8();
}

bool fail(QString* error, const QString& message) {
    if (error)
        *error = message;
    return false;
}

// Line and column (both from 1, the column in bytes) of a byte offset.
QString position(const QByteArray& json, int offset) {
    offset = qBound(0, offset, json.size());
    const int line = json.left(offset).count('\n') + 1;
    const int lineStart = offset > 0 ? json.lastIndexOf('\n', offset - 1) + 1 : 0;
    return QStringLiteral("line %1, column %2").arg(line).arg(offset - lineStart + 1);
}

// The enumeration names of an "@type" object; one name per value.
bool readNames(const QJsonValue& value, const QByteArray& path, Tessel::AttributeEnum::Names& out,
               QString& error) {
    if (!value.isObject()) {
        error = located(path, QStringLiteral("\"names\" expects an object of name: int"));
        return false;
    }
    const QJsonObject object = value.toObject();
    QSet<int> seen;
    for (auto it = object.begin(); it != object.end(); ++it) {
        const double number = it.value().toDouble(0.5);
        if (!it.value().isDouble() || number < INT_MIN || number > INT_MAX ||
            number != std::floor(number)) {
            error = located(path,
                            QStringLiteral("the value of name \"%1\" is not an int").arg(it.key()));
            return false;
        }
        if (seen.contains(int(number))) {
            error = located(path, QStringLiteral("value %1 has two names").arg(int(number)));
            return false;
        }
        seen.insert(int(number));
        out.append(qMakePair(it.key(), int(number)));
    }
    return true;
}

// The type and the bare value of `value`: the "@type" form is opened, a plain value
// gets its plain type.
bool unwrap(const QJsonValue& value, const QByteArray& path, const JsonType*& type,
            QJsonValue& inner, Tessel::AttributeEnum::Names& names, QString& error) {
    QString problem;
    if (!value.isObject()) {
        type = JsonValueCodec::plainType(value, problem);
        inner = value;
        if (!type)
            error = located(path, problem);
        return type != nullptr;
    }
    const QJsonObject object = value.toObject();
    const QJsonValue name = object.value(TypeKey);
    type = name.isString() ? JsonValueCodec::byName(name.toString()) : nullptr;
    if (!type) {
        error = located(path, name.isString()
                                  ? QStringLiteral("unknown @type \"%1\"").arg(name.toString())
                                  : QStringLiteral("@type must be a string naming a type"));
        return false;
    }
    for (auto it = object.begin(); it != object.end(); ++it) {
        if (it.key() != TypeKey && it.key() != ValueKey &&
            (it.key() != NamesKey || type->code != 47)) {
            error = located(path, QStringLiteral("unexpected key \"%1\" beside @type \"%2\"")
                                      .arg(it.key(), name.toString()));
            return false;
        }
    }
    if (!object.contains(ValueKey)) {
        error =
            located(path, QStringLiteral("@type \"%1\" without \"value\"").arg(name.toString()));
        return false;
    }
    inner = object.value(ValueKey);
    return !object.contains(NamesKey) || readNames(object.value(NamesKey), path, names, error);
}

} // namespace

TreeJson::TreeJson() = default;
TreeJson::~TreeJson() = default;

bool TreeJson::load(const QByteArray& json, Tessel::Node& root, QString* error) const {
    int problemAt = 0;
    QString problem;
    if (JsonPreflight::findProblem(json, problemAt, problem))
        return fail(error, position(json, problemAt) + QStringLiteral(": ") + problem);
    QJsonParseError parseError;
    const QJsonDocument document = QJsonDocument::fromJson(json, &parseError);
    if (parseError.error != QJsonParseError::NoError)
        return fail(error, position(json, parseError.offset) + QStringLiteral(": ") +
                               parseError.errorString());
    if (!document.isObject())
        return fail(error, QStringLiteral("the document must be a JSON object"));
    return load(document.object(), root, error);
}

bool TreeJson::load(const QJsonObject& document, Tessel::Node& root, QString* error) const {
    for (auto it = document.begin(); it != document.end(); ++it) {
        if (root.attribute(it.key().toUtf8()))
            return fail(error, located(it.key().toUtf8(), QStringLiteral("the tree already "
                                                                         "holds this name")));
    }
    // Built aside, so that an error leaves `root` as it was.
    Tessel::Node staging;
    QString message;
    if (!fill(staging, document, QByteArray(), message))
        return fail(error, message);
    staging.setAsDefaults();
    for (Tessel::Attribute* child : staging.children()) {
        const QByteArray name = child->name();
        staging.removeAttribute(child);
        if (!root.addAttribute(name, child)) {
            delete child; // only when a listener of root took the name meanwhile
            return fail(error, located(name, QStringLiteral("could not be added")));
        }
    }
    return true;
}

bool TreeJson::fill(Tessel::Node& node, const QJsonObject& object, const QByteArray& path,
                    QString& error) const {
    for (auto it = object.begin(); it != object.end(); ++it) {
        const QByteArray name = it.key().toUtf8();
        if (!isValidName(name)) {
            error = located(path, QStringLiteral("the key \"%1\" is not a name (names are not "
                                                 "empty and hold no \"/\")")
                                      .arg(it.key()));
            return false;
        }
        const QByteArray at = childPath(path, name);
        std::unique_ptr<Tessel::Attribute> child = build(it.value(), at, error);
        if (!child)
            return false;
        if (!node.addAttribute(name, child.get())) {
            error = located(at, QStringLiteral("the name is taken"));
            return false;
        }
        child.release(); // the node owns it now
    }
    return true;
}

std::unique_ptr<Tessel::Attribute> TreeJson::build(const QJsonValue& value, const QByteArray& path,
                                                   QString& error) const {
    if (value.isObject() && !value.toObject().contains(TypeKey)) {
        auto node = std::make_unique<Tessel::Node>();
        if (!fill(*node, value.toObject(), path, error))
            return nullptr;
        return node;
    }
    const JsonType* type = nullptr;
    QJsonValue inner;
    Tessel::AttributeEnum::Names names;
    if (!unwrap(value, path, type, inner, names, error))
        return nullptr;
    Dovel::Bundle bundle;
    Dovel::BundleWriterCore writer(bundle);
    QString problem;
    if (!JsonValueCodec::encode(*type, inner, &names, writer, problem)) {
        error = located(path, problem);
        return nullptr;
    }
    std::unique_ptr<Tessel::Attribute> attribute;
    if (type->code == 47) {
        // The registry makes a plain int for an enumeration; the file keeps its names.
        auto enumeration = std::make_unique<Tessel::AttributeEnum>();
        for (const auto& entry : names)
            enumeration->addName(entry.first, entry.second);
        attribute = std::move(enumeration);
    } else {
        attribute.reset(registry.createAttribute(type->code));
    }
    if (!attribute) {
        error = located(path, QStringLiteral("cannot create a %1").arg(QLatin1String(type->name)));
        return nullptr;
    }
    if (!apply(*attribute, type->code, bundle, path, error))
        return nullptr;
    return attribute;
}

bool TreeJson::apply(Tessel::Attribute& target, uint32_t code, const Dovel::Bundle& bundle,
                     const QByteArray& path, QString& error) const {
    const Dovel::Deserializer deserializer = registry.createDeserializer(code, &target);
    if (!deserializer) {
        error = located(path, QStringLiteral("cannot write a value of type code %1").arg(code));
        return false;
    }
    Dovel::BundleReader reader(bundle);
    try {
        deserializer(reader);
    } catch (const std::exception& e) {
        error = located(path, QString::fromUtf8(e.what()));
        return false;
    }
    return true;
}

QJsonObject TreeJson::dump(const Tessel::Node& root) const {
    QJsonObject out;
    dumpNode(root, QByteArray(), out);
    return out;
}

QByteArray TreeJson::dumpBytes(const Tessel::Node& root, QJsonDocument::JsonFormat format) const {
    return printable(QJsonDocument(dump(root)).toJson(format));
}

void TreeJson::dumpNode(const Tessel::Node& node, const QByteArray& path, QJsonObject& out) const {
    for (Tessel::Attribute* child : node.children()) {
        const QByteArray at = childPath(path, child->name());
        if (!isValidName(child->name())) {
            Basalt::Trace::warning("TreeJson::dump # Skipping '%s': its name cannot be a key",
                                   at.constData());
            continue;
        }
        QJsonValue value;
        if (valueJson(*child, at, value))
            out.insert(text(child->name()), value);
    }
}

QString TreeJson::typeName(Tessel::Attribute& attribute) const {
    if (Tessel::asNode(&attribute))
        return QStringLiteral("node");
    Tessel::Attribute* target = Tessel::AttributeAlias::resolve(&attribute);
    if (!target || Tessel::asNode(target))
        return QString();
    uint32_t code = 0;
    uint32_t size = 0;
    if (!registry.createSerializer(target, code, size))
        return QString();
    const JsonType* type = JsonValueCodec::byCode(code);
    return type ? QString::fromLatin1(type->name) : QString();
}

bool TreeJson::valueJson(Tessel::Attribute& attribute, const QByteArray& path,
                         QJsonValue& out) const {
    if (auto* node = Tessel::asNode(&attribute)) {
        QJsonObject object;
        dumpNode(*node, path, object);
        out = object;
        return true;
    }
    Tessel::Attribute* target = Tessel::AttributeAlias::resolve(&attribute);
    // An alias without a target has no value; one that leads to a node could lead
    // back to its own ancestors.
    if (!target || Tessel::asNode(target))
        return false;
    uint32_t code = 0;
    uint32_t size = 0;
    const Dovel::Serializer serializer = registry.createSerializer(target, code, size);
    const JsonType* type = JsonValueCodec::byCode(code);
    if (!serializer || !type) {
        Basalt::Trace::warning("TreeJson::dump # Skipping '%s': its type '%s' has no JSON form",
                               path.constData(), target->type().constData());
        return false;
    }
    Dovel::Bundle bundle;
    Dovel::BundleWriterCore writer(bundle);
    QJsonValue value;
    try {
        serializer(writer);
        Dovel::BundleReader reader(bundle);
        value = JsonValueCodec::decode(*type, reader);
    } catch (const std::exception& e) {
        Basalt::Trace::warning("TreeJson::dump # Skipping '%s': %s", path.constData(), e.what());
        return false;
    }
    if (JsonValueCodec::isPlain(*type, value)) {
        out = value;
        return true;
    }
    QJsonObject typed;
    typed.insert(TypeKey, QLatin1String(type->name));
    typed.insert(ValueKey, value);
    if (auto* enumeration = dynamic_cast<Tessel::AttributeEnum*>(target)) {
        QJsonObject names;
        for (const auto& entry : enumeration->names())
            names.insert(entry.first, entry.second);
        if (!names.isEmpty())
            typed.insert(NamesKey, names);
    }
    out = typed;
    return true;
}

bool TreeJson::toJson(Tessel::Attribute& attribute, QJsonValue& out) const {
    return valueJson(attribute, attribute.name(), out);
}

QByteArray TreeJson::jsonString(const QByteArray& text) {
    // With its size: Qt's QByteArray overload would stop at a NUL.
    return valueText(QString::fromUtf8(text.constData(), text.size()));
}

QByteArray TreeJson::valueText(const QJsonValue& value) {
    // QJsonDocument writes only objects and arrays: write a one-element array and drop
    // its brackets.
    const QByteArray text = QJsonDocument(QJsonArray{value}).toJson(QJsonDocument::Compact);
    return printable(text.mid(1, text.size() - 2));
}

QByteArray TreeJson::printable(const QByteArray& json) {
    // Copied only from the first character to escape on, in one pass: a dump may be large.
    QByteArray out;
    int copied = 0; // bytes of `json` before it that are in `out` or need not be
    const auto byte = [&](int at) { return at < json.size() ? uint8_t(json[at]) : 0u; };
    for (int i = 0; i < json.size(); ++i) {
        uint code = 0;
        int length = 0;
        if (byte(i) == 0x7f) {
            code = 0x7f, length = 1;
        } else if (byte(i) == 0xc2 && byte(i + 1) >= 0x80 && byte(i + 1) <= 0x9f) {
            code = byte(i + 1), length = 2; // C1
        } else if (byte(i) == 0xe2 && (byte(i + 1) == 0x80 || byte(i + 1) == 0x81)) {
            code = 0x2000 + ((byte(i + 1) & 0x3f) << 6) + (byte(i + 2) & 0x3f), length = 3;
            const bool hidden = code == 0x200e || code == 0x200f ||   // direction marks
                                (code >= 0x2028 && code <= 0x202e) || // separators, embeddings
                                (code >= 0x2066 && code <= 0x2069);   // isolates
            if (!hidden)
                length = 0;
        }
        if (length == 0)
            continue;
        out.append(json.constData() + copied, i - copied);
        out += "\\u" + QByteArray::number(code, 16).rightJustified(4, '0');
        i += length - 1;
        copied = i + 1;
    }
    if (copied == 0)
        return json;
    out.append(json.constData() + copied, json.size() - copied);
    return out;
}

bool TreeJson::assign(Tessel::Attribute& attribute, const QJsonValue& value, const QByteArray& path,
                      QString* error) const {
    Assignment assignment;
    return prepare(attribute, value, path, assignment, error) && commit(assignment, error);
}

bool TreeJson::prepare(Tessel::Attribute& attribute, const QJsonValue& value,
                       const QByteArray& path, Assignment& out, QString* error) const {
    Tessel::Attribute* target = Tessel::AttributeAlias::resolve(&attribute);
    if (!target)
        return fail(error, located(path, QStringLiteral("is an alias without a target")));
    if (Tessel::asNode(target))
        return fail(error, located(path, QStringLiteral("is a node, not a value")));
    uint32_t code = 0;
    uint32_t size = 0;
    const JsonType* type =
        registry.createSerializer(target, code, size) ? JsonValueCodec::byCode(code) : nullptr;
    if (!type || !registry.createDeserializer(code, target))
        return fail(error, located(path, QStringLiteral("has a type ('%1') the tree format does "
                                                        "not know")
                                             .arg(QString::fromUtf8(target->type()))));
    QString message;
    QJsonValue inner = value;
    if (value.isObject() && value.toObject().contains(TypeKey)) {
        const JsonType* given = nullptr;
        Tessel::AttributeEnum::Names ignored; // the attribute keeps its own names
        if (!unwrap(value, path, given, inner, ignored, message))
            return fail(error, message);
        if (given != type)
            return fail(error, located(path, QStringLiteral("holds a %1, not a %2")
                                                 .arg(QLatin1String(type->name),
                                                      QLatin1String(given->name))));
    }
    auto* enumeration = dynamic_cast<Tessel::AttributeEnum*>(target);
    Dovel::Bundle bundle;
    Dovel::BundleWriterCore writer(bundle);
    if (!JsonValueCodec::encode(*type, inner, enumeration ? &enumeration->names() : nullptr, writer,
                                message))
        return fail(error, located(path, message));
    out.target = target;
    out.code = code;
    out.bundle = bundle;
    out.path = path;
    return true;
}

bool TreeJson::commit(const Assignment& assignment, QString* error) const {
    if (!assignment.target)
        return fail(error, QStringLiteral("nothing to assign"));
    QString message;
    if (!apply(*assignment.target, assignment.code, assignment.bundle, assignment.path, message))
        return fail(error, message);
    return true;
}

std::unique_ptr<Tessel::Attribute> TreeJson::create(const QJsonValue& value, const QByteArray& path,
                                                    QString* error) const {
    QString message;
    std::unique_ptr<Tessel::Attribute> attribute = build(value, path, message);
    if (!attribute) {
        fail(error, message);
        return nullptr;
    }
    attribute->setAsDefaults();
    return attribute;
}

} // namespace DovelTool
