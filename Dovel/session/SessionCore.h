// One synchronisation session's state between a local RemoteNode and one peer: the
// dispatcher, the peer's symbols, the attribute storage and the modules, with the queue
// of tasks that other threads hand it. BundleController is its public handle; a core
// lives behind a std::shared_ptr whose deleter is release().
//
// Threads: addTask, wake, setEnabled and the flags may be called from any thread;
// everything else runs on the tree thread. No lock is held while tasks run or while
// Connection::send is called. A core is always destroyed on its tree thread (the first
// thread that ran it): a last reference dropped elsewhere is posted to its executor
// (automatic cores: UpdateLoopExecutor; manual ones: BundleControllerParams::executor,
// when given). A closed core that never ran is dropped without running; one that ran
// applies what its peer sent before the end and sends nothing (finish).
#pragma once

#include "Dovel/bundle/Bundle.h"
#include "Dovel/bundle/BundleCounters.h"
#include "Dovel/bundle/BundleDispatcher.h"
#include "Dovel/bundle/PeerSymbols.h"
#include "Dovel/session/TreeExecutor.h"
#include "Dovel/sync/PeerFootprint.h"
#include "Dovel/sync/PeerWriteRules.h"
#include "Dovel/types/TypeRegistry.h"

#include "Basalt/BinaryData.h"
#include "Basalt/Mutex.h"

#include <QByteArray>

#include <atomic>
#include <functional>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

namespace Tessel {
class Node;
}

namespace Dovel {

class AttributeRemoveReceiver;
class AttributeStorage;
class AttributeUpdateReceiver;
class Connection;
class NewAttributeReceiver;
class NodeChangeSender;
class OneWayEventReceiver;
class PendingBundleSender;
class QueryReceiver;
class RemoteNode;
class SessionCore;

// Work for a core, run on its tree thread.
using SessionTask = std::function<void(SessionCore&)>;

struct BundleControllerParams {
    // Where output bundles go; may be empty.
    std::shared_ptr<Connection> connection;
    // Incoming one-way events; empty: RemoteNode::handleRemoteEvent of the node.
    std::function<void(const QByteArray&, Basalt::BinaryData&)> oneWayEventHandler;
    // This side wins conflicting values.
    bool isMaster = false;
    bool createMissingAttributes = false;
    // Sends the peer nothing but the handshake, and makes the node a copy of what the
    // peer announces in its first batch (SessionClient::Options::mirrorOnly).
    bool mirrorOnly = false;
    // A light client's session: the peer asks about paths and changes them through the
    // query module ("Dovel.Query", answered on the tree thread) instead of taking the
    // tree. Nothing is announced to it and nothing watched for it; besides the query
    // module only the symbol module is offered (every peer's first request names it).
    // `createMissingAttributes` and `writeRules` hold for its writes.
    bool querySession = false;
    // Whether such a peer may remove attributes and nodes (QueryReceiver::Options).
    bool queryMayRemove = false;
    // The initial value of the core's enabled flag.
    bool enabled = true;
    // True: driven by the host's update loop (UpdateLoopExecutor); false: the owner calls
    // update().
    bool autoUpdate = true;
    // Manual mode: the tree thread that calls update(), as other threads reach it. It is
    // woken when work waits for it (a queued task, or a local change or event that the
    // next output pass will send), and a core whose last reference goes elsewhere is
    // posted to it to be destroyed there. Null: nothing is woken and such a core is
    // destroyed where it goes. Automatic controllers always use UpdateLoopExecutor.
    std::shared_ptr<TreeExecutor> executor;
    // Added to by the session when set.
    std::shared_ptr<BundleCounters> counters;
    // What the peer may change; everything by default.
    PeerWriteRules writeRules;
    // The peer's address ("HOST:PORT"), named in the lines logged about its bundles.
    QByteArray peerName;
};

class SessionCore {
public:
    SessionCore(RemoteNode& node, const BundleControllerParams& params);
    ~SessionCore();
    // The shared_ptr deleter of cores: destroys `core` on its tree thread.
    static void release(SessionCore* core);
    SessionCore(const SessionCore&) = delete;
    SessionCore& operator=(const SessionCore&) = delete;

