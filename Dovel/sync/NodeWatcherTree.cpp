#include "Dovel/sync/NodeWatcherTree.h"

#include "Dovel/sync/AttributeCache.h"
#include "Dovel/sync/RemoteNode.h"

#include "Basalt/BinaryData.h"
#include "Basalt/SymbolRegistry.h"
#include "Basalt/Trace.h"
#include "Tessel/AttributeAlias.h"
#include "Tessel/ListenerHolder.h"
#include "Tessel/Node.h"
#include "Tessel/TreeObserver.h"

#include <QHash>

#include <memory>
#include <mutex>
#include <unordered_map>
#include <vector>

namespace Dovel {

using Tessel::Attribute;
using Tessel::AttributeAlias;
using Tessel::Node;

namespace {

// childPath of a name that views an event's payload: under the root that path would be
// the view itself, which must not outlive the event.
QByteArray childPathOfView(const QByteArray& parent, const QByteArray& view) {
    return parent.isEmpty() ? QByteArray(view.constData(), view.size()) : childPath(parent, view);
}

// A path to keep beyond the call that brought it: that may have been a view of bytes
// its caller holds only meanwhile (NodeWatcher::addComplete), which is copied. Bytes an
// array does not own (raw data, a literal) give it no capacity.
QByteArray keptPath(const QByteArray& path) {
    return path.capacity() >= path.size() ? path : QByteArray(path.constData(), path.size());
}

void checkName(const QByteArray& name) {
    if (name.isEmpty())
        Basalt::Trace::error("NodeWatcher # Found an attribute with an empty name. This should "
                             "never happen");
}

} // namespace

NodeWatcher::Tree::Tree(Basalt::SymbolRegistry& registry, AttributeCache& cache)
    : registry(registry), cache(cache) {
    cache.setObserver(this);
}

NodeWatcher::Tree::~Tree() {
    if (root)
        releaseTree(*root);
    cache.setObserver(nullptr);
}

void NodeWatcher::Tree::emit(EventType type, unsigned int symbol) {
    listeners.call(Event{type, symbol});
}

Tessel::ListenerHolder& NodeWatcher::Tree::aliasHolder(AttributeAlias* alias) {
    auto& slot = aliasHolders[alias];
    if (!slot)
        slot = std::make_unique<Tessel::ListenerHolder>();
    return *slot;
}

void NodeWatcher::Tree::dropAliasHolder(Attribute* alias) {
    auto it = aliasHolders.find(alias);
    if (it == aliasHolders.end())
        return;
    std::unique_ptr<Tessel::ListenerHolder> dropped = std::move(it->second);
    aliasHolders.erase(it);
    dropped.reset(); // removes every registration made through the alias
}

void NodeWatcher::Tree::watchNode(Node& node, const QByteArray& path, unsigned int symbol,
                                  bool notify, Tessel::ListenerHolder& holder) {
    cache.setIsNode(symbol, true);
    Node* watched = &node;
    const bool observed = observe(node, symbol, holder);
    if (!observed) {
        if (cache.find(symbol) == watched)
            cache.index(symbol, watched);
        // What both handlers need, shared: each captures 16 bytes, which std::function
        // keeps without a heap block of its own.
        struct Context {
            Tree* impl;
            Node* node;
            QByteArray path;
            Tessel::ListenerHolder* holder;
        };
        const auto context =
            std::make_shared<const Context>(Context{this, watched, keptPath(path), &holder});
        holder.addBd(
            watched, QByteArrayLiteral("attribute-added"),
            [context](Basalt::BinaryData& data) {
                QByteArray name;
                if (data.viewString(name))
                    context->impl->onAdded(context->path, name, context->node->attribute(name),
                                           *context->holder);
            },
            Node::Direct);
        holder.addBd(
            watched, QByteArrayLiteral("attribute-removed"),
            [context](Basalt::BinaryData& data) {
                QByteArray name;
                if (data.viewString(name))
                    context->impl->onRemoved(context->path, name, nullptr, *context->holder);
            },
            Node::Direct);
    }
    if (notify) {
        emit(NodeAdded, symbol);
        // A listener deleted the node or took it out of the tree: it is no longer
        // watched (nor cached), and what the walk below would visit is gone.
        if (observed ? cache.find(symbol) != watched : !holder.holds(watched))
            return;
    }
    for (Attribute* child : node.children()) {
        if (!child)
            continue;
        checkName(child->name());
        const QByteArray path2 = childPath(path, child->name());
        // The child's symbol from the node's own and its name: no path to hash.
        unsigned int symbol2 = registry.lookupOrDefineChild(symbol, child->name());
        if (symbol2 == 0)
            symbol2 = registry.lookupOrDefine(path2);
        if (!cache.find(symbol2))
            cache.add(symbol2, child);
        watchAttribute(*child, path2, symbol2, notify, holder);
    }
}

void NodeWatcher::Tree::watchAttribute(Attribute& attribute, const QByteArray& path,
                                       unsigned int symbol, bool notify,
                                       Tessel::ListenerHolder& holder) {
    if (&attribute == completeTarget && completeWatched == 0)
        completeWatched = symbol;
    // Only an alias resolves to something other than itself (or to nothing); asking so
    // spares a dynamic_cast per watched attribute.
    Attribute* target = AttributeAlias::resolve(&attribute);
    if (target != &attribute) {
        auto* alias = static_cast<AttributeAlias*>(&attribute);
        cache.index(symbol, alias);
        {
            std::lock_guard<std::mutex> locker(aliasMutex);
            aliases.insert(alias, target);
        }
        holder.add(
            alias, [this, alias, path = keptPath(path), symbol] { retarget(alias, path, symbol); },
            Attribute::RoleChange);
        if (auto* node = Tessel::asNode(target)) {
            watchNode(*node, path, symbol, notify, aliasHolder(alias));
            return;
        }
        if (!target)
            return;
    } else if (auto* node = Tessel::asNode(&attribute)) {
        watchNode(*node, path, symbol, notify, holder);
        return;
    } else if (!observe(attribute, symbol, holder)) {
        cache.index(symbol, &attribute);
        holder.add(
            &attribute, [this, symbol] { emit(AttributeChanged, symbol); }, Attribute::RoleChange);
    }
    if (!notify)
        return;
    // A listener may add another attribute meanwhile: the outer report comes back after.
    struct Reporting {
        Tree& tree;
        const Attribute* const attribute = tree.reporting;
        const unsigned int symbol = tree.reportingSymbol;
        ~Reporting() {
            tree.reporting = attribute;
            tree.reportingSymbol = symbol;
        }
    } outer{*this};
    reporting = &attribute;
    reportingSymbol = symbol;
    emit(AttributeAdded, symbol);
}

void NodeWatcher::Tree::retarget(AttributeAlias* alias, const QByteArray& path,
                                 unsigned int symbol) {
    Attribute* now = AttributeAlias::resolve(alias);
    Attribute* old = nullptr;
    {
        std::lock_guard<std::mutex> locker(aliasMutex);
        old = aliases.value(alias, nullptr);
        aliases.insert(alias, now);
    }
    if (old == now) {
        if (now)
            emit(AttributeChanged, symbol);
        return;
    }
    if (old) {
        if (auto* node = Tessel::asNode(old)) {
            unwatchNode(*node, path, symbol, true, aliasHolder(alias));
            dropAliasHolder(alias);
        } else {
            emit(cache.isNode(symbol) ? NodeRemoved : AttributeRemoved, symbol);
        }
    }
    if (!now)
        return;
    if (auto* node = Tessel::asNode(now)) {
        watchNode(*node, path, symbol, true, aliasHolder(alias));
        return;
    }
    cache.setIsNode(symbol, false);
    emit(AttributeAdded, symbol);
}

bool NodeWatcher::Tree::observe(Attribute& attribute, unsigned int symbol,
                                const Tessel::ListenerHolder& holder) {
    if (&holder != &rootHolder || (attribute.observer() && attribute.observer() != this))
        return false;
    attribute.setObserver(this, symbol);
    return true;
}

void NodeWatcher::Tree::release(Attribute& attribute) {
    if (attribute.observer() == this)
        attribute.setObserver(nullptr, 0);
}

void NodeWatcher::Tree::releaseTree(Node& node) {
    release(node);
    std::vector<Node*> nodes{&node};
    while (!nodes.empty()) {
        Node* next = nodes.back();
        nodes.pop_back();
        for (Attribute* child : next->children()) {
            release(*child);
            if (Node* inner = child->asNode())
                nodes.push_back(inner);
        }
    }
}

void NodeWatcher::Tree::attributeChanged(Attribute& attribute) {
    // A node's own change means nothing to a peer; an alias keeps a listener.
    if (attribute.observer() == this && !attribute.asNode())
        emit(AttributeChanged, attribute.observedAs());
}

void NodeWatcher::Tree::childAdded(Node& node, Attribute& child) {
    if (node.observer() != this)
        return;
    // What addComplete adds, under the parent its path names: the child's symbol follows
    // from the parent's and its name, and no path is built.
    if (&child == completeChild && completePath) {
        checkName(child.name());
        // The node is watched at the path before the child's name: then the child's path
        // is the one the caller named. The caller's word for the parent's symbol spares
        // asking the registry.
        const unsigned int under = node.observedAs();
        if (completeSymbol &&
            (completeParent ? completeParent == under
                            : registry.isChildOf(completeSymbol, under, child.name()))) {
            admit(child, *completePath, completeSymbol, rootHolder);
            return;
        }
        const unsigned int symbol = registry.lookupOrDefineChild(node.observedAs(), child.name());
        if (symbol && registry.isNameOf(symbol, *completePath)) {
            admit(child, *completePath, symbol, rootHolder);
            return;
        }
    }
    onAdded(registry.lookup(node.observedAs()), child.name(), &child, rootHolder);
}

void NodeWatcher::Tree::childRemoved(Node& node, Attribute& child) {
    if (node.observer() == this)
        onRemoved(registry.lookup(node.observedAs()), child.name(), &child, rootHolder);
}

void NodeWatcher::Tree::onAdded(const QByteArray& path, const QByteArray& name, Attribute* child,
                                Tessel::ListenerHolder& holder) {
    if (!child)
        return;
    checkName(name);
    const bool asCalled =
        child == completeChild && completePath && isChildPath(*completePath, path, name);
    const QByteArray path2 = asCalled ? *completePath : childPathOfView(path, name);
    const unsigned int symbol =
        asCalled && completeSymbol ? completeSymbol : registry.lookupOrDefine(keptPath(path2));
    admit(*child, path2, symbol, holder);
}

void NodeWatcher::Tree::admit(Attribute& child, const QByteArray& path, unsigned int symbol,
                              Tessel::ListenerHolder& holder) {
    Attribute* const cached = cache.findOrAdd(symbol, &child);
    // Another attribute cached there already is what the symbol goes on to stand for.
    if (&child == completeChild && cached == &child)
        completeWatched = symbol;
    if (&child == completeChild && pending.size() == 0) {
        // Nothing queued before it, so watching it now keeps the order of the reports.
        completeChild = nullptr;
        watchAttribute(*cached, path, symbol, true, holder);
        return;
    }
    auto record = std::make_shared<PendingAddition>(symbol, &child, true);
    record->holder = &holder;
    // The child is still being constructed: only its base may be touched here.
    record->listenerId =
        child.addListener([this, symbol] { firstChange(symbol); }, Attribute::RoleChange);
    pending.push(record);
}

void NodeWatcher::Tree::firstChange(unsigned int symbol) {
    PendingPtr record = pending.take(symbol);
    if (record && record->claim()) {
        record->releaseListener();
        process(*record);
    }
    record.reset();
    Attribute* attribute = cache.find(symbol);
    if (!attribute)
        Basalt::Trace::error("NodeWatcher::processPendingAddedChanged # Could not find "
                             "attribute in cache");
    else if (!dynamic_cast<AttributeAlias*>(attribute))
        emit(AttributeChanged, symbol);
}

void NodeWatcher::Tree::process(const PendingAddition& record) {
    Attribute* attribute = cache.find(record.symbol);
    if (!attribute) {
        Basalt::Trace::error("NodeWatcher::processPendingAdded # Could not find attribute in "
                             "cache");
        return;
    }
    watchAttribute(*attribute, registry.lookup(record.symbol), record.symbol, record.notify,
                   record.holder ? *record.holder : rootHolder);
}

bool NodeWatcher::Tree::storedTarget(Attribute* attribute, Attribute** target) {
    std::lock_guard<std::mutex> locker(aliasMutex);
    auto it = aliases.constFind(attribute);
    if (it == aliases.constEnd())
        return false;
    *target = it.value();
    return true;
}

void NodeWatcher::Tree::onRemoved(const QByteArray& path, const QByteArray& name, Attribute* child,
                                  Tessel::ListenerHolder& holder) {
    const QByteArray path2 = childPathOfView(path, name);
    // An observed child knows its symbol; others are found by their path.
    const unsigned int symbol =
        child && child->observer() == this ? child->observedAs() : registry.lookup(path2);
    Attribute* attribute = symbol ? cache.find(symbol) : nullptr;
    if (!attribute)
        return;
    Attribute* target = nullptr;
    const bool notify = storedTarget(attribute, &target) ? target != nullptr : true;
    unwatchAttribute(*attribute, path2, symbol, notify, holder);
}

void NodeWatcher::Tree::unwatchAttribute(Attribute& attribute, const QByteArray& path,
                                         unsigned int symbol, bool notify,
                                         Tessel::ListenerHolder& holder) {
    PendingPtr record = pending.take(symbol);
    auto* alias = dynamic_cast<AttributeAlias*>(&attribute);
    Attribute* resolved = AttributeAlias::resolve(&attribute);
    if (record) {
        // Never reported as added: report a balanced pair so listeners stay consistent.
        if (notify && !(alias && !resolved)) {
            const bool isNode = Tessel::asNode(resolved) != nullptr;
            emit(isNode ? NodeAdded : AttributeAdded, record->symbol);
            emit(isNode ? NodeRemoved : AttributeRemoved, record->symbol);
        }
    } else if (auto* node = Tessel::asNode(resolved)) {
        unwatchNode(*node, path, symbol, notify, alias ? aliasHolder(alias) : holder);
    } else {
        Attribute* target = nullptr;
        const bool nullAlias = storedTarget(&attribute, &target) && !target;
        if (notify && !nullAlias)
            emit(cache.isNode(symbol) ? NodeRemoved : AttributeRemoved, symbol);
    }
    record.reset();
    if (&attribute == completeTarget && symbol == completeWatched)
        completeWatched = 0;
    dropAliasHolder(&attribute);
    holder.removeListeners(&attribute);
    // Leaving through an alias keeps the slot that watches the attribute's own path.
    if (attribute.observedAs() == symbol)
        release(attribute);
    cache.remove(symbol);
    std::lock_guard<std::mutex> locker(aliasMutex);
    aliases.remove(&attribute);
}

void NodeWatcher::Tree::unwatchNode(Node& node, const QByteArray& path, unsigned int symbol,
                                    bool notify, Tessel::ListenerHolder& holder) {
    for (Attribute* child : node.children()) {
        if (!child)
            continue;
        checkName(child->name());
        const QByteArray path2 = childPath(path, child->name());
        unwatchAttribute(*child, path2, registry.lookup(path2), notify, holder);
    }
    if (notify)
        emit(NodeRemoved, symbol);
}

} // namespace Dovel
