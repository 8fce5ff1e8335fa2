#include "Tessel/Attribute.h"

#include "Tessel/Node.h"

#include "Tessel/ListenerHolder.h"
#include "Tessel/ListenerId.h"
#include "Tessel/TreeObserver.h"

#include "Basalt/PointerMap.h"
#include "Basalt/Trace.h"

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <thread>
#include <utility>
#include <vector>

namespace Tessel {

// Trees hold millions: a value attribute with a value of up to 8 bytes (a float, a
// string's pointer) fits a 64-byte heap block, one of up to 24 (a vector of three
// floats) an 80-byte one (AttributeT.cpp).
static_assert(sizeof(void*) != 8 || sizeof(Attribute) <= 48,
              "an attribute should stay in 48 bytes");

// One part of the listener table: the entries of the attributes whose address falls
// to it, behind a spin lock held for a probe and a copy. An entry moves when others
// come and go, so it is read by copying it out.
struct Attribute::ListenerShard {
    void lock() {
        while (locked.exchange(true, std::memory_order_acquire))
            while (locked.load(std::memory_order_relaxed))
                std::this_thread::yield();
    }
    void unlock() { locked.store(false, std::memory_order_release); }

    // Puts `next` as the entry of `key` (none when it is empty) and gives back what
    // was there (locked; the caller lets it go unlocked).
    ListenerSnapshot exchange(const Attribute* key, ListenerSnapshot next) {
        const ListenerSnapshot* found = entries.find(key);
        ListenerSnapshot old = found ? *found : ListenerSnapshot();
        if (next)
            entries.insert(key, std::move(next));
        else
            entries.erase(key);
        return old;
    }

