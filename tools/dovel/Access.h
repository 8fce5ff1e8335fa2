// The options that decide who may use a server, shared by the commands: the login key
// (--key-file FILE, or the file DOVEL_KEY_FILE names) for servers and clients alike,
// and for servers the networks they accept (--allow), their caps on clients
// (--max-clients, --max-per-address) and the warning when one listens beyond the
// loopback with the well-known default key. Also `dovel keygen`.
#pragma once

#include "CommandLine.h"

#include "Dovel/transport/Admission.h"

#include <QByteArray>
#include <QString>

namespace DovelTool {

// What a server command is told about where it listens and whom it takes.
struct ServerSettings {
    QString host = QStringLiteral("127.0.0.1");
    int port = 5000;
    QByteArray key; // empty: the default key
    Dovel::AdmissionRules admission;
};

// Adds --listen, --key-file, --allow, --max-clients and --max-per-address.
void addServerOptions(CommandLine& line);
// Reads them after the line was parsed: -1 when they are sound, else the exit status,
// with the one error line written.
int readServerOptions(const CommandLine& line, ServerSettings& out);

// Adds --key-file.
void addKeyOption(CommandLine& line);

// The login key: the bytes of the key file with surrounding whitespace removed, or
// empty (the default key) when neither --key-file nor DOVEL_KEY_FILE names one. False
// with `error` set when the file cannot be read, holds no key or can be read by other
// users (exit status 1).
bool readLoginKey(const CommandLine& line, QByteArray& key, QString& error);

// One warning line when `host` is not the loopback and no key was given: anyone who
// can reach the port can then `what` ("change the tree", "read the folder").
void warnIfOpen(const QString& host, bool keyGiven, const QString& what);

// A server's clients each hold a descriptor: the soft limit on them goes up to the
// hard one, so that the caps on clients are what limits a server, not the default 1024.
void raiseDescriptorLimit();

int runKeygen(const QStringList& args);

} // namespace DovelTool
