#include "Tessel/Attribute.h"

#include "Tessel/Node.h"

#include "Tessel/ListenerHolder.h"
#include "Tessel/ListenerId.h"
#include "Tessel/TreeObserver.h"

#include "Basalt/Trace.h"

#include <algorithm>
#include <utility>
#include <vector>

namespace Tessel {

// Trees hold millions: a value attribute with a value of up to 12 bytes (a vector of
// three floats, a string's pointer) fits an 80-byte heap block (AttributeT.cpp).
static_assert(sizeof(void*) != 8 || sizeof(Attribute) <= 56,
              "an attribute should stay in 56 bytes");

Attribute::Attribute() : destroying(false), detaching(false), isAlias(false) {}

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
    if (!extras)
        return;
    // Emissions still running over this attribute (a listener deleted it) skip the rest.
    const ListenerSnapshot& listeners = extras->listeners;
    for (std::size_t i = 0; i < listeners.size(); ++i)
        listeners.at(i).removed = true;
    // Cleared first: what a dying listener lets go of may come back to this attribute.
    delete std::exchange(extras, nullptr);
}

Attribute::ListenerSnapshot& Attribute::listenerList() {
    if (!extras)
        extras = new Extras;
    return extras->listeners;
}

void Attribute::releaseEmptyExtras() {
    if (extras && !extras->listeners && !extras->side)
        delete std::exchange(extras, nullptr);
}

void Attribute::setSideTable(void* table) {
    if (!extras && !table)
        return;
    if (!extras)
        extras = new Extras;
    extras->side = table;
    releaseEmptyExtras();
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
    for (std::size_t i = 0; extras && i < extras->listeners.size(); ++i)
        if (ListenerHolder* holder = extras->listeners.at(i).holder)
            holder->forget(this);
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
    if (!extras || !extras->listeners)
        return;
    // The snapshot keeps each entry (and its callback) alive while it runs, even if the
    // callback removes it or destroys this attribute; `removed` tells the rest to skip.
    const ListenerSnapshot snapshot = extras->listeners;
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
    auto* made = new Listener;
    BlockRef listener(made);
    made->id = issueListenerId();
    made->callback = std::move(callback);
    made->holder = holder;
    made->roles = roleMask;
    const long id = made->id;
    ListenerSnapshot& listeners = listenerList();
    if (!listeners) {
        listeners = ListenerSnapshot(std::move(listener));
        return id;
    }
    // Ids only grow, so the new one goes last.
    auto* table = new ListenerTable;
    BlockRef tableRef(table);
    table->entries.reserve(listeners.size() + 1);
    for (std::size_t i = 0; i < listeners.size(); ++i)
        table->entries.push_back(listeners.share(i));
    table->entries.push_back(std::move(listener));
    listeners = ListenerSnapshot(std::move(tableRef));
    return id;
}

template <typename Keep> void Attribute::replaceListeners(Keep keep) {
    if (!extras)
        return;
    ListenerSnapshot& listeners = extras->listeners;
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
        listeners = ListenerSnapshot(std::move(tableRef));
    else if (only)
        listeners = ListenerSnapshot(std::move(only));
    else
        listeners = ListenerSnapshot();
    releaseEmptyExtras();
}

bool Attribute::removeListener(long id) {
    if (!extras)
        return false;
    const ListenerSnapshot& listeners = extras->listeners;
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
    if (!extras)
        return false;
    const ListenerSnapshot& listeners = extras->listeners;
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
