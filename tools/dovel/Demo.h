// `dovel demo`: the library's main job in one process. A server shares an animated
// tree on an ephemeral loopback port, a client mirrors it; the demo prints, a few times
// a second, what both trees hold so that one sees the client follow the server, then a
// summary: the attributes shared, the changes per second the client applied and the
// mean delay from a change on the server to its arrival on the client.
//
// Must run on the main thread; it starts and stops its own threads.
#pragma once

#include <QStringList>

namespace DovelTool {

// `args` are the words after "demo". Exit status 0 when the client's tree matched the
// server's at the end, 1 when it did not, 2 for a usage error.
int runDemoCommand(const QStringList& args);

// The demo itself, animating for `seconds`.
int runDemo(double seconds);

} // namespace DovelTool
