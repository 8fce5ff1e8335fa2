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
    const auto found = std::find_if(all->begin(), all->end(),
                                    [id](const auto& listener) { return listener->id == id; });
    if (found == all->end())
        return false;
    std::shared_ptr<Listener> listener = *found;
    if (all->size() == 1) {
        all = nullptr;
    } else {
        auto rest = std::make_shared<Batch>();
        rest->reserve(all->size() - 1);
        for (const auto& other : *all)
            if (other != listener)
                rest->push_back(other);
        all = std::move(rest);
    }
    listener->removed = true;
    waitUntilIdle(guard, {listener});
    return true;
}

void NodeEventTable::clear() {
    std::unique_lock<std::mutex> guard(mutex);
    if (!all)
        return;
    const std::shared_ptr<const Batch> gone = std::move(all);
    all = nullptr;
    for (const auto& listener : *gone)
        listener->removed = true;
    waitUntilIdle(guard, *gone);
}

void NodeEventTable::waitUntilIdle(std::unique_lock<std::mutex>& held,
                                   const std::vector<std::shared_ptr<Listener>>& gone) {
    const std::thread::id self = std::this_thread::get_id();
    for (const auto& listener : gone)
        idle.wait(held, [&] { return !othersRunning(*listener, self); });
}

int NodeEventTable::count() const {
    std::lock_guard<std::mutex> guard(mutex);
    return all ? int(all->size()) : 0;
}

void NodeEventTable::dispatch(const QByteArray& name, Basalt::BinaryData* data) {
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
        listener.runningOn.push_back(self);
    }
    struct Finish {
        NodeEventTable& table;
        Listener& listener;
        std::thread::id self;
        ~Finish() {
            std::lock_guard<std::mutex> guard(table.mutex);
            auto& running = listener.runningOn;
            running.erase(std::find(running.begin(), running.end(), self));
            if (listener.removed)
                table.idle.notify_all();
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
