#include "Dovel/session/BundleController.h"

#include "Dovel/session/UpdateLoopExecutor.h"
#include "Dovel/sync/AttributeStorage.h"
#include "Dovel/sync/RemoteNode.h"

#include "Tessel/Node.h"

#include <algorithm>
#include <cstdint>
#include <exception>
#include <set>

namespace Dovel {

namespace {

using CorePtr = std::shared_ptr<BundleController::Core>;

// The process-wide list of automatic cores. The mutex is recursive: a core released
// under it may unregister listeners whose removal reports back here.
struct CoreList {
    Basalt::Mutex mutex{true};
    std::vector<CorePtr> cores;
    // Whether the hook waits in the update loop, so that it is never queued twice.
    bool hookQueued = false;
};

CoreList& coreList() {
    // Never destroyed: controllers may die in static destructors of other units.
    static CoreList* list = new CoreList;
    return *list;
}

void updateCores(const std::vector<CorePtr>& cores) {
    std::set<RemoteNode*> nodes; // distinct nodes, ordered by address
    for (const CorePtr& core : cores) {
        if (core->isNodeGone() || (core->isClosed() && !core->isInitialized()))
            continue;
        core->ensureIsInitialized();
        core->runTasks();
        core->runTasks();
        if (core->isEnabled())
            nodes.insert(&core->node());
    }
    for (RemoteNode* node : nodes)
        node->update();
    for (RemoteNode* node : nodes)
        node->update();
    for (const CorePtr& core : cores)
        if (core->isEnabled())
            core->flush(true);
    for (RemoteNode* node : nodes)
        node->update();
    for (const CorePtr& core : cores)
        core->endPass();
}

// Applies what ended sessions received before their peers hung up.
void finishCores(const std::vector<CorePtr>& cores) {
    std::set<RemoteNode*> nodes;
    for (const CorePtr& core : cores) {
        if (core->isNodeGone())
            continue;
        core->finish();
        if (core->isInitialized())
            nodes.insert(&core->node());
    }
    for (RemoteNode* node : nodes)
        node->update();
}

void runHook();

// Queues the hook again while automatic cores remain.
void rearmHook() {
    CoreList& list = coreList();
    Basalt::Guard guard(list.mutex);
    if (list.cores.empty())
        list.hookQueued = false;
    else
        UpdateLoopExecutor::instance()->post(runHook);
}

void runHook() {
    CoreList& list = coreList();
    std::vector<CorePtr> copy;
    std::vector<CorePtr> closed;
    {
        Basalt::Guard guard(list.mutex);
        for (CorePtr& core : list.cores)
            (core->isClosed() ? closed : copy).push_back(std::move(core));
        list.cores = copy;
    }
    // What throws out of a session reaches the host's loop, but the hook stays armed:
    // every other automatic session of the process depends on it.
    try {
        finishCores(closed);
        closed.clear(); // destroyed without the list's lock
        updateCores(copy);
        copy.clear();
    } catch (...) {
        closed.clear();
        copy.clear();
        rearmHook();
        throw;
    }
    rearmHook();
}

} // namespace

std::shared_ptr<BundleController> BundleController::create(RemoteNode& node,
                                                           const BundleControllerParams& params) {
    return std::make_shared<BundleController>(node, params);
}

BundleController::BundleController(RemoteNode& node, const BundleControllerParams& params)
    : master(params.isMaster), autoUpdate(params.autoUpdate),
      backlog(std::make_shared<ReceiveBacklog>()) {
    CorePtr created(new Core(node, params), &Core::release);
    core = created;
    if (!autoUpdate) {
        ownedCore = created;
    } else {
        CoreList& list = coreList();
        Basalt::Guard guard(list.mutex);
        list.cores.push_back(created);
        if (!list.hookQueued) {
            list.hookQueued = true;
            UpdateLoopExecutor::instance()->post(runHook);
        }
    }
    std::weak_ptr<Core> weak = created;
    created->destroyedListenerId = int(node.eventAddListener(
        QByteArrayLiteral("destroyed"),
        [weak, nodeGone = created->nodeGone] {
            // The node drops its listeners itself; nothing may be unregistered from it
            // (also by a core that waits to be destroyed on its tree thread).
            nodeGone->store(true);
            CorePtr gone = weak.lock();
            if (!gone)
                return;
            CorePtr removed;
            {
                CoreList& list = coreList();
                Basalt::Guard guard(list.mutex);
                auto it = std::find(list.cores.begin(), list.cores.end(), gone);
                if (it != list.cores.end()) {
                    removed = std::move(*it);
                    list.cores.erase(it);
                }
            }
        },
        Tessel::Node::Direct));
}

BundleController::~BundleController() {
    {
        CoreList& list = coreList();
        Basalt::Guard guard(list.mutex);
        if (CorePtr alive = core.lock())
            alive->closed.store(true);
    }
    ownedCore.reset();
    core.reset();
}

void BundleController::addTask(Task task) {
    CorePtr target;
    {
        CoreList& list = coreList();
        Basalt::Guard guard(list.mutex);
        target = core.lock();
        if (!target || target->nodeGone->load())
            return;
        Basalt::Guard coreGuard(target->mutex);
        // Moved, not copied: what the task holds (a received batch's backlog charge)
        // must go with the one copy that runs.
        target->tasks.push_back(std::move(task));
    }
    target->wake();
}

void BundleController::scheduleProcess(const std::vector<Bundle>& bundles, bool batchStarts,
                                       bool batchEnds) {
    if (CorePtr alive = core.lock())
        if (alive->counters && batchStarts)
            alive->counters->batchesReceived += 1;
    int64_t bytes = 0;
    for (const Bundle& bundle : bundles)
        bytes += bundle.size();
    // The charge goes with the task: released once the piece is applied and its bytes
    // freed (the backlog stands for memory), or when the task is dropped with its core.
    const int64_t charged = ReceiveBacklog::chargeOf(int64_t(bundles.size()), bytes);
    addTask([piece = bundles, batchEnds, charge = backlog->charge(charged)](Core& c) mutable {
        c.process(piece);
        std::vector<Bundle>().swap(piece);
        if (batchEnds)
            c.batchApplied();
        charge.reset();
    });
}

void BundleController::setEnabled(bool enabled) {
    addTask([enabled](Core& c) { c.setEnabled(enabled); });
}

void BundleController::debugDump() {
    addTask([](Core& c) {
        c.ensureIsInitialized();
        if (c.storage())
            c.storage()->debugDump();
    });
}

void BundleController::update() {
    if (autoUpdate || !ownedCore || ownedCore->nodeGone->load())
        return;
    updateCores({ownedCore});
}

void BundleController::update(const std::vector<std::shared_ptr<BundleController>>& controllers) {
    std::vector<CorePtr> cores;
    for (const auto& controller : controllers)
        if (controller && !controller->autoUpdate && controller->ownedCore &&
            !controller->ownedCore->nodeGone->load())
            cores.push_back(controller->ownedCore);
    updateCores(cores);
}

void BundleController::finish(const std::vector<std::shared_ptr<BundleController>>& ended) {
    std::vector<CorePtr> cores;
    for (const auto& controller : ended)
        if (controller && !controller->autoUpdate && controller->ownedCore)
            cores.push_back(controller->ownedCore);
    finishCores(cores);
}

void BundleController::ensureIsInitialized() {
    if (CorePtr alive = core.lock())
        alive->ensureIsInitialized();
}

void BundleController::process(const std::vector<Bundle>& bundles) {
    if (CorePtr alive = core.lock())
        alive->process(bundles);
}

PeerSymbols* BundleController::symbolRegistryRecv() {
    CorePtr alive = core.lock();
    if (!alive)
        return nullptr;
    alive->ensureIsInitialized();
    return &alive->symbolRegistry;
}

Basalt::SymbolRegistry* BundleController::symbolRegistrySend() {
    CorePtr alive = core.lock();
    if (!alive)
        return nullptr;
    alive->ensureIsInitialized();
    return &alive->remoteNode.symbolRegistry();
}

int BundleController::automaticCoreCount() {
    CoreList& list = coreList();
    Basalt::Guard guard(list.mutex);
    return int(list.cores.size());
}

} // namespace Dovel
