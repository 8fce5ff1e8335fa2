// The tree commands of the dovel tool, each given the words after its name:
//
//   dovel serve [--listen HOST:PORT] [--tree FILE.json] [--save FILE.json]
//       shares a tree (read from FILE, or empty) as the master of every session, until
//       SIGINT or SIGTERM; its first line is "listening on HOST:PORT"
//   dovel dump HOST:PORT [--timeout SECONDS]
//       prints a server's tree as JSON, in the tree-file format
//   dovel set HOST:PORT PATH=VALUE... [--timeout SECONDS]
//       sets attributes of a server's tree (VALUE is JSON)
//   dovel watch HOST:PORT
//       prints every change of a server's tree as it comes, reconnecting when needed
//
// Exit status: 0 done, 1 a runtime failure (no session, a file that cannot be read or
// written), 2 a usage error or a value that does not fit (one line on stderr).
//
// serve and watch wait for SIGINT and SIGTERM with sigwait, so they must run on the
// main thread before any other thread is started.
#pragma once

#include <QStringList>

namespace DovelTool {

int runServe(const QStringList& args);
int runDump(const QStringList& args);
int runSet(const QStringList& args);
int runWatch(const QStringList& args);

} // namespace DovelTool
