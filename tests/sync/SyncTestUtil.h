// Shared helpers of the synchronisation tests: a recorder of watcher events and short
// names for event values.
#pragma once

#include "Dovel/sync/NodeWatcher.h"

#include <QByteArray>

#include <ostream>
#include <vector>

namespace Dovel {
inline std::ostream& operator<<(std::ostream& out, const NodeWatcher::Event& event) {
    static const char* names[] = {"AttributeAdded", "AttributeRemoved", "AttributeChanged",
                                  "NodeAdded", "NodeRemoved"};
    return out << (event.type <= 4 ? names[event.type] : "?") << "(" << event.symbol << ")";
}
} // namespace Dovel

namespace SyncTest {

using Event = Dovel::NodeWatcher::Event;
using Dovel::NodeWatcher;

inline Event ev(NodeWatcher::EventType type, unsigned int symbol) {
    return Event{type, symbol};
}

// Collects every event it is given, in order.
struct Recorder {
    std::vector<Event> events;
    std::function<void(const Event&)> callback() {
        return [this](const Event& event) { events.push_back(event); };
    }
    std::vector<Event> take() {
        std::vector<Event> out;
        out.swap(events);
        return out;
    }
};

} // namespace SyncTest
