#include "PathValues.h"

#include "JsonPreflight.h"
#include "TreeJson.h"

#include "Dovel/Limits.h"

#include "Tessel/AttributeAlias.h"
#include "Tessel/Node.h"

#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QJsonParseError>
#include <QSet>

#include <memory>
#include <utility>
#include <vector>

namespace DovelTool {

namespace {

bool validPath(const QByteArray& path) {
    if (path.isEmpty())
        return false;
    for (const QByteArray& name : path.split('/'))
        if (name.isEmpty() || name == "@type")
            return false;
    return true;
}

// False, with `error`, for a path longer or deeper than a server takes from a peer.
bool checkSize(const QByteArray& path, QString& error) {
    const QString where = QString::fromUtf8(path);
    if (path.size() > Dovel::Limits::MaxPeerNameBytes) {
        error = where.left(60) + QStringLiteral("...: a path of %1 bytes is longer than a server "
                                                "takes (%2)")
                                     .arg(path.size())
                                     .arg(Dovel::Limits::MaxPeerNameBytes);
        return false;
    }
    const int depth = path.count('/') + 1;
    if (depth > Dovel::Limits::MaxPeerPathDepth) {
        error = where.left(60) + QStringLiteral("...: a path of %1 names is deeper than a server "
                                                "takes (%2)")
                                     .arg(depth)
                                     .arg(Dovel::Limits::MaxPeerPathDepth);
        return false;
    }
    return true;
}

bool isNodeValue(const QJsonValue& value) {
    return value.isObject() && !value.toObject().contains(QLatin1String("@type"));
}

// Checks the attribute (or the node, for a plain object) that `value` makes at `path`.
bool checkLeaves(const QByteArray& path, const QJsonValue& value, QString& error) {
    const QString where = QString::fromUtf8(path);
    if (isNodeValue(value)) {
        const QJsonObject node = value.toObject();
        if (node.isEmpty()) {
            error = where + QStringLiteral(": an empty object is a node without attributes, "
                                           "which is not shared");
            return false;
        }
        for (auto it = node.begin(); it != node.end(); ++it)
            if (!checkLeaves(path + '/' + it.key().toUtf8(), it.value(), error))
                return false;
        return true;
    }
    if (path == "id" || path.endsWith("/id")) {
        error = where + QStringLiteral(": attributes named 'id' stay in each process and are "
                                       "not shared");
        return false;
    }
    return checkSize(path, error);
}

void addLeaves(const QByteArray& path, const QJsonValue& value, QList<QByteArray>& out) {
    if (!isNodeValue(value)) {
        out.append(path);
        return;
    }
    const QJsonObject node = value.toObject();
    for (auto it = node.begin(); it != node.end(); ++it)
        addLeaves(path + '/' + it.key().toUtf8(), it.value(), out);
}

} // namespace

QList<QByteArray> PathValues::leafPaths() const {
    QList<QByteArray> all;
    for (const Entry& entry : list)
        addLeaves(entry.path, entry.value, all);
    QList<QByteArray> out;
    QSet<QByteArray> seen;
    for (const QByteArray& path : all)
        if (!seen.contains(path)) {
            seen.insert(path);
            out.append(path);
        }
    return out;
}

bool PathValues::checkPaths(const QStringList& words, QString& error) {
    for (const QString& word : words) {
        if (!validPath(word.toUtf8())) {
            error = QStringLiteral("'%1' is not a path (names joined by '/')").arg(word);
            return false;
        }
        if (!checkSize(word.toUtf8(), error))
            return false;
    }
    return true;
}

bool PathValues::checkSendable(QString& error) const {
    for (const Entry& entry : list)
        if (!checkLeaves(entry.path, entry.value, error))
            return false;
    return true;
}

bool PathValues::parseValue(const QByteArray& text, QJsonValue& value, QString& error) {
    // The JSON reader takes only objects and arrays at the top: read the value as the
    // one element of an array.
    const QByteArray wrapped = "[" + text + "\n]";
    int offset = 0;
    QString problem;
    if (JsonPreflight::findProblem(wrapped, offset, problem)) {
        error = problem;
        return false;
    }
    QJsonParseError parseError;
    const QJsonDocument document = QJsonDocument::fromJson(wrapped, &parseError);
    if (parseError.error != QJsonParseError::NoError || !document.isArray() ||
        document.array().size() != 1 || text.trimmed().isEmpty()) {
        error = QStringLiteral("'%1' is not a JSON value (strings need their quotes)")
                    .arg(QString::fromUtf8(text));
        return false;
    }
    value = document.array().first();
    return true;
}

bool PathValues::parse(const QStringList& words, QString& error) {
    list.clear();
    QSet<QByteArray> paths;
    bool stdinTaken = false;
    for (const QString& word : words) {
        const int equals = word.indexOf(QLatin1Char('='));
        if (equals < 0) {
            error = QStringLiteral("'%1' is not PATH=VALUE").arg(word);
            return false;
        }
        Entry entry;
        entry.path = word.left(equals).toUtf8();
        if (!validPath(entry.path)) {
            error =
                QStringLiteral("'%1' is not a path (names joined by '/')").arg(word.left(equals));
            return false;
        }
        if (paths.contains(entry.path)) {
            error = QStringLiteral("%1 is given twice").arg(word.left(equals));
            return false;
        }
        QString problem;
        QByteArray text = word.mid(equals + 1).toUtf8();
        // Neither "@..." nor "-" is JSON: they name where the value is instead.
        if (text == "-") {
            if (stdinTaken) {
                error = QStringLiteral("only one value can come from standard input");
                return false;
            }
            stdinTaken = true;
            QFile in;
            if (!in.open(stdin, QIODevice::ReadOnly)) {
                error = QStringLiteral("cannot read standard input");
                return false;
            }
            text = in.readAll();
        } else if (text.startsWith('@')) {
            QFile file(QString::fromUtf8(text.mid(1)));
            if (!file.open(QIODevice::ReadOnly)) {
                error = QStringLiteral("%1: cannot read %2: %3")
                            .arg(word.left(equals), file.fileName(), file.errorString());
                return false;
            }
            text = file.readAll();
        }
        if (!parseValue(text, entry.value, problem)) {
            error = word.left(equals) + QStringLiteral(": ") + problem;
            return false;
        }
        paths.insert(entry.path);
        list.append(entry);
    }
    return true;
}

bool PathValues::apply(Tessel::Node& root, const TreeJson& json, QString& error) const {
    std::vector<TreeJson::Assignment> assignments;
    std::vector<std::pair<QByteArray, std::unique_ptr<Tessel::Attribute>>> created;
    for (const Entry& entry : list) {
        Tessel::Attribute* at = &root;
        QByteArray walked;
        for (const QByteArray& name : entry.path.split('/')) {
            auto* node = Tessel::asNode(Tessel::AttributeAlias::resolve(at));
            if (!node) {
                error = QStringLiteral("%1: %2 is a value, not a node")
                            .arg(QString::fromUtf8(entry.path), QString::fromUtf8(walked));
                return false;
            }
            at = node->attribute(name);
            if (!at)
                break;
            walked += (walked.isEmpty() ? QByteArray() : QByteArray("/")) + name;
        }
        if (at) {
            TreeJson::Assignment assignment;
            if (!json.prepare(*at, entry.value, entry.path, assignment, &error))
                return false;
            assignments.push_back(assignment);
            continue;
        }
        // A new path must not run into one that another word creates as a value.
        for (const auto& earlier : created) {
            if (entry.path.startsWith(earlier.first + '/') ||
                earlier.first.startsWith(entry.path + '/')) {
                error = QStringLiteral("%1 and %2 cannot both be created")
                            .arg(QString::fromUtf8(earlier.first), QString::fromUtf8(entry.path));
                return false;
            }
        }
        std::unique_ptr<Tessel::Attribute> attribute = json.create(entry.value, entry.path, &error);
        if (!attribute)
            return false;
        created.emplace_back(entry.path, std::move(attribute));
    }

    // Every value fits: write them.
    for (const TreeJson::Assignment& assignment : assignments)
        if (!json.commit(assignment, &error))
            return false;
    for (auto& entry : created) {
        const QList<QByteArray> names = entry.first.split('/');
        Tessel::Node* node = &root;
        for (int i = 0; i + 1 < names.size(); ++i) {
            auto* next = Tessel::asNode(Tessel::AttributeAlias::resolve(node->attribute(names[i])));
            if (!next)
                next = new Tessel::Node(node, names[i]); // owned by its host
            node = next;
        }
        if (!node->addAttribute(names.last(), entry.second.get())) {
            error = QStringLiteral("%1: cannot be added").arg(QString::fromUtf8(entry.first));
            return false;
        }
        entry.second.release(); // the node owns it now
    }
    return true;
}

} // namespace DovelTool
