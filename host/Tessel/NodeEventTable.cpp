#include "Tessel/NodeEventTable.h"

#include "Tessel/ListenerId.h"
#include "Tessel/Node.h"
#include "Tessel/Snapshot.h"

#include <algorithm>

namespace Tessel {

namespace {

bool othersRunning(const NodeEventTable::Listener& listener, std::thread::id self) {
    return std::any_of(listener.runningOn.begin(), listener.runningOn.end(),
                       [&](std::thread::id id) { return id != self; });
}

} // namespace

NodeEventTable::NodeEventTable() = default;

NodeEventTable::~NodeEventTable() = default;

void NodeEventTable::declareIn(const QByteArray& name) {
    Basalt::Guard guard(mutex);
    if (!ins.contains(name))
        ins.append(name);
}

void NodeEventTable::declareOut(const QByteArray& name) {
    Basalt::Guard guard(mutex);
    if (!outs.contains(name))
        outs.append(name);
}

QList<QByteArray> NodeEventTable::declaredIn() const {
    Basalt::Guard guard(mutex);
    return ins;
}

QList<QByteArray> NodeEventTable::declaredOut() const {
    Basalt::Guard guard(mutex);
    return outs;
}

long NodeEventTable::add(std::unique_ptr<Listener> listener) {
    std::shared_ptr<Listener> shared(std::move(listener));
    Basalt::Guard guard(mutex);
    // The id is taken under the lock so that per-name vectors stay in id order.
    const long id = issueListenerId();
    std::shared_ptr<const Batch>& named = byName[shared->name];
    named = appended(named, shared);
    byId.emplace(id, std::move(shared));
    return id;
}

bool NodeEventTable::remove(long id) {
    Basalt::Guard guard(mutex);
    auto it = byId.find(id);
    if (it == byId.end())
        return false;
    std::shared_ptr<Listener> listener = it->second;
    byId.erase(it);
    auto named = byName.find(listener->name);
    if (named != byName.end()) {
        auto rest = std::make_shared<Batch>();
        for (const auto& other : *named.value())
            if (other != listener)
                rest->push_back(other);
        if (rest->empty())
            byName.erase(named);
        else
            named.value() = std::move(rest);
    }
    listener->removed = true;
    waitUntilIdle({listener});
    return true;
}

void NodeEventTable::clear() {
    Basalt::Guard guard(mutex);
    std::vector<std::shared_ptr<Listener>> gone;
    for (auto& entry : byId) {
        entry.second->removed = true;
        gone.push_back(entry.second);
    }
    byId.clear();
    byName.clear();
    waitUntilIdle(gone);
}

void NodeEventTable::waitUntilIdle(const std::vector<std::shared_ptr<Listener>>& gone) {
    const std::thread::id self = std::this_thread::get_id();
    for (const auto& listener : gone)
        while (othersRunning(*listener, self))
            idle.wait(mutex, 1000);
}

int NodeEventTable::count() const {
    Basalt::Guard guard(mutex);
    return int(byId.size());
}

void NodeEventTable::dispatch(const QByteArray& name, Basalt::BinaryData* data) {
    std::shared_ptr<const Batch> batch;
    {
        Basalt::Guard guard(mutex);
        auto it = byName.constFind(name);
        if (it == byName.constEnd())
            return;
        batch = it.value();
    }
    std::shared_ptr<Basalt::BinaryData> copy; // made once for all queued listeners
    for (const auto& listener : *batch) {
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
        Basalt::Guard guard(mutex);
        if (listener.removed)
            return;
        listener.runningOn.push_back(self);
    }
    struct Finish {
        NodeEventTable& table;
        Listener& listener;
        std::thread::id self;
        ~Finish() {
            Basalt::Guard guard(table.mutex);
            auto& running = listener.runningOn;
            running.erase(std::find(running.begin(), running.end(), self));
            if (listener.removed)
                table.idle.wakeAll(table.mutex);
        }
    } finish{*this, listener, self};

    if (listener.plain) {
        listener.plain();
    } else if (listener.withData) {
        if (data) {
            data->rewind();
            listener.withData(*data);
        } else {
            Basalt::BinaryData empty;
            listener.withData(empty);
        }
    } else if (listener.receiver) {
        if (data) {
            data->rewind();
            listener.receiver->eventProcess(listener.target, *data);
        } else {
            Basalt::BinaryData payload;
            if (listener.defaultPayload)
                payload = *listener.defaultPayload;
            payload.rewind();
            listener.receiver->eventProcess(listener.target, payload);
        }
    }
}

} // namespace Tessel
