// Which parts of a shared tree a session's peer may change: everything (the default),
// or only the attribute paths and event names that match one of a list of patterns
// (`*` one path component, `**` any depth), nothing when the list is empty.
//
// The receivers ask before they apply anything of the peer's: a change, addition or
// removal of an attribute it may not write is refused (the value is read past, the
// attribute stays), and this side sends its own value again so that the peer's copy
// returns to it; an event it may not raise is dropped. Each refusal is reported to the
// refusal handler with the path or event name.
//
// A value type; a session keeps its own copy and uses it on the tree thread.
#pragma once

#include "Dovel/sync/PathPattern.h"

#include <QByteArray>
#include <QStringList>

#include <functional>
#include <vector>

namespace Dovel {

class PeerWriteRules {
public:
    // Everything writable.
    PeerWriteRules() = default;
    // Only what matches one of `writable` (none: nothing).
    static PeerWriteRules readOnly(const QStringList& writable = QStringList());

    bool allowsEverything() const { return everything; }
    bool mayWrite(const QByteArray& path) const;

    // Called with the path or event name of every refused change.
    void setRefusalHandler(std::function<void(const QByteArray&)> handler) {
        refused = std::move(handler);
    }
    void refuse(const QByteArray& what) const {
        if (refused)
            refused(what);
    }

private:
    bool everything = true;
    std::vector<PathPattern> patterns;
    std::function<void(const QByteArray&)> refused;
};

} // namespace Dovel