    // Runs once; creates the modules in the session's order and announces the tree.
    // Not for a closed core: one that never ran is dropped as it is.
    void ensureIsInitialized();
    bool isInitialized() const { return !params; }
    void runTasks();
    // One output pass. With `mayHoldBack`, a connection whose peer reads slower than
    // the session writes makes the pass fold the period's changes instead (see
    // NodeChangeSender::holdChanges) until the peer has caught up and wakes the tree
    // thread. The pass before an incoming batch is applied never holds back: local
    // changes must leave before the peer's, for the stale-value rules.
    void flush(bool mayHoldBack = false);
    // Applies received bundles, each piece of a batch after a flush: a local change made
    // between two pieces (by a listener, or on the tree thread between passes) is newer
    // than the rest of the batch and leaves before it is applied, for the stale-value
    // rules.
    void process(const std::vector<Bundle>& bundles);
    // The last piece of a received batch has been applied: counted, and for a mirror,
    // after its first batch, what the peer did not announce in it is removed.
    void batchApplied();
    // The session has ended: runs the queued tasks (received batches are applied) and
    // never sends again. A core that never ran drops its tasks instead.
    void finish();
    // Appends a task and wakes the tree thread (any thread). Code outside the core uses
    // BundleController::addTask, which also drops work for a core that is gone.
    void addTask(SessionTask task);
    void wake() const;
    // Marks the end of a pass: what changes from now on wakes the tree thread again.
    void endPass() { changeWakePending.store(false); }

    RemoteNode& node() { return remoteNode; }
    BundleDispatcher& bundleDispatcher() { return dispatcher; }
    PeerSymbols& peerSymbols() { return symbolRegistry; }
    AttributeStorage* storage() { return attributeStorage.get(); }
    NodeChangeSender* sender() { return nodeChangeSender.get(); }
    bool isEnabled() const { return enabled.load(); }
    void setEnabled(bool on) { enabled.store(on); }
    bool isClosed() const { return closed.load(); }
    // The node sent "destroyed": the core does nothing more.
    bool isNodeGone() const { return nodeGone->load(); }

private:
    friend class BundleController;

    std::unique_ptr<BundleControllerParams> params;
    RemoteNode& remoteNode;
    BundleDispatcher dispatcher;
    PeerSymbols symbolRegistry;
    TypeRegistry typeRegistry;
    std::shared_ptr<AttributeStorage> attributeStorage;
    std::shared_ptr<NodeChangeSender> nodeChangeSender;
    std::shared_ptr<NewAttributeReceiver> newAttributeReceiver;
    std::shared_ptr<AttributeUpdateReceiver> attributeUpdateReceiver;
    std::shared_ptr<AttributeRemoveReceiver> attributeRemoveReceiver;
    std::shared_ptr<OneWayEventReceiver> oneWayEventReceiver;
    // A query session's two modules, instead of the five above.
    std::shared_ptr<PendingBundleSender> queryReplies;
    std::shared_ptr<QueryReceiver> queryReceiver;
    std::shared_ptr<Connection> connection;
    std::atomic<bool> enabled{true};
    Basalt::Mutex mutex{false};
    std::vector<SessionTask> tasks;
    std::atomic<bool> closed{false};
    // Set by finish(): output passes send nothing from then on.
    bool ended = false;
    int destroyedListenerId = -1;

    // Kept apart from params, which initialisation releases.
    std::shared_ptr<TreeExecutor> executor;
    // The executor's wake as handed to a connection that holds output back, which may
    // call it after this core is gone; cleared by the destructor.
    struct DrainedWake {
        std::mutex mutex;
        std::shared_ptr<TreeExecutor> executor; // guarded by mutex
        void operator()();
    };
    std::shared_ptr<DrainedWake> drainedWake;
    std::shared_ptr<BundleCounters> counters;
    // Kept apart from params too: the receivers point to it.
    PeerWriteRules writeRules;
    PeerFootprint footprint;
    QByteArray peerName;
    // A mirror (BundleControllerParams::mirrorOnly), and whether its copy has been made
    // the peer's (tree thread).
    bool mirrorOnly = false;
    bool mirrored = false;
    void removeUnannounced(Tessel::Node& under);
    void initializeQuerySession();
    // Listeners on the node that wake the tree thread for local changes.
    long changeWakeId = -1;
    long eventWakeId = -1;
    // Set by the first local change after a pass ended and cleared when the next one
    // ends: the changes in between need one wake-up, not one each.
    std::atomic<bool> changeWakePending{false};
    // Set when the node sends "destroyed": nothing may be unregistered from it then.
    // Shared with the node's listener, which may fire while the core waits to be
    // destroyed on its tree thread.
    std::shared_ptr<std::atomic<bool>> nodeGone = std::make_shared<std::atomic<bool>>(false);
    // The thread that ran the core first, reached through `executor` when the last
    // reference goes elsewhere.
    std::atomic<std::thread::id> treeThread{};
    void noteTreeThread();
};

} // namespace Dovel
