// `dovel files`: mirror a folder over the file-transfer protocol.
//
//   dovel files serve DIR [--listen HOST:PORT]   serve DIR (default 0.0.0.0:5000) until
//                                                SIGINT or SIGTERM; prints
//                                                "listening on HOST:PORT" once listening
//   dovel files pull HOST:PORT DIR [--delete]    bring DIR up to date with a server;
//                                                --delete removes files it lacks
//
// Exit status: 0 done (pull: DIR matches), 1 the pull left files that do not match or
// the server could not listen, 2 a usage error (one line on stderr).
#pragma once

#include <QStringList>

namespace DovelTool {

// `args` are the words after "files". Must run on the main thread before any other
// thread is started: it blocks SIGINT and SIGTERM to wait for them.
int runFilesCommand(const QStringList& args);

} // namespace DovelTool
