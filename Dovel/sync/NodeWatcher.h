// Turns the object model's notifications (value changes, deletions, and the
// "attribute-added"/"attribute-removed" events of nodes) under one root into a flat
// stream of Events, each naming a kind of change and the symbol of the attribute's
// path, and keeps the AttributeCache in step with the tree.
//
// Thread contract: startWatching, update and every object-model notification run on the
// tree thread. addListener, removeListener and isPendingUpdate are
// thread-safe. Listener callbacks run with no watcher lock held, so they may add or
// remove listeners; the change takes effect from the next emission. A listener may
// delete (or take out of the tree) the attribute or node it is told was added; other
// parts of the watched tree must not be deleted from inside a report (the watcher may be
// walking them): do that after the update.
#pragma once

#include <QByteArray>

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>

namespace Basalt {
class SymbolRegistry;
}
namespace Tessel {
class Attribute;
class ListenerHolder;
class Node;
} // namespace Tessel

namespace Dovel {

class AttributeCache;

class NodeWatcher {
public:
    enum EventType : uint32_t {
        AttributeAdded = 0,   // a value attribute (not a node) is now watched
        AttributeRemoved = 1, // the value attribute is gone
        AttributeChanged = 2, // the value attribute changed its value
        NodeAdded = 3,        // a node is now watched
        NodeRemoved = 4,      // the node is gone
    };

    struct Event {
        EventType type = AttributeAdded;
        unsigned int symbol = 0;

        bool operator<(const Event& other) const {
            return symbol != other.symbol ? symbol < other.symbol : type < other.type;
        }
        bool operator==(const Event& other) const {
            return type == other.type && symbol == other.symbol;
        }
        bool operator!=(const Event& other) const { return !(*this == other); }
    };

    using Listener = std::function<void(const Event&)>;

    NodeWatcher(Basalt::SymbolRegistry& registry, AttributeCache& cache);
    // Drops listeners, pending records, the ignore set and the alias map, and removes
    // every listener the watcher put on the tree. The watched tree must still be alive,
    // or its root must have been destroyed (the watcher then let go of it).
    ~NodeWatcher();
    NodeWatcher(const NodeWatcher&) = delete;
    NodeWatcher& operator=(const NodeWatcher&) = delete;

    // Watches the whole tree under `root`, emitting its additions in pre-order when
    // `notify`. Only once per watcher; a second call is logged and ignored.
    void startWatching(Tessel::Node& root, bool notify);

    long addListener(const Listener& callback);
    void removeListener(long id);

    // Whether an addition of that symbol is queued and not yet reported.
    bool isPendingUpdate(unsigned int symbol) const;
    // While the addition of `symbol` is reported to the listeners, the attribute added
    // there, else null: a listener that needs only its name reads it there instead of
    // asking the registry. Tree thread; the attribute may be deleted by any listener, so
    // ask before anything that may.
    const Tessel::Attribute* reportedAddition(unsigned int symbol) const;
    int pendingCount() const;
    // Reports every queued addition (tree thread).
    void update();
    // Adds `attribute`, fully constructed, to `parent` (a node of the watched tree) and
    // watches it at once, then runs update(): what adding it and calling update() would
    // do, without queueing the record that an attribute still being constructed needs.
    // False when the node refuses it (tree thread). `path`, when the caller holds the
    // attribute's whole path, spares building it again, and `symbol`, when the caller
    // knows that path's symbol (it must be that path's), spares looking it up;
    // `parentSymbol`, when the caller knows the symbol of the path before the name (it
    // must be that one's), spares asking the registry whether `symbol` is the child
    // `name` of the symbol `parent` is watched under (their symbols are compared).
    // `*watchedAs`, when given, is the symbol the watcher keeps the attribute under, 0
    // when it does not watch it. `path` may view bytes that last only for the call
    // (QByteArray::setRawData): what the watcher keeps of it, it copies.
    bool addComplete(Tessel::Node& parent, const QByteArray& name, Tessel::Attribute* attribute,
                     const QByteArray& path = QByteArray(), unsigned int symbol = 0,
                     unsigned int* watchedAs = nullptr, unsigned int parentSymbol = 0);

private:
    struct Tree;
    std::unique_ptr<Tree> tree;
};

} // namespace Dovel
