// The public handle of one synchronisation session between a local RemoteNode and one
// peer; the session itself is a SessionCore. Bundles arrive on a connection thread and
// are only queued there (scheduleProcess); the tasks, the node updates and the output
// passes run on the tree's thread: when the owner calls update() (manual mode), or from
// a process-wide hook that the host's update loop runs after each of its passes
// (automatic mode). One handle per session: it closes the session when it goes.
//
// Threads: scheduleProcess, setEnabled, debugDump and addTask may be called from any
// thread; everything else of a core runs on the tree thread. Lock order: the
// process-wide list of automatic cores before a core's mutex.
//
// Beyond the session's own needs this header makes public what the application-level
// classes of Dovel/session use: addTask and isMaster, a static update over several
// manual controllers (one tree thread serving many peers), the executor and the
// counters of BundleControllerParams.
#pragma once

#include "Dovel/bundle/Bundle.h"
#include "Dovel/bundle/PeerSymbols.h"
#include "Dovel/bundle/ReceiveBacklog.h"
#include "Dovel/session/SessionCore.h"

#include "Basalt/SymbolRegistry.h"

#include <memory>
#include <vector>

namespace Dovel {

class RemoteNode;

class BundleController {
public:
    using Core = SessionCore;
    using Task = SessionTask;

    static std::shared_ptr<BundleController> create(RemoteNode& node,
                                                    const BundleControllerParams& params);
    BundleController(RemoteNode& node, const BundleControllerParams& params);
    BundleController(const BundleController&) = delete;
    BundleController& operator=(const BundleController&) = delete;
    ~BundleController();

    // Queues incoming bundles (any thread); dropped when the core is gone. Their bytes
    // count in receiveBacklog() until they have been applied or dropped. A batch handed
    // over in pieces counts once as received, with its first piece (`batchStarts`), and
    // once as applied, after its last piece (`batchEnds`).
    void scheduleProcess(const std::vector<Bundle>& bundles, bool batchStarts = true,
                         bool batchEnds = true);
    // The received bytes that wait for the tree thread.
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
    void addTask(Task task);
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

} // namespace Dovel
