// The public handle of one synchronisation session between a local RemoteNode and one
// peer. Behind it a Core owns the session's dispatcher, registries, attribute storage
// and modules. Bundles arrive on a connection thread and are only queued there
// (scheduleProcess); the tasks, the node updates and the output passes run on the
// tree's thread: when the owner calls update() (manual mode), or from a process-wide
// hook that runs after each pass of the host's update loop (automatic mode).
//
// Threads: scheduleProcess, setEnabled, debugDump and addTask may be called from any
// thread; everything else of a core runs on the tree thread. Lock order: the
// process-wide core list before a core's mutex; no lock is held while tasks run or
// while Connection::send is called. A core is always destroyed on its tree thread (the
// first thread that ran it): a last reference dropped elsewhere hands the destruction
// to the tree thread (automatic cores: the host's update loop; manual ones:
// BundleControllerParams::runOnTreeThread, when given). A closed core that never ran is
// dropped without running; one that ran applies what its peer sent before the end and
// sends nothing (finish).
//
// Beyond the session's own needs this header makes public what the application-level
// classes of Dovel/session use: addTask and isMaster, a static update over several
// manual controllers (one tree thread serving many peers), the optional wake-up
// callback and the counters of BundleControllerParams.
#pragma once

#include "Dovel/bundle/Bundle.h"
#include "Dovel/bundle/BundleCounters.h"
#include "Dovel/bundle/BundleDispatcher.h"
#include "Dovel/bundle/PeerSymbols.h"
#include "Dovel/bundle/ReceiveBacklog.h"
#include "Dovel/sync/PeerFootprint.h"
#include "Dovel/sync/PeerWriteRules.h"
#include "Dovel/types/TypeRegistry.h"

#include "Basalt/BinaryData.h"
#include "Basalt/Mutex.h"
#include "Basalt/SymbolRegistry.h"

#include <QByteArray>

#include <atomic>
#include <functional>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

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
    // True: driven by the host's update loop; false: the owner calls update().
    bool autoUpdate = true;
    // Called, on any thread, when work waits for the tree thread: a queued task, or a
    // local change or event that the next output pass will send. Empty: automatic
    // controllers wake Tessel::UpdateLoop, manual ones call nothing.
    std::function<void()> wakeUp;
    // Added to by the session when set.
    std::shared_ptr<BundleCounters> counters;
    // Runs a function on the tree thread of a manual controller (any thread may call
    // it): where a core whose last reference goes elsewhere is destroyed. Empty: such a
    // core is destroyed where it goes. Automatic controllers use the host's update loop.
    std::function<void(std::function<void()>)> runOnTreeThread;
    // What the peer may change; everything by default.
    PeerWriteRules writeRules;
    // The peer's address ("HOST:PORT"), named in the lines logged about its bundles.
    QByteArray peerName;
};

class BundleController {
public:
    class Core;
    using Task = std::function<void(Core&)>;

    static std::shared_ptr<BundleController> create(RemoteNode& node,
                                                    const BundleControllerParams& params);
    BundleController(RemoteNode& node, const BundleControllerParams& params);
    BundleController(const BundleController& other);
    BundleController& operator=(const BundleController&) = delete;
    ~BundleController();

    // Queues incoming bundles (any thread); dropped when the core is gone. Their bytes
    // count in receiveBacklog() until they have been applied or dropped. A batch handed
    // over in pieces counts once as received, with its first piece (`batchStarts`), and
    // once as applied, after its last piece (`batchEnds`).
    void scheduleProcess(const std::vector<Bundle>& bundles, bool batchStarts = true,
                         bool batchEnds = true);
    // The received bytes that wait for the tree thread (shared by copies of the handle).
    const ReceiveBacklog& receiveBacklog() const { return *backlog; }
    // Queues a task that sets the core's enabled flag.
    void setEnabled(bool enabled);
    // Manual mode: runs the session's tasks, node updates and output on the calling
    // thread. Does nothing on an automatic controller.
    void update();
    // Manual mode: one update over several controllers, so that a node shared by them
    // is updated three times in all rather than three times per controller. Automatic
    // controllers in the list are skipped.
    static void update(const std::vector<std::shared_ptr<BundleController>>& controllers);
    // Manual mode, for controllers whose sessions have ended and that are about to be
    // dropped: applies what their peers sent before hanging up (their queued tasks),
    // sends nothing, and updates their nodes. A peer may send its last changes and
    // close the connection at once; those changes are not lost.
    static void finish(const std::vector<std::shared_ptr<BundleController>>& ended);
    // Queues a task that initialises the core and logs its attribute storage.
    void debugDump();

    // Queues `task` to run with the core on the tree thread (any thread); dropped
    // silently when the core is gone.
    void addTask(const Task& task);
    bool isMaster() const { return master; }
    bool isAutoUpdate() const { return autoUpdate; }
    // The core while it lives; null once it is gone.
    std::shared_ptr<Core> lockCore() const { return core.lock(); }

    // Tree thread: initialise and dispatch directly (what the queued task does).
    void process(const std::vector<Bundle>& bundles);
    // Tree thread: the receive-side registry of the peer's symbols and the node's own
    // registry; null once the core is gone. The caller keeps the controller alive while
    // it uses them.
    PeerSymbols* symbolRegistryRecv();
    Basalt::SymbolRegistry* symbolRegistrySend();

    // The number of automatic cores in the process-wide list (for tests).
    static int automaticCoreCount();

private:
    void ensureIsInitialized();

    bool master;
    bool autoUpdate;
    std::weak_ptr<Core> core;
    std::shared_ptr<Core> ownedCore;
    std::shared_ptr<ReceiveBacklog> backlog;
};

class BundleController::Core {
public:
    Core(RemoteNode& node, const BundleControllerParams& params);
    ~Core();
    // The shared_ptr deleter of cores: destroys `core` on its tree thread.
    static void release(Core* core);
    Core(const Core&) = delete;
    Core& operator=(const Core&) = delete;

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
    void process(const std::vector<Bundle>& bundles);
    // The last piece of a received batch has been applied: counted, and for a mirror,
    // after its first batch, what the peer did not announce in it is removed.
    void batchApplied();
    // The session has ended: runs the queued tasks (received batches are applied) and
    // never sends again. A core that never ran drops its tasks instead.
    void finish();
    // Appends a task and wakes the tree thread (any thread). Code outside the core uses
    // BundleController::addTask, which also drops work for a core that is gone.
    void addTask(const Task& task);
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
    std::vector<Task> tasks;
    std::atomic<bool> closed{false};
    // Set by finish(): output passes send nothing from then on.
    bool ended = false;
    int destroyedListenerId = -1;

    // Kept apart from params, which initialisation releases.
    std::function<void()> wakeUp;
    // wakeUp as handed to a connection that holds output back; cleared by the destructor.
    struct DrainedWake {
        std::mutex mutex;
        std::function<void()> wake; // guarded by mutex
        void operator()();
    };
    std::shared_ptr<DrainedWake> drainedWake;
    std::shared_ptr<BundleCounters> counters;
    // Kept apart from params too: the receivers point to it.
    PeerWriteRules writeRules;
    PeerFootprint footprint;
    QByteArray peerName;
    bool autoUpdate = true;
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
    // The thread that ran the core first, and how to reach it when the last reference
    // goes elsewhere.
    std::atomic<std::thread::id> treeThread{};
    std::function<void(std::function<void()>)> runOnTreeThread;
    void noteTreeThread();
};

} // namespace Dovel
