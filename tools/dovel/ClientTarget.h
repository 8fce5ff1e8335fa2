// What the client commands (dump, set, watch, get, ls, rm) share: the HOST:PORT
// argument, --timeout, the login key, and the line that says why no tree came.
#pragma once

#include "CommandLine.h"

#include <QByteArray>
#include <QString>
#include <QStringList>

#include <functional>

namespace Tessel {
class Node;
}

namespace DovelTool {

class MirrorClient;

struct ClientTarget {
    QString host;
    int port = 0;
    double seconds = 10.0;  // --timeout, or what is left of it for a later step
    double asked = seconds; // --timeout as given, for the messages
    QByteArray key;         // empty: the default key

    QString address() const { return QStringLiteral("%1:%2").arg(host).arg(port); }
    int milliseconds() const { return int(seconds * 1000); }
    // The line for a path the server's tree does not hold.
    QString lacks(const QString& path) const {
        return QStringLiteral("%1: %2 holds no such attribute").arg(path, address());
    }
};

// Adds --timeout (with `timeoutHelp`, or the usual text when empty) and --key-file to
// the command's own arguments and options, parses `words` (CommandLine::parseOrExit)
// and reads HOST:PORT (the first positional word), --timeout and the key: -1 to go on,
// else the exit status, with the help printed or the error line written.
int parseClientCommand(CommandLine& line, const QStringList& words, ClientTarget& target,
                       int minPositional = 0, int maxPositional = -1,
                       const QString& missing = QString(), const QString& timeoutHelp = QString());
// Connects as an observer (MirrorClient) and runs `read` on its tree thread once the
// copy holds the server's tree: read's exit status, or the one that says why no tree
// came.
int readServerTree(const ClientTarget& target, const std::function<int(Tessel::Node&)>& read);
// Exit 1 with why `mirror` got no tree: what ended its attempt ("HOST:PORT: connection
// refused"), or the time-out that did.
int noSession(const ClientTarget& target, const MirrorClient& mirror);

} // namespace DovelTool
