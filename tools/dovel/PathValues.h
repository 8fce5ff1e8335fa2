// The PATH=VALUE words of `dovel set`: parses them (VALUE is one JSON value) and writes
// them into a tree all or nothing. An existing attribute keeps its type and the value
// is converted to it; a missing path becomes an attribute of the type the JSON value
// implies (see TreeJson), with the nodes on its way.
//
// Thread contract: parse() on any thread; apply() on the tree's thread.
#pragma once

#include <QByteArray>
#include <QJsonValue>
#include <QList>
#include <QString>
#include <QStringList>
#include <QVector>

namespace Tessel {
class Node;
} // namespace Tessel

namespace DovelTool {

class TreeJson;

class PathValues {
public:
    struct Entry {
        QByteArray path;
        QJsonValue value;
    };

    // False with `error` naming the word at fault: no "=", an empty or malformed path
    // (empty names, "@type"), a path given twice, a VALUE that is not JSON. VALUE "@FILE"
    // is read from FILE, "-" from standard input (once).
    bool parse(const QStringList& words, QString& error);
    const QVector<Entry>& entries() const { return list; }
    // False with `error` naming the path when a server would drop what the words
    // create: an attribute named "id" (kept local by every session), an empty object (a
    // node without attributes, which no session carries), a path longer or deeper than
    // a server takes from a peer.
    bool checkSendable(QString& error) const;

    // The paths of the attributes the words write: a plain object's leaves, each other
    // value's own path.
    QList<QByteArray> leafPaths() const;

    // Converts every value first; when one does not fit (or its path runs through a
    // value), nothing is changed and `error` names its path. Otherwise writes the
    // existing attributes at layer 2 and adds the new ones under `root`.
    bool apply(Tessel::Node& root, const TreeJson& json, QString& error) const;

    // False with `error` naming the first word that is not a path (names joined by '/',
    // none empty or "@type"), or is longer or deeper than a server takes.
    static bool checkPaths(const QStringList& words, QString& error);

    // One JSON value as text, as `set` reads it ("1.5", "\"text\"", "[1,2]", ...).
    static bool parseValue(const QByteArray& text, QJsonValue& value, QString& error);

private:
    QVector<Entry> list;
};

} // namespace DovelTool
