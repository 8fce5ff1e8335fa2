// The commands that read single paths of a server's tree, each given the words after
// its name:
//
//   dovel get HOST:PORT PATH...      the values at the paths as JSON, one per line
//   dovel ls HOST:PORT [PATTERN]     the paths and types of the attributes
//
// Both observe: they never write to the server.
#pragma once

#include <QStringList>

namespace DovelTool {

int runGet(const QStringList& args);
int runLs(const QStringList& args);

} // namespace DovelTool
