#include "PathCommands.h"

#include "ClientTarget.h"
#include "CommandLine.h"
#include "PathValues.h"
#include "QueryTree.h"
#include "TreeJson.h"

#include "Dovel/sync/PathPattern.h"
#include "Dovel/sync/RemoteNode.h"

#include "Tessel/Node.h"

#include <functional>

namespace DovelTool {

namespace {

// HOST:PORT PATH... with the client options, the paths checked: -1 to go on, else the
// exit status (with the help printed or the error line written).
int parsePathCommand(CommandLine& line, const QStringList& args, ClientTarget& target,
                     QList<QByteArray>& paths) {
    line.addArgument(QStringLiteral("HOST:PORT"), QStringLiteral("the server"));
    line.addArgument(QStringLiteral("PATH"), QStringLiteral("slash-separated path"));
    const int parsed =
        parseClientCommand(line, args, target, 2, -1, QStringLiteral("HOST:PORT PATH"));
    if (parsed >= 0)
        return parsed;
    QString error;
    const QStringList words = line.positional().mid(1);
    if (!PathValues::checkPaths(words, error))
        return CommandLine::fail(CommandLine::UsageError, error);
    for (const QString& path : words)
        paths.append(path.toUtf8());
    return -1;
}

} // namespace

int runGet(const QStringList& args) {
    CommandLine line(QStringLiteral("get"), QStringLiteral("HOST:PORT PATH... [--timeout SECONDS]"),
                     QStringLiteral("Prints the value at each PATH of a server's tree as JSON in "
                                    "the tree-file format,\none line per PATH in their order (a "
                                    "node: its subtree as one object). Exits 1,\nprinting nothing, "
                                    "when a PATH is not there. Never writes to the server."));
    ClientTarget target;
    QList<QByteArray> wanted;
    const int parsed = parsePathCommand(line, args, target, wanted);
    if (parsed >= 0)
        return parsed;
    QByteArray out;
    const TreeJson json;
    const QueryAsk ask = [&](Dovel::QueryClient& client, Dovel::Query::Reply& reply, int ms) {
        return client.read(wanted, reply, ms);
    };
    return readQueried(target, ask, [&](Tessel::Node& root) {
        for (const QByteArray& path : wanted) {
            Tessel::Attribute* at = Dovel::attributeAt(root, path);
            QJsonValue value;
            if (!at || !json.toJson(*at, value))
                return CommandLine::fail(CommandLine::Failure,
                                         target.lacks(QString::fromUtf8(path)));
            out += TreeJson::valueText(value) + '\n';
        }
        CommandLine::print(out);
        return int(CommandLine::Success);
    });
}

int runLs(const QStringList& args) {
    CommandLine line(QStringLiteral("ls"),
                     QStringLiteral("HOST:PORT [PATTERN] [--json] [--timeout SECONDS]"),
                     QStringLiteral("Lists the attributes of a server's tree, one \"PATH TYPE\" "
                                    "line each in tree order\n(TYPE as the tree-file format names "
                                    "it; a PATH with a space, a quote or a\ncontrol character is "
                                    "written as a JSON string). Never writes to the server."));
    line.addArgument(QStringLiteral("HOST:PORT"), QStringLiteral("the server"));
    line.addArgument(QStringLiteral("PATTERN"),
                     QStringLiteral("only paths that match: `*` one name, `**` any depth, as "
                                    "'scene/**' (default: every path)"));
    line.addOption(QStringLiteral("json"), QString(),
                   QStringLiteral("one JSON object per line instead: {\"path\": PATH, \"type\": "
                                  "TYPE}"));
    ClientTarget target;
    const int parsed = parseClientCommand(line, args, target, 0, 2);
    if (parsed >= 0)
        return parsed;
    const QString pattern = line.positional().value(1);
    const Dovel::PathPattern filter(pattern.toUtf8());
    const bool asJson = line.isSet(QStringLiteral("json"));
    const TreeJson json;
    const QueryAsk ask = [&](Dovel::QueryClient& client, Dovel::Query::Reply& reply, int ms) {
        return client.list(pattern.toUtf8(), reply, ms);
    };
    return readQueried(target, ask, [&](Tessel::Node& root) {
        QByteArray out;
        Dovel::walkAttributesWithPath(
            root, [&](Tessel::Attribute& attribute, const QByteArray& path) {
                if (!pattern.isEmpty() && !filter.matches(path))
                    return;
                const QString type = json.typeName(attribute);
                if (type.isEmpty())
                    return; // no form in the tree-file format, as dump leaves it out
                if (asJson) {
                    out += "{\"path\":" + TreeJson::jsonString(path) + ",\"type\":\"" +
                           type.toLatin1() + "\"}\n";
                    return;
                }
                // As it is unless it holds a space or a character that does not print, or
                // JSON would write it otherwise (bytes that are not UTF-8, a backslash).
                const QByteArray quoted = TreeJson::jsonString(path);
                bool plain = quoted.size() == path.size() + 2 && quoted.mid(1, path.size()) == path;
                for (const QChar c : QString::fromUtf8(path.constData(), path.size()))
                    plain = plain && c.isPrint() && c != QLatin1Char(' ');
                out += (plain ? path : quoted) + ' ' + type.toLatin1() + '\n';
            });
        CommandLine::print(out);
        return int(CommandLine::Success);
    });
}

int runRm(const QStringList& args) {
    CommandLine line(QStringLiteral("rm"), QStringLiteral("HOST:PORT PATH... [--timeout SECONDS]"),
                     QStringLiteral("Removes the attribute, or the whole node, at each PATH of a "
                                    "server's tree, all or\nnone; every client of the server "
                                    "sees them go. Exits 1, removing nothing, when\na PATH is "
                                    "not there or the server refuses (read-only)."));
    ClientTarget target;
    QList<QByteArray> wanted;
    const int parsed = parsePathCommand(line, args, target, wanted);
    if (parsed >= 0)
        return parsed;
    return removeQueried(target, wanted);
}

} // namespace DovelTool
