// What the client commands (dump, set, watch, get, ls, rm) share: the HOST:PORT
// argument, --timeout, the login key, and the line that says why no tree came.
#pragma once

#include "CommandLine.h"

#include <QByteArray>
#include <QString>

namespace DovelTool {

class MirrorClient;

struct ClientTarget {
    QString host;
    int port = 0;
    double seconds = 10.0; // --timeout
    QByteArray key;        // empty: the default key

    QString address() const { return QStringLiteral("%1:%2").arg(host).arg(port); }
    int milliseconds() const { return int(seconds * 1000); }
};

// Adds --timeout (with `timeoutHelp`, or the usual text when empty) and --key-file.
void addClientOptions(CommandLine& line, const QString& timeoutHelp = QString());
// Reads HOST:PORT (the first positional word), --timeout and the key after the line
// was parsed: -1 when they are sound, else the exit status, with the error line written.
int readClientTarget(const CommandLine& line, ClientTarget& target);
// Exit 1 with why `mirror` got no tree: what ended its attempt ("HOST:PORT: connection
// refused"), or the time-out that did.
int noSession(const ClientTarget& target, const MirrorClient& mirror);

} // namespace DovelTool
