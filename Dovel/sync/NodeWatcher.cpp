#include "Dovel/sync/NodeWatcher.h"

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

#include <list>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <shared_mutex>
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

void checkName(const QByteArray& name) {
    if (name.isEmpty())
        Basalt::Trace::error("NodeWatcher # Found an attribute with an empty name. This should "
                             "never happen");
}

} // namespace

NodeWatcher::PendingAdded::PendingAdded(unsigned int symbol, Attribute* attribute, bool notify)
    : symbol(symbol), attribute(attribute), notify(notify) {}

NodeWatcher::PendingAdded::~PendingAdded() {
    releaseListener();
}

void NodeWatcher::PendingAdded::releaseListener() {
    if (attribute && listenerId >= 0)
        attribute->removeListener(listenerId);
    listenerId = -1;
}

bool NodeWatcher::PendingAdded::claim() {
    uint8_t expected = 0;
    return processed.compare_exchange_strong(expected, 1);
}

// The tree under the root is watched through the observer slot of each attribute and
// node (TreeObserver): no listener block per attribute, no listener pair per node. What
// is reached only through an alias, and what another watcher observes already, is
// watched with listeners, kept per subtree in holders.
struct NodeWatcher::Impl : Tessel::TreeObserver {
    using PendingPtr = std::shared_ptr<PendingAdded>;
    using PendingList = std::list<PendingPtr>;
    using Table = std::map<long, Listener>;

    Impl(Basalt::SymbolRegistry& registry, AttributeCache& cache)
        : registry(registry), cache(cache), listeners(std::make_shared<Table>()) {
        cache.setObserver(this);
    }
    ~Impl() {
        if (root)
            releaseTree(*root);
        cache.setObserver(nullptr);
    }

    void attributeChanged(Attribute& attribute) override;
    void childAdded(Node& node, Attribute& child) override;
    void childRemoved(Node& node, Attribute& child) override;
    // Takes the attribute's observer slot for its own path, when `holder` is the root's
    // and no other watcher holds the slot; false when it must be watched by listeners.
    bool observe(Attribute& attribute, unsigned int symbol, const Tessel::ListenerHolder& holder);
    void release(Attribute& attribute);
    // Lets go of every slot this watcher holds under `node`.
    void releaseTree(Node& node);

    void emit(EventType type, unsigned int symbol);

    void enqueue(const PendingPtr& record);
    PendingPtr takePending(unsigned int symbol);
    PendingPtr popFront();

    void watchNode(Node& node, const QByteArray& path, unsigned int symbol, bool notify,
                   Tessel::ListenerHolder& holder);
    void watchAttribute(Attribute& attribute, const QByteArray& path, unsigned int symbol,
                        bool notify, Tessel::ListenerHolder& holder);
    Tessel::ListenerHolder& aliasHolder(AttributeAlias* alias);
    void dropAliasHolder(Attribute* alias);
    void retarget(AttributeAlias* alias, const QByteArray& path, unsigned int symbol);
    // `name` may view an event's payload: it is used only before anything is called out.
    void onAdded(const QByteArray& path, const QByteArray& name, Attribute* child,
                 Tessel::ListenerHolder& holder);
    void onRemoved(const QByteArray& path, const QByteArray& name, Attribute* child,
                   Tessel::ListenerHolder& holder);
    void firstChange(unsigned int symbol);
    int pendingCount() const { return pendingSize.load(std::memory_order_acquire); }
    void process(const PendingAdded& record);
    void unwatchAttribute(Attribute& attribute, const QByteArray& path, unsigned int symbol,
                          bool notify, Tessel::ListenerHolder& holder);
    void unwatchNode(Node& node, const QByteArray& path, unsigned int symbol, bool notify,
                     Tessel::ListenerHolder& holder);
    bool storedTarget(Attribute* attribute, Attribute** target);

    Basalt::SymbolRegistry& registry;
    AttributeCache& cache;
    // Registrations on the tree seen from the root, and, per alias that points at a node,
    // those on the subtree seen through that alias: an attribute reached both ways keeps
    // its own-path registrations when the alias moves on.
    Tessel::ListenerHolder rootHolder;
    std::unordered_map<Attribute*, std::unique_ptr<Tessel::ListenerHolder>> aliasHolders;

