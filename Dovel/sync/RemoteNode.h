// The node whose subtree is shared with a peer. It owns the symbol registry of the
// subtree's paths and event names, the AttributeCache, the SyncFlags and the NodeWatcher
// that watches the node itself, and meets both directions: watcher events and locally
// raised events go out to registered listeners; received events come in through
// handleRemoteEvent and reach the node's local event listeners.
//
// Thread contract: the tree work (construction, update, the registration operations,
// eventProcess, setSyncFlags) runs on the tree thread. addEventListener,
// removeEventLIstener and the cache are thread-safe;
// eventProcessSlice may be called from any thread. handleRemoteEvent and the slice
// table belong to the one thread that delivers received events.
#pragma once

#include "Dovel/sync/AttributeCache.h"
#include "Dovel/sync/NodeWatcher.h"
#include "Dovel/sync/SliceReassembly.h"
#include "Dovel/sync/SymbolBits.h"
#include "Dovel/sync/SyncFlags.h"

#include "Basalt/BinaryData.h"
#include "Basalt/ListenerTable.h"
#include "Basalt/SymbolRegistry.h"
#include "Tessel/AttributeAlias.h"
#include "Tessel/AttributeBaseT.h"
#include "Tessel/Node.h"

#include <QByteArray>
#include <QList>
#include <QMap>
#include <QRegExp>
#include <QSet>
#include <QString>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <type_traits>
#include <utility>
#include <vector>

namespace Dovel {

class RemoteNode : public Tessel::Node {
public:
    // An event raised on the node: the symbol of its name and its own copy of the data.
    struct Event {
        unsigned int symbol = 0;
        Basalt::BinaryData data;
    };
    using EventListener = std::function<void(const Event&)>;
    using ChangeListener = std::function<void(const NodeWatcher::Event&)>;

    // Starts watching itself at once; the first events (the node and everything under
    // it) reach only the node's own listener.
    RemoteNode(Tessel::Node* host, const QByteArray& name);
    // Sends the local event "destroyed", then drops the watcher and the tables.
    ~RemoteNode() override;

    // addDeepAttribute(path, node).
    bool addNode(const QByteArray& path, Tessel::Node* node);
    // Adds `attribute` at a slash-separated path, creating missing nodes. False (logged)
    // for a path starting with "/", a null attribute, a value where a node is expected,
    // or when the last node refuses the attribute.
    bool addDeepAttribute(const QByteArray& fullName, Tessel::Attribute* attribute);

    long addAttributeChangeListener(const ChangeListener& callback);
    void removeAttributeChangeListener(long id);
    // Listeners of events raised locally (they send them to the peer). Ids from 0 up.
    long addEventListener(const EventListener& callback);
    void removeEventLIstener(long id);

    // Local code raises an event: it goes to the event listeners, not to the node's
    // local listeners. A received event being delivered goes to the local listeners.
    void eventProcess(const QByteArray& name, Basalt::BinaryData& data) override;
    // Raises a large event as "event-slice-begin" and "event-slice" events of at most
    // `sliceSize` bytes (not 0); empty data travels as one plain event.
    void eventProcessSlice(const QByteArray& name, Basalt::BinaryData& data, std::size_t sliceSize);
    // Entry point of events received from the peer; `senderKey` keeps reassemblies of
    // different senders apart.
    void handleRemoteEvent(const QByteArray& name, Basalt::BinaryData& data, long senderKey);
    // Whether exactly these objects are the received event being delivered now.
    bool handlingRemoteEvent(const QByteArray& name, const Basalt::BinaryData& data) const;

    // Reports the watcher's deferred additions.
    void processPendingAdditions();
    // processPendingAdditions, then the path-pattern callbacks of the symbols changed
    // since the last update, each once, in order of first change.
    void update() override;

    // Applies the flag to every attribute now matching, and to those added later. Later
    // rules win over earlier ones.
    void setSyncFlags(const QRegExp& pattern, SyncFlags::Flag flag);
    const SyncFlags& syncFlags() const { return *flags; }
    const AttributeCache& attributeCache() const { return *cache; }
    Basalt::SymbolRegistry& symbolRegistry() { return *registry; }
    NodeWatcher& watcher() { return *nodeWatcher; }
    int sliceReassemblyCount() const { return slices.size(); }

    // Path-pattern callbacks (`*` one path component, `**` any depth): run at the next
    // update for every matching attribute, then whenever one changed before an update.
    // The attribute is null when it is gone by then.
    void onChangeAttribute(const QString& pattern, std::function<void(Tessel::Attribute*)> cb) {
        onChangeImpl(makeRegExp(pattern), std::move(cb));
    }
    // Typed form, e.g. onChange<float>("scene/*/x", [](float v) {...}); not called for
    // an attribute that is gone or whose value has no such form.
    template <typename T> void onChange(const QString& pattern, std::function<void(T)> cb) {
        onChangeImpl(makeRegExp(pattern), [cb = std::move(cb)](Tessel::Attribute* attribute) {
            T value{};
            if (valueOf(attribute, value))
                cb(value);
        });
    }

    // A wildcard path pattern as an anchored, case-sensitive expression.
    static QRegExp makeRegExp(const QString& pattern);

