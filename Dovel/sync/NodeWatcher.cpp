#include "Dovel/sync/NodeWatcher.h"

#include "Dovel/sync/AttributeCache.h"
#include "Dovel/sync/NodeWatcherTree.h"

#include "Basalt/SymbolRegistry.h"
#include "Basalt/Trace.h"
#include "Tessel/Node.h"

namespace Dovel {

using Tessel::Attribute;
using Tessel::Node;

NodeWatcher::NodeWatcher(Basalt::SymbolRegistry& registry, AttributeCache& cache)
    : tree(std::make_unique<Tree>(registry, cache)) {}

NodeWatcher::~NodeWatcher() = default;

void NodeWatcher::startWatching(Node& root, bool notify) {
    if (tree->watching.exchange(true)) {
        Basalt::Trace::error("NodeWatcher can only watch one node at a time");
        return;
    }
    const unsigned int symbol = tree->registry.lookupOrDefine(QByteArray(""));
    tree->cache.add(symbol, &root);
    tree->root = &root;
    Tree* self = tree.get();
    Node* watched = &root;
    // Before the walk: a listener of its reports may delete the root.
    tree->rootHolder.add(
        watched,
        [self, watched, symbol] {
            self->unwatchNode(*watched, QByteArray(), symbol, true, self->rootHolder);
            self->release(*watched);
            self->root = nullptr;
            self->cache.remove(symbol);
        },
        Attribute::RoleDelete);
    tree->watchNode(root, QByteArray(), symbol, notify, tree->rootHolder);
}

long NodeWatcher::addListener(const Listener& callback) {
    return tree->listeners.add(callback);
}

void NodeWatcher::removeListener(long id) {
    tree->listeners.remove(id);
}

bool NodeWatcher::isPendingUpdate(unsigned int symbol) const {
    return tree->pending.contains(symbol);
}

const Tessel::Attribute* NodeWatcher::reportedAddition(unsigned int symbol) const {
    return tree->reporting && tree->reportingSymbol == symbol ? tree->reporting : nullptr;
}

int NodeWatcher::pendingCount() const {
    return tree->pending.size();
}

void NodeWatcher::update() {
    while (Tree::PendingPtr record = tree->pending.popFront()) {
        if (record->claim()) {
            record->releaseListener();
            tree->process(*record);
        }
    }
}

bool NodeWatcher::addComplete(Node& parent, const QByteArray& name, Attribute* attribute,
                              const QByteArray& path, unsigned int symbol, unsigned int* watchedAs,
                              unsigned int parentSymbol) {
    // A listener of the report may add another attribute this way: the outer call's
    // state comes back when the inner one ends (also on a throw).
    struct Scope {
        Tree& tree;
        Attribute* const child = tree.completeChild;
        const QByteArray* const path = tree.completePath;
        const unsigned int symbol = tree.completeSymbol;
        const unsigned int parent = tree.completeParent;
        ~Scope() {
            tree.completeChild = child;
            tree.completePath = path;
            tree.completeSymbol = symbol;
            tree.completeParent = parent;
        }
    };
    struct TargetScope {
        Tree& tree;
        Attribute* const target = tree.completeTarget;
        const unsigned int watched = tree.completeWatched;
        ~TargetScope() {
            tree.completeTarget = target;
            tree.completeWatched = watched;
        }
    };
    bool added = false;
    unsigned int watched = 0;
    {
        const TargetScope targetScope{*tree};
        tree->completeTarget = attribute;
        tree->completeWatched = 0;
        {
            const Scope scope{*tree};
            tree->completeChild = attribute;
            // The caller's own array, which outlives the call: pointed to, not copied.
            tree->completePath = path.isEmpty() ? nullptr : &path;
            tree->completeSymbol = path.isEmpty() ? 0 : symbol;
            tree->completeParent = tree->completeSymbol ? parentSymbol : 0;
            added = parent.addAttribute(name, attribute);
        }
        // A parent whose own addition is still queued reports nothing to onAdded: this
        // update watches the attribute with its parent, under a path of its own (the
        // parent's, which may differ from the caller's through an alias). A listener may
        // delete the attribute meanwhile: its unwatching clears completeWatched.
        update();
        watched = tree->completeWatched;
    }
    if (watchedAs)
        *watchedAs = added ? watched : 0;
    return added;
}

} // namespace Dovel
