// The light road of the client commands (get, ls, set, rm): they ask the server for the
// few paths they need through the query module (Dovel::QueryClient) instead of taking
// a copy of the whole tree, so that their cost follows what they ask for. The answer is
// built into a small tree of the same shape, on which the commands run as they would
// on a full copy. A server that answers no queries, or whose answer would be too large,
// is read the ordinary way (readServerTree).
//
// Threads: the command's main thread; the small tree belongs to it.
#pragma once

#include "ClientTarget.h"

#include "Dovel/session/QueryClient.h"

#include <QByteArray>
#include <QList>

#include <functional>

namespace Tessel {
class Node;
}

namespace DovelTool {

class PathValues;

using QueryAsk =
    std::function<Dovel::QueryClient::Outcome(Dovel::QueryClient&, Dovel::Query::Reply&, int ms)>;

// Runs `read` on a tree that holds what `ask` fetched from the server (values included
// when the answer carries them); the exit status of `read`, or the one that says why
// nothing came.
int readQueried(const ClientTarget& target, const QueryAsk& ask,
                const std::function<int(Tessel::Node&)>& read);

// `dovel set`: reads the paths the words name, writes the words into that copy and
// sends the server the values of every attribute they wrote. Exit 0 once the server
// holds them; 1 naming the path the server refused and why; 2 for a value that does not
// fit. A server without queries gets the ordinary client's change (changeAndConfirm).
int setQueried(const ClientTarget& target, const PathValues& values);

// `dovel rm`: removes the attributes and nodes at `paths`, all or none.
int removeQueried(const ClientTarget& target, const QList<QByteArray>& paths);

} // namespace DovelTool
