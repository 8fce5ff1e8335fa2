// The commands that read single paths of a server's tree, each given the words after
// its name:
//
//   dovel get HOST:PORT PATH...      the values at the paths as JSON, one per line
//   dovel ls HOST:PORT [PATTERN]     the paths and types of the attributes
//   dovel rm HOST:PORT PATH...       removes attributes and nodes
//
// get and ls observe: they never write to the server. All three ask the server only
// for what they need (QueryTree.h).
#pragma once

#include <QStringList>

namespace DovelTool {

int runGet(const QStringList& args);
int runLs(const QStringList& args);
int runRm(const QStringList& args);

} // namespace DovelTool
