// NodeWatcher's hold on the tree it watches: the walk that watches and unwatches a
// subtree, the observer slots it takes (TreeObserver), the listener holders of what is
// reached through aliases, the additions not yet reported, and the watcher's listeners.
// Private to NodeWatcher, which states the thread contract.
#pragma once

#include "Dovel/sync/NodeWatcher.h"
#include "Dovel/sync/PendingAdditions.h"

#include "Basalt/ListenerTable.h"
#include "Tessel/ListenerHolder.h"
#include "Tessel/TreeObserver.h"

#include <QByteArray>
#include <QHash>

#include <atomic>
#include <memory>
#include <mutex>
#include <unordered_map>

namespace Tessel {
class AttributeAlias;
}

namespace Dovel {

// The tree under the root is watched through the observer slot of each attribute and
// node (TreeObserver): no listener block per attribute, no listener pair per node. What
// is reached only through an alias, and what another watcher observes already, is
// watched with listeners, kept per subtree in holders.
struct NodeWatcher::Tree : Tessel::TreeObserver {
    using PendingPtr = PendingAdditions::Record;

    Tree(Basalt::SymbolRegistry& registry, AttributeCache& cache);
    ~Tree();

    void attributeChanged(Tessel::Attribute& attribute) override;
    void childAdded(Tessel::Node& node, Tessel::Attribute& child) override;
    void childRemoved(Tessel::Node& node, Tessel::Attribute& child) override;
    // Takes the attribute's observer slot for its own path, when `holder` is the root's
    // and no other watcher holds the slot; false when it must be watched by listeners.
    bool observe(Tessel::Attribute& attribute, unsigned int symbol,
                 const Tessel::ListenerHolder& holder);
    void release(Tessel::Attribute& attribute);
    // Lets go of every slot this watcher holds under `node`.
    void releaseTree(Tessel::Node& node);

    void emit(EventType type, unsigned int symbol);

    void watchNode(Tessel::Node& node, const QByteArray& path, unsigned int symbol, bool notify,
                   Tessel::ListenerHolder& holder);
    void watchAttribute(Tessel::Attribute& attribute, const QByteArray& path, unsigned int symbol,
                        bool notify, Tessel::ListenerHolder& holder);
    Tessel::ListenerHolder& aliasHolder(Tessel::AttributeAlias* alias);
    void dropAliasHolder(Tessel::Attribute* alias);
    void retarget(Tessel::AttributeAlias* alias, const QByteArray& path, unsigned int symbol);
    // `name` may view an event's payload: it is used only before anything is called out.
    void onAdded(const QByteArray& path, const QByteArray& name, Tessel::Attribute* child,
                 Tessel::ListenerHolder& holder);
    void onRemoved(const QByteArray& path, const QByteArray& name, Tessel::Attribute* child,
                   Tessel::ListenerHolder& holder);
    // Caches a child just added under `path` and `symbol`, and watches it now or once
    // what was queued before it is.
    void admit(Tessel::Attribute& child, const QByteArray& path, unsigned int symbol,
               Tessel::ListenerHolder& holder);
    void firstChange(unsigned int symbol);
    void process(const PendingAddition& record);
    void unwatchAttribute(Tessel::Attribute& attribute, const QByteArray& path, unsigned int symbol,
                          bool notify, Tessel::ListenerHolder& holder);
    void unwatchNode(Tessel::Node& node, const QByteArray& path, unsigned int symbol, bool notify,
                     Tessel::ListenerHolder& holder);
    bool storedTarget(Tessel::Attribute* attribute, Tessel::Attribute** target);

    Basalt::SymbolRegistry& registry;
    AttributeCache& cache;
    // Registrations on the tree seen from the root, and, per alias that points at a node,
    // those on the subtree seen through that alias: an attribute reached both ways keeps
    // its own-path registrations when the alias moves on.
    Tessel::ListenerHolder rootHolder;
    std::unordered_map<Tessel::Attribute*, std::unique_ptr<Tessel::ListenerHolder>> aliasHolders;

    std::mutex aliasMutex;
    QHash<Tessel::Attribute*, Tessel::Attribute*>
        aliases; // alias -> end of its chain (may be null)

    PendingAdditions pending;

    Basalt::ListenerTable<const Event&> listeners;

    std::atomic<bool> watching{false};
    // The watched root while it lives (tree thread).
    Tessel::Node* root = nullptr;
    // The attribute addComplete is adding (tree thread): its addition is watched at once.
    Tessel::Attribute* completeChild = nullptr;
    const QByteArray* completePath = nullptr; // its path as the caller knows it, or null
    unsigned int completeSymbol = 0;          // that path's symbol, when the caller knows it
    unsigned int completeParent = 0;          // the symbol of the path before its name, likewise
    unsigned int completeWatched = 0;         // the symbol it is watched under, while it is
    // The same attribute until addComplete returns: its watching (also by the update that
    // ends the call) and its unwatching set and clear completeWatched, so that the call
    // never has to look at an attribute a listener may have deleted meanwhile.
    Tessel::Attribute* completeTarget = nullptr;
    // The attribute whose addition is being reported, with the symbol it is reported
    // under, while its listeners run (tree thread); else null.
    const Tessel::Attribute* reporting = nullptr;
    unsigned int reportingSymbol = 0;
};

} // namespace Dovel
