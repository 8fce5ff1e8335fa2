// The lines of `dovel watch`: listens to the changes of a mirrored tree and reports
// each as one line,
//     PATH = VALUE      a value changed
//     + PATH = VALUE    an attribute was added
//     - PATH            an attribute was removed
// with VALUE as compact JSON in the tree-file format, and PATH as a JSON string when it
// holds what would make the line ambiguous (a control character, a quote, " = ", or a
// leading "+ " or "- "). In JSON form each line is an object instead:
//     {"event":"set"|"added"|"removed","path":PATH,"value":VALUE}
// It remembers the last value it has seen of every path, so that the full announcement
// of a fresh session after a reconnection prints only what really differs.
//
// Thread contract: construction, start(), destruction and the listener all run on the
// node's tree thread. `output` is called there too.
#pragma once

#include "TreeJson.h"

#include "Dovel/sync/NodeWatcher.h"
#include "Dovel/sync/PathPattern.h"

#include <QByteArray>
#include <QMap>

#include <functional>
#include <optional>

namespace Dovel {
class RemoteNode;
}

namespace DovelTool {

class ChangePrinter {
public:
    using Output = std::function<void(const QByteArray& line)>;
    enum Format { Lines, Json };

    // Listens from now on, but prints nothing before start().
    ChangePrinter(Dovel::RemoteNode& node, Output output, Format format = Lines);
    ~ChangePrinter();
    ChangePrinter(const ChangePrinter&) = delete;
    ChangePrinter& operator=(const ChangePrinter&) = delete;

    // Shows only the paths that `pattern` matches (`*` one name, `**` any depth, as
    // the library's path patterns); before start().
    void setFilter(const QString& pattern);
    // Takes the values the tree holds now as seen (printed as additions when
    // `printHeld`) and prints every later change. Returns how many it shows.
    int start(bool printHeld = false);

    // One line each, with its "\n".
    QByteArray changedLine(const QByteArray& path, const QByteArray& valueText) const;
    QByteArray addedLine(const QByteArray& path, const QByteArray& valueText) const;
    QByteArray removedLine(const QByteArray& path) const;

private:
    void handle(const Dovel::NodeWatcher::Event& event);
    // The value's JSON text; false for an attribute the tree format cannot show.
    bool valueText(Tessel::Attribute& attribute, QByteArray& out) const;
    void forget(const QByteArray& path);
    bool shows(const QByteArray& path) const;

    Dovel::RemoteNode& node;
    Output output;
    const Format format;
    TreeJson json;
    long listenerId = -1;
    bool started = false;
    QMap<QByteArray, QByteArray> seen;        // path -> value text
    std::optional<Dovel::PathPattern> filter; // none: every path
};

} // namespace DovelTool