    std::atomic<bool> locked{false};
    Basalt::PointerMap<const Attribute, ListenerSnapshot> entries;
};

Attribute::ListenerShard& Attribute::listenerShard(const Attribute* attribute) {
    // Apart, so that trees on different threads seldom wait for each other; never
    // destroyed, since attributes may outlive static destruction.
    constexpr std::size_t Shards = 64;
    static ListenerShard* const shards = new ListenerShard[Shards];
    const auto address = reinterpret_cast<std::uintptr_t>(attribute);
    return shards[(address >> 4) * 0x9E3779B97F4A7C15ull >> 58];
}

Attribute::ListenerSnapshot* Attribute::listenerHome(bool) {
    return nullptr;
}

Attribute::ListenerSnapshot Attribute::listeners() const {
    if (!hasListeners)
        return ListenerSnapshot();
    if (!listenersInTable)
        if (const ListenerSnapshot* home = const_cast<Attribute*>(this)->listenerHome(false))
            return *home;
    ListenerShard& shard = listenerShard(this);
    shard.lock();
    const ListenerSnapshot* const found = shard.entries.find(this);
    ListenerSnapshot copy = found ? *found : ListenerSnapshot();
    shard.unlock();
    return copy;
}

Attribute::ListenerSnapshot Attribute::exchangeListeners(ListenerSnapshot next) {
    if (!hasListeners && !next)
        return next;
    const bool any = bool(next);
    if (!listenersInTable)
        if (ListenerSnapshot* home = listenerHome(any)) {
            std::swap(*home, next);
            hasListeners = any;
            if (!any)
                listenerHomeEmptied();
            return next;
        }
    ListenerShard& shard = listenerShard(this);
    shard.lock();
    ListenerSnapshot old;
    try {
        old = shard.exchange(this, std::move(next));
    } catch (...) {
        shard.unlock();
        throw;
    }
    shard.unlock();
    hasListeners = any;
    listenersInTable = any;
    return old;
}

Attribute::Attribute()
    : serializable(true), destroying(false), detaching(false), isAlias(false), hasListeners(false),
      listenersInTable(false), layersDefined(0), valueInBlock(false) {}

Attribute::Attribute(Node* host, const QByteArray& name) : Attribute() {
    attachTo(host, name);
}

TreeObserver* Attribute::observer() const {
    return observerSlot ? TreeObserver::inSlot(observerSlot) : nullptr;
}

void Attribute::setObserver(TreeObserver* observer, uint32_t number) {
    observerSlot = observer ? observer->slot() : 0;
    observedNumber = number;
}

void Attribute::attachTo(Node* host, const QByteArray& name) {
    if (!hostNode)
        attributeName = name;
    if (host && !host->addAttribute(name, this))
        Basalt::Trace::warning("Attribute::attachTo # Could not add '%s' to '%s'", name.constData(),
                               host->name().constData());
}

Attribute::BlockRef::~BlockRef() {
    if (!block || block->owners.fetch_sub(1, std::memory_order_acq_rel) != 1)
        return;
    if (block->isTable)
        delete static_cast<ListenerTable*>(block);
    else
        delete static_cast<Listener*>(block);
}

Attribute::ListenerSnapshot::ListenerSnapshot(BlockRef entries) : entries(std::move(entries)) {}

std::size_t Attribute::ListenerSnapshot::size() const {
    if (!entries)
        return 0;
    return entries->isTable ? table().entries.size() : 1;
}

Attribute::Listener& Attribute::ListenerSnapshot::at(std::size_t index) const {
    if (entries->isTable)
        return *static_cast<Listener*>(table().entries[index].get());
    return *static_cast<Listener*>(entries.get());
}

Attribute::BlockRef Attribute::ListenerSnapshot::share(std::size_t index) const {
    if (entries->isTable)
        return table().entries[index];
    return entries;
}

Attribute::~Attribute() {
    aboutToBeDestroyed();
    const ListenerSnapshot listeners = this->listeners();
    if (!listeners)
        return;
    // Emissions still running over this attribute (a listener deleted it) skip the rest.
    for (std::size_t i = 0; i < listeners.size(); ++i)
        listeners.at(i).removed = true;
    // Taken out first: what a dying listener lets go of may come back to this attribute.
    const ListenerSnapshot dying = exchangeListeners(ListenerSnapshot());
}

int Attribute::listenerCount() const {
    return int(listeners().size());
}

thread_local Attribute::EndWatch* Attribute::endWatches __attribute__((tls_model("initial-exec"))) =
    nullptr;

Attribute::EndWatch::EndWatch(const Attribute* attribute) : watched(attribute), next(endWatches) {
    endWatches = this;
}

Attribute::EndWatch::~EndWatch() {
    endWatches = next;
}

void Attribute::aboutToBeDestroyed() {
    if (destroying)
        return;
    destroying = true;
    for (EndWatch* watch = endWatches; watch; watch = watch->next)
        if (watch->watched == this)
            watch->hasEnded = true;
    emitDelete();
    // Holders forget this attribute now, the way a deletion listener of theirs would.
    // A deletion listener may have changed the listeners: they are read again.
    for (std::size_t i = 0;; ++i) {
        const ListenerSnapshot now = listeners();
        if (i >= now.size())
            break;
        if (ListenerHolder* holder = now.at(i).holder)
            holder->forget(this);
    }
    if (Node* node = asNode())
        node->forgetEventHolders();
    if (hostNode)
        hostNode->removeAttribute(this);
}

void Attribute::setName(const QByteArray& name) {
    if (hostNode) {
        Basalt::Trace::warning("Attribute::setName # '%s' is held by a node and keeps its name",
                               attributeName.constData());
        return;
    }
    attributeName = name;
}

QByteArray Attribute::type() const {
    return "attribute";
}

Attribute* Attribute::attribute(const QByteArray&) const {
    return nullptr;
}

float Attribute::asFloat(bool* ok, Layer) const {
    if (ok)
        *ok = false;
    return 0.0f;
}

int Attribute::asInt(bool* ok, Layer) const {
    if (ok)
        *ok = false;
    return 0;
}

QString Attribute::asString(bool* ok, Layer) const {
    if (ok)
        *ok = false;
    return QString();
}

bool Attribute::set(float, Layer, ValueUnit) {
    return false;
}

bool Attribute::set(int, Layer, ValueUnit) {
    return false;
}

bool Attribute::set(const QString&, Layer, ValueUnit) {
    return false;
}

bool Attribute::set(const Quant::Vector2f&, Layer, Units) {
    return false;
}

bool Attribute::set(const Quant::Vector3f&, Layer, Units) {
    return false;
}

bool Attribute::set(const Quant::Vector4f&, Layer, Units) {
    return false;
}

bool Attribute::isChanged() const {
    return false;
}

bool Attribute::isValueDefinedOnLayer(Layer) const {
    return false;
}

void Attribute::clearValue(Layer) {}

void Attribute::copyValueFromLayer(Layer, Layer) {}

void Attribute::setAsDefaults() {}

void Attribute::emitChange() {
    if (observerSlot)
        if (TreeObserver* observer = TreeObserver::inSlot(observerSlot))
            observer->attributeChanged(*this);
    emitRole(RoleChange);
}

void Attribute::emitDelete() {
    emitRole(RoleDelete);
}

void Attribute::emitRole(int role) {
    // The snapshot keeps each entry (and its callback) alive while it runs, even if the
    // callback removes it or destroys this attribute; `removed` tells the rest to skip.
    const ListenerSnapshot snapshot = listeners();
    if (!snapshot)
        return;
    for (std::size_t i = 0, count = snapshot.size(); i < count; ++i) {
        Listener& listener = snapshot.at(i);
        if ((listener.roles & role) && !listener.removed)
            listener.callback();
    }
}

long Attribute::addListener(std::function<void()> callback, int roleMask) {
    return addListener(std::move(callback), roleMask, nullptr);
}

long Attribute::addListener(std::function<void()> callback, int roleMask, ListenerHolder* holder) {
    // A dying attribute takes none: one kept now would outlive it, in the process's
    // table, under an address another attribute may come to have.
    if (destroying)
        return issueListenerId();
    auto* made = new Listener;
    BlockRef listener(made);
    made->id = issueListenerId();
    made->callback = std::move(callback);
    made->holder = holder;
    made->roles = roleMask;
    const long id = made->id;
    const ListenerSnapshot listeners = this->listeners();
    if (!listeners) {
        exchangeListeners(ListenerSnapshot(std::move(listener)));
        return id;
    }
    // Ids only grow, so the new one goes last.
    auto* table = new ListenerTable;
    BlockRef tableRef(table);
    table->entries.reserve(listeners.size() + 1);
    for (std::size_t i = 0; i < listeners.size(); ++i)
        table->entries.push_back(listeners.share(i));
    table->entries.push_back(std::move(listener));
    exchangeListeners(ListenerSnapshot(std::move(tableRef)));
    return id;
}

template <typename Keep> void Attribute::replaceListeners(Keep keep) {
    const ListenerSnapshot listeners = this->listeners();
    if (!listeners)
        return;
    std::size_t kept = 0;
    for (std::size_t i = 0; i < listeners.size(); ++i)
        kept += keep(listeners.at(i));
    auto* table = kept > 1 ? new ListenerTable : nullptr;
    BlockRef tableRef(table);
    if (table)
        table->entries.reserve(kept);
    BlockRef only;
    for (std::size_t i = 0; i < listeners.size(); ++i) {
        if (!keep(listeners.at(i)))
            listeners.at(i).removed = true;
        else if (table)
            table->entries.push_back(listeners.share(i));
        else
            only = listeners.share(i);
    }
    if (table)
        exchangeListeners(ListenerSnapshot(std::move(tableRef)));
    else if (only)
        exchangeListeners(ListenerSnapshot(std::move(only)));
    else
        exchangeListeners(ListenerSnapshot());
}

bool Attribute::removeListener(long id) {
    const ListenerSnapshot listeners = this->listeners();
    std::size_t found = 0;
    while (found < listeners.size() && listeners.at(found).id != id)
        ++found;
    if (found == listeners.size())
        return false;
    ListenerHolder* holder = listeners.at(found).holder;
    replaceListeners([id](const Listener& listener) { return listener.id != id; });
    // A holder with nothing left here would not hear of this attribute's end.
    if (holder && !hasListenersOf(holder)) {
        Node* node = asNode();
        if (!node || !node->hasEventListenersOf(holder))
            holder->forget(this);
    }
    return true;
}

bool Attribute::hasListenersOf(const ListenerHolder* holder) const {
    const ListenerSnapshot listeners = this->listeners();
    for (std::size_t i = 0; i < listeners.size(); ++i)
        if (listeners.at(i).holder == holder)
            return true;
    return false;
}

bool Attribute::removeListenersOf(const ListenerHolder* holder) {
    if (!hasListenersOf(holder))
        return false;
    replaceListeners([holder](const Listener& listener) { return listener.holder != holder; });
    return true;
}

} // namespace Tessel