    // One setSyncFlags call: paths the pattern matches get the flag.
    struct SyncFlagRule {
        QRegExp pattern;
        SyncFlags::Flag flag;
        bool isIdRule; // the built-in rule for "id" attributes, matched without the engine
    };

private:
    template <typename T> static bool valueOf(Tessel::Attribute* attribute, T& out) {
        if (!attribute)
            return false;
        if (auto* typed = dynamic_cast<Tessel::AttributeBaseT<T>*>(attribute)) {
            out = typed->value();
            return true;
        }
        bool ok = false;
        if constexpr (std::is_same_v<T, bool>)
            out = attribute->asInt(&ok) != 0;
        else if constexpr (std::is_integral_v<T>)
            out = T(attribute->asInt(&ok));
        else if constexpr (std::is_floating_point_v<T>)
            out = T(attribute->asFloat(&ok));
        else if constexpr (std::is_same_v<T, QString>)
            out = attribute->asString(&ok);
        return ok;
    }

    void onWatcherEvent(const NodeWatcher::Event& event);
    void queueChanged(unsigned int symbol);
    // Registers the callback of pending listener `index` for the symbol (tree thread).
    void listenTo(unsigned int symbol, int index,
                  const std::function<void(Tessel::Attribute*)>& callback);
    void checkForPendingListeners(unsigned int symbol);
    void checkForSyncFlags(unsigned int symbol);
    void updateSyncFlags(const QRegExp& pattern, SyncFlags::Flag flag);
    void onChangeImpl(const QRegExp& expression, std::function<void(Tessel::Attribute*)> callback);
    void insertEvent(const QByteArray& name, const Basalt::BinaryData& data);
    void dispatchRemoteEvent(const QByteArray& name, Basalt::BinaryData& data);

    // Written by the delivering thread; atomic because eventProcess, which reads them,
    // may run on any thread through eventProcessSlice.
    std::atomic<const QByteArray*> remoteEventName{nullptr};
    std::atomic<const Basalt::BinaryData*> remoteEventData{nullptr};
    SliceReassembly slices; // tree thread

    std::unique_ptr<Basalt::SymbolRegistry> registry;
    std::unique_ptr<AttributeCache> cache;
    std::unique_ptr<SyncFlags> flags;
    std::unique_ptr<NodeWatcher> nodeWatcher;

    std::vector<std::pair<QRegExp, std::function<void(Tessel::Attribute*)>>> pendingListeners;
    std::vector<SyncFlagRule> syncFlagRules;
    // Keyed by the index of the pending listener: registration order, each at most once.
    QHash<unsigned int, std::map<int, std::function<void(Tessel::Attribute*)>>> symbolListeners;
    // Set with symbolListeners' first entry (it never loses one): until then no change is
    // worth queueing, and a registration queues what it matches itself. Read by the
    // threads that report changes.
    std::atomic<bool> anySymbolListener{false};

    Basalt::ListenerTable<const Event&> eventListeners;

    std::mutex changedMutex;
    std::vector<unsigned int> changedList;
    std::vector<unsigned int> changedTaken; // update()'s, swapped with changedList
    SymbolBits changedSet;                  // what changedList holds, less what was removed since
};

// The slash-separated path of `name` under `parent` (the name itself under the root),
// built in one allocation: every attribute the tree gains or the walks visit needs one.
QByteArray childPath(const QByteArray& parent, const QByteArray& name);
// Whether `full` is childPath(parent, name), without building that.
bool isChildPath(const QByteArray& full, const QByteArray& parent, const QByteArray& name);
// Follows `parts` down from `parent`, creating missing plain nodes (recorded by path in
// `created` when given). Null (logged) when an existing part is not a node.
Tessel::Node* findOrCreateNode(QList<QByteArray> parts, Tessel::Node* parent,
                               QMap<QByteArray, Tessel::Node*>* created, QByteArray prefix);
// Visits every value attribute under `node` in child order, aliases resolved; nodes are
// descended into, not visited. `skip` (may be empty) prunes an attribute and its subtree.
void walkAttributes(Tessel::Node& node, const std::function<void(Tessel::Attribute&)>& visit,
                    const std::function<bool(Tessel::Attribute&)>& skip);
// The attribute at the slash-separated `path` under `root` (each name looked up in what
// the previous one is, aliases included), or null.
Tessel::Attribute* attributeAt(Tessel::Node& root, const QByteArray& path);
// The same walk, giving each value attribute its slash-separated path under `node`. The
// visitor must not change the tree.
void walkAttributesWithPath(
    Tessel::Node& node, const std::function<void(Tessel::Attribute&, const QByteArray&)>& visit);
// The same walk without a path per attribute: `visit(found, resolved, parentPath,
// ownPath)` gets each value attribute as its parent lists it (an alias, or itself),
// resolved, the path of that parent under `node`, and whether the walk reached the
// parent by the parent's own path, through no alias. The parent's path is one buffer,
// grown and cut back as the walk goes down and up. The visitor must not change the tree.
template <typename Visit> void walkAttributesUnder(Tessel::Node& node, const Visit& visit) {
    QByteArray path;
    path.reserve(256); // reserved, the buffer stays when cut back to nothing
    const auto walk = [&path, &visit](const auto& self, Tessel::Node& under, bool ownPath) -> void {
        under.forEachChild([&](Tessel::Attribute* child) {
            Tessel::Attribute* const resolved = Tessel::AttributeAlias::resolve(child);
            if (!resolved)
                return;
            Tessel::Node* const sub = Tessel::asNode(resolved);
            if (!sub) {
                visit(*child, *resolved, static_cast<const QByteArray&>(path), ownPath);
                return;
            }
            const int parentBytes = path.size();
            if (parentBytes > 0)
                path.append('/');
            path.append(child->name());
            self(self, *sub, ownPath && resolved == child);
            path.truncate(parentBytes);
        });
    };
    walk(walk, node, true);
}

} // namespace Dovel
