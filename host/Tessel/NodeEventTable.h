// The event side of one Node: declared event names and the listeners by name.
// Thread-safe: every member is guarded by `mutex`, and callbacks run without it held.
// Held by shared_ptr so that queued deliveries outlive the node; clear() (called when
// the node dies) turns them into no-ops.
#pragma once

#include "Basalt/BinaryData.h"

#include <QByteArray>
#include <QList>

#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

namespace Tessel {

class ListenerHolder;
class Node;

class NodeEventTable : public std::enable_shared_from_this<NodeEventTable> {
public:
    // One registration. Exactly one of plain, withData or receiver is set.
    struct Listener {
        long id = 0; // set by add()
        QByteArray name;
        bool queued = false;
        std::function<void()> plain;
        std::function<void(Basalt::BinaryData&)> withData;
        Node* receiver = nullptr; // forwarding: receiver->eventProcess(target, ...)
        QByteArray target;
        std::unique_ptr<Basalt::BinaryData> defaultPayload;
        // The holder that registered it (ListenerHolder::addBd), told when the node dies.
        ListenerHolder* holder = nullptr;
        // Guarded by the table's mutex.
        bool removed = false;
        std::vector<std::thread::id> runningOn; // one entry per call in progress
    };

    NodeEventTable();
    ~NodeEventTable();
    NodeEventTable(const NodeEventTable&) = delete;
    NodeEventTable& operator=(const NodeEventTable&) = delete;

    void declareIn(const QByteArray& name);
    void declareOut(const QByteArray& name);
    QList<QByteArray> declaredIn() const;
    QList<QByteArray> declaredOut() const;

    long add(std::shared_ptr<Listener> listener);
    // Unregisters and waits until no other thread runs the callback. False if unknown;
    // else `holder`, when given, receives the listener's holder.
    bool remove(long id, ListenerHolder** holder = nullptr);
    // Unregisters, with the same wait, every listener of `holder`. False when none was.
    bool removeListenersOf(const ListenerHolder* holder);
    bool hasListenersOf(const ListenerHolder* holder) const;
    // The holders of the listeners, each once.
    std::vector<ListenerHolder*> holders() const;
    // Unregisters everything, with the same wait.
    void clear();
    int count() const;
    // Delivers to the listeners of `name`; data may be null (an event without payload).
    void dispatch(const QByteArray& name, Basalt::BinaryData* data);

private:
    void run(Listener& listener, Basalt::BinaryData* data);
    // Unregisters every listener `match` accepts, and waits as remove() does.
    template <typename Match> bool removeWhere(std::unique_lock<std::mutex>& held, Match match);
    void waitUntilIdle(std::unique_lock<std::mutex>& held,
                       const std::vector<std::shared_ptr<Listener>>& gone);

    // Held inline, not behind the host's pointer-to-implementation wrappers: every node
    // has a table, and those would cost three heap blocks per node.
    mutable std::mutex mutex;
    std::condition_variable idle;
    QList<QByteArray> ins;
    QList<QByteArray> outs;
    // Every listener in ascending id order (ids only grow, so appending keeps the order):
    // an immutable snapshot replaced on add and remove, so that a dispatch only copies a
    // pointer under the lock. A node has a handful of listeners, so one list scanned by
    // name costs less than an index per name, in time and in memory.
    using Batch = std::vector<std::shared_ptr<Listener>>;
    std::shared_ptr<const Batch> all;
};

} // namespace Tessel
