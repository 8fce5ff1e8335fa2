#include "Tessel/NodeEventTable.h"

#include "Tessel/ListenerId.h"
#include "Tessel/Node.h"
#include "Tessel/Snapshot.h"

#include <algorithm>

namespace Tessel {

namespace {

bool othersRunning(const NodeEventTable::Listener& listener, std::thread::id self) {
    if (listener.runningOn != std::thread::id() && listener.runningOn != self)
        return true;
    const auto* more = listener.alsoRunningOn.get();
    return more &&
           std::any_of(more->begin(), more->end(), [&](std::thread::id id) { return id != self; });
}

// Called with the table's mutex held.
void startRunning(NodeEventTable::Listener& listener, std::thread::id self) {
    if (listener.runningOn == std::thread::id()) {
        listener.runningOn = self;
        return;
    }
    if (!listener.alsoRunningOn)
        listener.alsoRunningOn = std::make_unique<std::vector<std::thread::id>>();
    listener.alsoRunningOn->push_back(self);
}

// Called with the table's mutex held.
void stopRunning(NodeEventTable::Listener& listener, std::thread::id self) {
    if (listener.runningOn == self) {
        listener.runningOn = std::thread::id();
        return;
    }
    auto& more = *listener.alsoRunningOn;
    more.erase(std::find(more.begin(), more.end(), self));
}

// Runs the callback of one registration.
struct Invoke {
    Basalt::BinaryData* data;