    std::mutex aliasMutex;
    QHash<Attribute*, Attribute*> aliases; // alias -> end of its chain (may be null)

    // Arrival order in the list; the index finds a symbol's records without a scan.
    mutable std::mutex pendingMutex;
    PendingList pending;
    std::unordered_map<unsigned int, std::vector<PendingList::iterator>> pendingIndex;
    // pending.size(), stored under the mutex: lets the checks made for every attribute
    // added (is anything queued?) skip the mutex when nothing is.
    std::atomic<int> pendingSize{0};

    // Immutable tables swapped under the lock: an emission only copies a pointer.
    std::shared_mutex listenerLock;
    std::shared_ptr<const Table> listeners;
    long nextListenerId = 0;

    std::atomic<bool> watching{false};
    // The watched root while it lives (tree thread).
    Node* root = nullptr;
    // The attribute addComplete is adding (tree thread): its addition is watched at once.
    Attribute* completeChild = nullptr;
    QByteArray completePath;          // its path as the caller knows it, or empty
    unsigned int completeSymbol = 0;  // that path's symbol, when the caller knows it
    unsigned int completeWatched = 0; // the symbol it is watched under, while it is
    // The same attribute until addComplete returns: its watching (also by the update that
    // ends the call) and its unwatching set and clear completeWatched, so that the call
    // never has to look at an attribute a listener may have deleted meanwhile.
    Attribute* completeTarget = nullptr;
};

void NodeWatcher::Impl::emit(EventType type, unsigned int symbol) {
    const Event event{type, symbol};
    std::shared_ptr<const Table> table;
    {
        std::shared_lock<std::shared_mutex> locker(listenerLock);
        table = listeners;
    }
    for (const auto& entry : *table)
        entry.second(event);
}

void NodeWatcher::Impl::enqueue(const PendingPtr& record) {
    std::lock_guard<std::mutex> locker(pendingMutex);
    auto it = pending.insert(pending.end(), record);
    pendingIndex[record->symbol].push_back(it);
    pendingSize.store(int(pending.size()), std::memory_order_release);
}

NodeWatcher::Impl::PendingPtr NodeWatcher::Impl::takePending(unsigned int symbol) {
    if (pendingCount() == 0)
        return nullptr;
    std::lock_guard<std::mutex> locker(pendingMutex);
    auto found = pendingIndex.find(symbol);
    if (found == pendingIndex.end())
        return nullptr;
    auto it = found->second.front();
    found->second.erase(found->second.begin());
    if (found->second.empty())
        pendingIndex.erase(found);
    PendingPtr record = std::move(*it);
    pending.erase(it);
    pendingSize.store(int(pending.size()), std::memory_order_release);
    return record; // released by the caller, outside the mutex
}

NodeWatcher::Impl::PendingPtr NodeWatcher::Impl::popFront() {
    if (pendingCount() == 0)
        return nullptr;
    std::lock_guard<std::mutex> locker(pendingMutex);
    if (pending.empty())
        return nullptr;
    auto front = pending.begin();
    auto found = pendingIndex.find((*front)->symbol);
    if (found != pendingIndex.end()) {
        auto& positions = found->second;
        for (auto pos = positions.begin(); pos != positions.end(); ++pos) {
            if (*pos == front) {
                positions.erase(pos);
                break;
            }
        }
        if (positions.empty())
            pendingIndex.erase(found);
    }
    PendingPtr record = std::move(*front);
    pending.erase(front);
    pendingSize.store(int(pending.size()), std::memory_order_release);
    return record;
}

Tessel::ListenerHolder& NodeWatcher::Impl::aliasHolder(AttributeAlias* alias) {
    auto& slot = aliasHolders[alias];
    if (!slot)
        slot = std::make_unique<Tessel::ListenerHolder>();
    return *slot;
}

void NodeWatcher::Impl::dropAliasHolder(Attribute* alias) {
    auto it = aliasHolders.find(alias);
    if (it == aliasHolders.end())
        return;
    std::unique_ptr<Tessel::ListenerHolder> dropped = std::move(it->second);
    aliasHolders.erase(it);
    dropped.reset(); // removes every registration made through the alias
}

