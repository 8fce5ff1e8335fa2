// How a writing command (set) learns that the server holds what it sent: a second,
// observing connection reads the paths back until they hold the values sent (or are
// gone), within the time-out. The server applies a change after reading it, and may
// refuse it (a read-only server, a path another client made with another type).
#pragma once

#include "ClientTarget.h"

#include <QByteArray>
#include <QJsonValue>
#include <QString>

#include <functional>
#include <vector>

namespace Tessel {
class Node;
}

namespace DovelTool {

class TreeJson;

struct Expectation {
    QByteArray path;
    QJsonValue value; // as the tree-file format writes it (its type included)
};

// Why the tree under `root` does not hold what is expected ("PATH: <holder> ..."), or
// an empty string when it does. Tree thread.
QString firstDifference(Tessel::Node& root, const std::vector<Expectation>& expected,
                        const TreeJson& json, const QString& holder);

// Waits, for at most `ms`, until a fresh observer of the server holds what `expected`
// says. `writer`, the client that sent the change, ends the wait at once when its own
// copy stops matching: a server that refuses a change sends its own state back. False
// with `error` naming the first path that differs.
bool waitServerHolds(const ClientTarget& target, MirrorClient& writer,
                     const std::vector<Expectation>& expected, int ms, QString& error);

// What a writing command does to its copy of the server's tree, on the tree thread:
// -1 when done, with `expected` saying what the server holds once the change is in;
// else the exit status, with `error` set and nothing changed.
using TreeChange =
    std::function<int(Tessel::Node& root, std::vector<Expectation>& expected, QString& error)>;

// The whole of a writing command: connects as an ordinary client, makes the change, waits
// until it is written and the server holds it. Returns the exit status, with the line
// that says what went wrong.
int changeAndConfirm(const ClientTarget& target, const TreeChange& change);

} // namespace DovelTool