    void operator()(const std::function<void()>& plain) const { plain(); }
    void operator()(const std::function<void(Basalt::BinaryData&)>& withData) const {
        if (data) {
            data->rewind();
            withData(*data);
        } else {
            Basalt::BinaryData empty;
            withData(empty);
        }
    }
    void operator()(const NodeEventTable::Forward& forward) const {
        if (!forward.receiver)
            return;
        if (data) {
            data->rewind();
            forward.receiver->eventProcess(forward.target, *data);
        } else {
            Basalt::BinaryData payload;
            if (forward.defaultPayload)
                payload = *forward.defaultPayload;
            payload.rewind();
            forward.receiver->eventProcess(forward.target, payload);
        }
    }
};

} // namespace

NodeEventTable::NodeEventTable() = default;

NodeEventTable::~NodeEventTable() = default;

void NodeEventTable::declareIn(const QByteArray& name) {
    std::lock_guard<std::mutex> guard(mutex);
    if (!ins.contains(name))
        ins.append(name);
}

void NodeEventTable::declareOut(const QByteArray& name) {
    std::lock_guard<std::mutex> guard(mutex);
    if (!outs.contains(name))
        outs.append(name);
}

QList<QByteArray> NodeEventTable::declaredIn() const {
    std::lock_guard<std::mutex> guard(mutex);
    return ins;
}

QList<QByteArray> NodeEventTable::declaredOut() const {
    std::lock_guard<std::mutex> guard(mutex);
    return outs;
}

long NodeEventTable::add(std::shared_ptr<Listener> listener) {
    std::lock_guard<std::mutex> guard(mutex);
    // The id is taken under the lock so that the list stays in id order.
    listener->id = issueListenerId();
    const long id = listener->id;
    all = appended(all, std::move(listener));
    return id;
}

bool NodeEventTable::remove(long id) {
    std::unique_lock<std::mutex> guard(mutex);
    if (!all)
        return false;
    const auto found = std::find_if(all->begin(), all->end(), [id](const auto& listener) {
        return listener->id == id && !listener->removed;
    });
    if (found == all->end())
        return false;
    const std::shared_ptr<Listener> listener = *found;
    if (listener->holder) {
        // Stays listed, inert, for its holder: the node still tells the holder of its end,
        // and the holder (which may live on another thread) is not touched from here.
        listener->removed = true;
        waitUntilIdle(guard, {listener});
        return true;
    }
    return removeWhere(guard, [&](const Listener& other) { return &other == listener.get(); });
}

bool NodeEventTable::removeListenersOf(const ListenerHolder* holder) {
    std::unique_lock<std::mutex> guard(mutex);
    return removeWhere(guard,
                       [holder](const Listener& listener) { return listener.holder == holder; });
}

template <typename Match>
bool NodeEventTable::removeWhere(std::unique_lock<std::mutex>& held, Match match) {
    if (!all)
        return false;
    std::vector<std::shared_ptr<Listener>> gone;
    for (const auto& listener : *all)
        if (match(*listener))
            gone.push_back(listener);
    if (gone.empty())
        return false;
    if (gone.size() == all->size()) {
        all = nullptr;
    } else {
        auto rest = std::make_shared<Batch>();
        rest->reserve(all->size() - gone.size());
        for (const auto& listener : *all)
            if (std::find(gone.begin(), gone.end(), listener) == gone.end())
                rest->push_back(listener);
        all = std::move(rest);
    }
    for (const auto& listener : gone)
        listener->removed = true;
    waitUntilIdle(held, gone);
    // The removed listeners (the last references, but for a dispatch under way) die as
    // `gone` goes, after the lock is let go: a callback's captures may call back into
    // this node's events as they are destroyed.
    held.unlock();
    return true;
}

bool NodeEventTable::hasListenersOf(const ListenerHolder* holder) const {
    std::lock_guard<std::mutex> guard(mutex);
    return all && std::any_of(all->begin(), all->end(), [holder](const auto& listener) {
               return listener->holder == holder;
           });
}

std::vector<ListenerHolder*> NodeEventTable::releaseHolders() {
    std::vector<ListenerHolder*> out;
    std::lock_guard<std::mutex> guard(mutex);
    if (all)
        for (const auto& listener : *all) {
            if (listener->holder &&
                std::find(out.begin(), out.end(), listener->holder) == out.end())
                out.push_back(listener->holder);
            listener->holder = nullptr;
        }
    return out;
}

void NodeEventTable::clear() {
    std::unique_lock<std::mutex> guard(mutex);
    removeWhere(guard, [](const Listener&) { return true; });
}

void NodeEventTable::waitUntilIdle(std::unique_lock<std::mutex>& held,
                                   const std::vector<std::shared_ptr<Listener>>& gone) {
    const std::thread::id self = std::this_thread::get_id();
    for (const auto& listener : gone)
        idle.wait(held, [&] { return !othersRunning(*listener, self); });
}

int NodeEventTable::count() const {
    std::lock_guard<std::mutex> guard(mutex);
    return all ? int(std::count_if(all->begin(), all->end(),
                                   [](const auto& listener) { return !listener->removed; }))
               : 0;
}

void NodeEventTable::dispatch(const QByteArray& name, Basalt::BinaryData* data) {
    // A direct listener may delete the node, and with it the node's reference: the
    // rest of the dispatch still locks this table.
    const std::shared_ptr<NodeEventTable> keep = shared_from_this();
    std::shared_ptr<const Batch> batch;
    {
        std::lock_guard<std::mutex> guard(mutex);
        batch = all;
    }
    if (!batch)
        return;
    std::shared_ptr<Basalt::BinaryData> copy; // made once for all queued listeners
    for (const auto& listener : *batch) {
        if (listener->name != name)
            continue;
        if (!listener->queued) {
            run(*listener, data);
            continue;
        }
        if (data && !copy)
            copy = std::make_shared<Basalt::BinaryData>(*data);
        std::shared_ptr<NodeEventTable> self = shared_from_this();
        Node::invokeAfterUpdate([self, listener, copy] { self->run(*listener, copy.get()); });
    }
}

void NodeEventTable::run(Listener& listener, Basalt::BinaryData* data) {
    const std::thread::id self = std::this_thread::get_id();
    {
        std::lock_guard<std::mutex> guard(mutex);
        if (listener.removed)
            return;
        startRunning(listener, self);
    }
    struct Finish {
        NodeEventTable& table;
        Listener& listener;
        std::thread::id self;
        ~Finish() {
            std::lock_guard<std::mutex> guard(table.mutex);
            stopRunning(listener, self);
            if (listener.removed)
                table.idle.notify_all();
        }
    } finish{*this, listener, self};

    std::visit(Invoke{data}, listener.callback);
}

NodeEventTable* NodeEventTable::makeForNode() {
    auto table = std::make_shared<NodeEventTable>();
    table->nodeReference = table;
    return table.get();
}

void NodeEventTable::releaseNode() {
    // The last reference may be this one: the table then ends with `held`, after the
    // last use of its members here.
    std::shared_ptr<NodeEventTable> held;
    {
        std::lock_guard<std::mutex> locker(mutex);
        held = std::move(nodeReference);
    }
}

} // namespace Tessel
