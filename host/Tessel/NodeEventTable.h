// The event side of one Node: declared event names and the listeners by name.
// Thread-safe: every member is guarded by `mutex`, and callbacks run without it held.
// Held by shared_ptr so that queued deliveries, and a dispatch whose listener deletes
// the node, outlive the node; clear() (called when the node dies) turns them into no-ops.
#pragma once

#include "Basalt/BinaryData.h"

#include <QByteArray>
#include <QList>

#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <thread>
#include <variant>
#include <vector>

namespace Tessel {

class ListenerHolder;
class Node;

class NodeEventTable : public std::enable_shared_from_this<NodeEventTable> {
public:
    // Forwarding: receiver->eventProcess(target, payload or a copy of defaultPayload).
    struct Forward {
        Node* receiver = nullptr;
        QByteArray target;
        std::unique_ptr<Basalt::BinaryData> defaultPayload;
    };
    using Callback =
        std::variant<std::function<void()>, std::function<void(Basalt::BinaryData&)>, Forward>;

    // One registration. A node holds two or so, and a watched tree a node per handful of
    // attributes: it is kept small.
    struct Listener {
        long id = 0; // set by add()
        QByteArray name;
        Callback callback;
        // The holder that registered it (ListenerHolder::addBd), told when the node dies.
        // Guarded by the table's mutex.
        ListenerHolder* holder = nullptr;
        bool queued = false;
        // Guarded by the table's mutex.
        bool removed = false;
        // The threads of the calls in progress, one entry per call: the first here, more
        // (a call while another runs) beside it.
        std::thread::id runningOn;
        std::unique_ptr<std::vector<std::thread::id>> alsoRunningOn;
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
    // Unregisters and waits until no other thread runs the callback. False if unknown.
    // A holder's listener stays listed, never to run again, until the holder removes its
    // listeners or the node dies: the holder still holds the node.
    bool remove(long id);
    // Unregisters, with the same wait, every listener of `holder`. False when none was.
    bool removeListenersOf(const ListenerHolder* holder);
    bool hasListenersOf(const ListenerHolder* holder) const;
    // The holders of the listeners, each once; the listeners forget them (the node is
    // dying and has told them).
    std::vector<ListenerHolder*> releaseHolders();
    // Unregisters everything, with the same wait.
    void clear();
    int count() const;
    // Delivers to the listeners of `name`; data may be null (an event without payload).
    void dispatch(const QByteArray& name, Basalt::BinaryData* data);

private:
    void run(Listener& listener, Basalt::BinaryData* data);
    // Unregisters every listener `match` accepts, and waits as remove() does. Returns with
    // `held` unlocked when something was removed.
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

public:
    // A table its node holds through the table itself: a node keeps one pointer where a
    // shared_ptr beside it took two more words, in every node of a tree.
    static NodeEventTable* makeForNode();
    // The node lets go of its table (after clear()): it lives on while a delivery or a
    // dispatch still holds it.
    void releaseNode();

private:
    std::shared_ptr<NodeEventTable> nodeReference;
};

} // namespace Tessel