void NodeWatcher::Impl::watchNode(Node& node, const QByteArray& path, unsigned int symbol,
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
            Impl* impl;
            Node* node;
            QByteArray path;
            Tessel::ListenerHolder* holder;
        };
        const auto context = std::make_shared<const Context>(Context{this, watched, path, &holder});
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
        const unsigned int symbol2 = registry.lookupOrDefine(path2);
        if (!cache.find(symbol2))
            cache.add(symbol2, child);
        watchAttribute(*child, path2, symbol2, notify, holder);
    }
}

void NodeWatcher::Impl::watchAttribute(Attribute& attribute, const QByteArray& path,
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
            alias, [this, alias, path, symbol] { retarget(alias, path, symbol); },
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
    if (notify)
        emit(AttributeAdded, symbol);
}

void NodeWatcher::Impl::retarget(AttributeAlias* alias, const QByteArray& path,
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

bool NodeWatcher::Impl::observe(Attribute& attribute, unsigned int symbol,
                                const Tessel::ListenerHolder& holder) {
    if (&holder != &rootHolder || (attribute.observer() && attribute.observer() != this))
        return false;
    attribute.setObserver(this, symbol);
    return true;
}

void NodeWatcher::Impl::release(Attribute& attribute) {
    if (attribute.observer() == this)
        attribute.setObserver(nullptr, 0);
}

void NodeWatcher::Impl::releaseTree(Node& node) {
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

void NodeWatcher::Impl::attributeChanged(Attribute& attribute) {
    // A node's own change means nothing to a peer; an alias keeps a listener.
    if (attribute.observer() == this && !attribute.asNode())
        emit(AttributeChanged, attribute.observedAs());
}

void NodeWatcher::Impl::childAdded(Node& node, Attribute& child) {
    if (node.observer() == this)
        onAdded(registry.lookup(node.observedAs()), child.name(), &child, rootHolder);
}

void NodeWatcher::Impl::childRemoved(Node& node, Attribute& child) {
    if (node.observer() == this)
        onRemoved(registry.lookup(node.observedAs()), child.name(), &child, rootHolder);
}

void NodeWatcher::Impl::onAdded(const QByteArray& path, const QByteArray& name, Attribute* child,
                                Tessel::ListenerHolder& holder) {
    if (!child)
        return;
    checkName(name);
    const bool asCalled = child == completeChild && isChildPath(completePath, path, name);
    const QByteArray path2 = asCalled ? completePath : childPathOfView(path, name);
    const unsigned int symbol =
        asCalled && completeSymbol ? completeSymbol : registry.lookupOrDefine(path2);
    if (child == completeChild)
        completeWatched = symbol;
    Attribute* const cached = cache.findOrAdd(symbol, child);
    if (child == completeChild && pendingCount() == 0) {
        // Nothing queued before it, so watching it now keeps the order of the reports.
        completeChild = nullptr;
        watchAttribute(*cached, path2, symbol, true, holder);
        return;
    }
    auto record = std::make_shared<PendingAdded>(symbol, child, true);
    record->holder = &holder;
    // The child is still being constructed: only its base may be touched here.
    record->listenerId =
        child->addListener([this, symbol] { firstChange(symbol); }, Attribute::RoleChange);
    enqueue(record);
}

void NodeWatcher::Impl::firstChange(unsigned int symbol) {
    PendingPtr record = takePending(symbol);
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

void NodeWatcher::Impl::process(const PendingAdded& record) {
    Attribute* attribute = cache.find(record.symbol);
    if (!attribute) {
        Basalt::Trace::error("NodeWatcher::processPendingAdded # Could not find attribute in "
                             "cache");
        return;
    }
    watchAttribute(*attribute, registry.lookup(record.symbol), record.symbol, record.notify,
                   record.holder ? *record.holder : rootHolder);
}

bool NodeWatcher::Impl::storedTarget(Attribute* attribute, Attribute** target) {
    std::lock_guard<std::mutex> locker(aliasMutex);
    auto it = aliases.constFind(attribute);
    if (it == aliases.constEnd())
        return false;
    *target = it.value();
    return true;
}

void NodeWatcher::Impl::onRemoved(const QByteArray& path, const QByteArray& name, Attribute* child,
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

void NodeWatcher::Impl::unwatchAttribute(Attribute& attribute, const QByteArray& path,
                                         unsigned int symbol, bool notify,
                                         Tessel::ListenerHolder& holder) {
    PendingPtr record = takePending(symbol);
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

void NodeWatcher::Impl::unwatchNode(Node& node, const QByteArray& path, unsigned int symbol,
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

NodeWatcher::NodeWatcher(Basalt::SymbolRegistry& registry, AttributeCache& cache)
    : impl(std::make_unique<Impl>(registry, cache)) {}

NodeWatcher::~NodeWatcher() = default;

void NodeWatcher::startWatching(Node& root, bool notify) {
    if (impl->watching.exchange(true)) {
        Basalt::Trace::error("NodeWatcher can only watch one node at a time");
        return;
    }
    const unsigned int symbol = impl->registry.lookupOrDefine(QByteArray(""));
    impl->cache.add(symbol, &root);
    impl->root = &root;
    Impl* self = impl.get();
    Node* watched = &root;
    // Before the walk: a listener of its reports may delete the root.
    impl->rootHolder.add(
        watched,
        [self, watched, symbol] {
            self->unwatchNode(*watched, QByteArray(), symbol, true, self->rootHolder);
            self->release(*watched);
            self->root = nullptr;
            self->cache.remove(symbol);
        },
        Attribute::RoleDelete);
    impl->watchNode(root, QByteArray(), symbol, notify, impl->rootHolder);
}

long NodeWatcher::addListener(const Listener& callback) {
    std::unique_lock<std::shared_mutex> locker(impl->listenerLock);
    auto table = std::make_shared<Impl::Table>(*impl->listeners);
    const long id = impl->nextListenerId++;
    table->emplace(id, callback);
    impl->listeners = std::move(table);
    return id;
}

void NodeWatcher::removeListener(long id) {
    std::unique_lock<std::shared_mutex> locker(impl->listenerLock);
    if (!impl->listeners->count(id))
        return;
    auto table = std::make_shared<Impl::Table>(*impl->listeners);
    table->erase(id);
    impl->listeners = std::move(table);
}

bool NodeWatcher::isPendingUpdate(unsigned int symbol) const {
    std::lock_guard<std::mutex> locker(impl->pendingMutex);
    return impl->pendingIndex.count(symbol) != 0;
}

int NodeWatcher::pendingCount() const {
    return impl->pendingCount();
}

void NodeWatcher::update() {
    while (Impl::PendingPtr record = impl->popFront()) {
        if (record->claim()) {
            record->releaseListener();
            impl->process(*record);
        }
    }
}

bool NodeWatcher::addComplete(Node& parent, const QByteArray& name, Attribute* attribute,
                              const QByteArray& path, unsigned int symbol,
                              unsigned int* watchedAs) {
    // A listener of the report may add another attribute this way: the outer call's
    // state comes back when the inner one ends (also on a throw).
    struct Scope {
        Impl& impl;
        Attribute* const child = impl.completeChild;
        const QByteArray path = impl.completePath;
        const unsigned int symbol = impl.completeSymbol;
        ~Scope() {
            impl.completeChild = child;
            impl.completePath = path;
            impl.completeSymbol = symbol;
        }
    };
    struct TargetScope {
        Impl& impl;
        Attribute* const target = impl.completeTarget;
        const unsigned int watched = impl.completeWatched;
        ~TargetScope() {
            impl.completeTarget = target;
            impl.completeWatched = watched;
        }
    };
    bool added = false;
    unsigned int watched = 0;
    {
        const TargetScope targetScope{*impl};
        impl->completeTarget = attribute;
        impl->completeWatched = 0;
        {
            const Scope scope{*impl};
            impl->completeChild = attribute;
            impl->completePath = path;
            // Taken only when it names that path: a record found by the peer's symbol may
            // be another path's, once the peer has bound that symbol anew.
            impl->completeSymbol =
                symbol && !path.isEmpty() && impl->registry.lookup(symbol) == path ? symbol : 0;
            added = parent.addAttribute(name, attribute);
        }
        // A parent whose own addition is still queued reports nothing to onAdded: this
        // update watches the attribute with its parent, under a path of its own (the
        // parent's, which may differ from the caller's through an alias). A listener may
        // delete the attribute meanwhile: its unwatching clears completeWatched.
        update();
        watched = impl->completeWatched;
    }
    if (watchedAs)
        *watchedAs = added ? watched : 0;
    return added;
}

} // namespace Dovel
