// `dovel demo`: a server and a client in one process, on loopback, that go through the
// greeting and login, open a binary session, bind each other's modules and learn the
// server's attribute paths through the symbol exchange. Prints what happens.
#pragma once

class QTextStream;

namespace DovelTool {

// Returns the process exit status: 0 when the whole exchange completed.
int runDemo(QTextStream& out, int timeoutMs);

} // namespace DovelTool
