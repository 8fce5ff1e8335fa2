// The lines of `dovel watch`: listens to the changes of a mirrored tree and reports
// each as one line,
//     PATH = VALUE      a value changed
//     + PATH = VALUE    an attribute was added
//     - PATH            an attribute was removed
// with VALUE as compact JSON in the tree-file format. It remembers the last value it
// has seen of every path, so that the full announcement of a fresh session after a
// reconnection prints only what really differs.
//
// Thread contract: construction, start(), destruction and the listener all run on the
// node's tree thread. `output` is called there too.
#pragma once

#include "TreeJson.h"

#include "Dovel/sync/NodeWatcher.h"

#include <QByteArray>
#include <QMap>

#include <functional>

namespace Dovel {
class RemoteNode;
}

namespace DovelTool {

class ChangePrinter {
public:
    using Output = std::function<void(const QByteArray& line)>;

    // Listens from now on, but prints nothing before start().
    ChangePrinter(Dovel::RemoteNode& node, Output output);
    ~ChangePrinter();
    ChangePrinter(const ChangePrinter&) = delete;
    ChangePrinter& operator=(const ChangePrinter&) = delete;

    // Takes the values the tree holds now as seen and prints every later change.
    // Returns the number of attributes seen.
    int start();

    // One line each, with its "\n".
    static QByteArray changedLine(const QByteArray& path, const QByteArray& valueText);
    static QByteArray addedLine(const QByteArray& path, const QByteArray& valueText);
    static QByteArray removedLine(const QByteArray& path);

private:
    void handle(const Dovel::NodeWatcher::Event& event);
    // The attribute at `path` under the node, or null.
    Tessel::Attribute* find(const QByteArray& path) const;
    // The value's JSON text; false for an attribute the tree format cannot show.
    bool valueText(Tessel::Attribute& attribute, QByteArray& out) const;
    void forget(const QByteArray& path);

    Dovel::RemoteNode& node;
    Output output;
    TreeJson json;
    long listenerId = -1;
    bool started = false;
    QMap<QByteArray, QByteArray> seen; // path -> value text
};

} // namespace DovelTool
