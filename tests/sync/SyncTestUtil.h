// Shared helpers of the synchronisation tests: a recorder of watcher events, short
// names for event values, and the payloads of a received sliced event.
#pragma once

#include "Dovel/sync/NodeWatcher.h"

#include "Basalt/BinaryData.h"

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

// What a peer sends to begin a sliced event: id, event name, slice size, total bytes.
inline Basalt::BinaryData sliceBegin(int32_t id, const QByteArray& name, int32_t sliceSize,
                                     int64_t total) {
    Basalt::BinaryData data;
    data.writeInt32(id);
    data.write(name);
    data.writeInt32(sliceSize);
    data.writeInt64(total);
    return data;
}

// One slice of a sliced event: id, slice index, the bytes as a blob.
inline Basalt::BinaryData slicePart(int32_t id, int32_t index, const QByteArray& bytes) {
    Basalt::BinaryData data;
    data.writeInt32(id);
    data.writeInt32(index);
    data.writeBlob(bytes.constData(), bytes.size());
    return data;
}

} // namespace SyncTest
