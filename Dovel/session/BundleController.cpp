#include "Dovel/session/BundleController.h"

#include "Dovel/bundle/BundleReader.h"
#include "Dovel/bundle/ModuleNames.h"
#include "Dovel/bundle/PendingBundleSender.h"
#include "Dovel/bundle/SymbolRegistryReceiver.h"
#include "Dovel/session/Connection.h"
#include "Dovel/sync/AttributeCache.h"
#include "Dovel/sync/AttributeRemoveReceiver.h"
#include "Dovel/sync/AttributeStorage.h"
#include "Dovel/sync/AttributeUpdateReceiver.h"
#include "Dovel/sync/DovelSessionAttribute.h"
#include "Dovel/sync/NewAttributeReceiver.h"
#include "Dovel/sync/NodeChangeSender.h"
#include "Dovel/sync/OneWayEventReceiver.h"
#include "Dovel/sync/QueryReceiver.h"
#include "Dovel/sync/RemoteNode.h"
#include "Dovel/sync/SyncFlags.h"

#include "Basalt/Trace.h"
#include "Tessel/Node.h"
#include "Tessel/UpdateLoop.h"

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
        Tessel::Node::invokeAfterUpdate(runHook);
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

// ---- Core ----

BundleController::Core::Core(RemoteNode& node, const BundleControllerParams& p)
    : params(std::make_unique<BundleControllerParams>(p)), remoteNode(node), wakeUp(p.wakeUp),
      counters(p.counters), writeRules(p.writeRules), peerName(p.peerName),
      autoUpdate(p.autoUpdate), runOnTreeThread(p.runOnTreeThread) {
    if (autoUpdate)
        runOnTreeThread = [](std::function<void()> f) { Tessel::Node::invokeAfterUpdate(f); };
    if (!wakeUp && autoUpdate)
        wakeUp = [] { Tessel::UpdateLoop::wake(); };
    if (wakeUp) {
        // The writer may call it after this core is gone (the application's own wake-up
        // may not outlive the controller): the token turns it into nothing then.
        drainedWake = std::make_shared<DrainedWake>();
        drainedWake->wake = wakeUp;
    }
}

void BundleController::Core::DrainedWake::operator()() {
    std::lock_guard<std::mutex> lock(mutex);
    if (wake)
        wake();
}

BundleController::Core::~Core() {
    if (drainedWake) {
        std::lock_guard<std::mutex> lock(drainedWake->mutex);
        drainedWake->wake = nullptr;
    }
    if (!nodeGone->load()) {
        if (destroyedListenerId != -1)
            remoteNode.eventRemoveListener(destroyedListenerId);
        if (changeWakeId >= 0)
            remoteNode.removeAttributeChangeListener(changeWakeId);
        if (eventWakeId >= 0)
            remoteNode.removeEventLIstener(eventWakeId);
    }
    tasks.clear();
    // The modules go before the storage and registries they point into.
    queryReceiver.reset();
    oneWayEventReceiver.reset();
    attributeUpdateReceiver.reset();
    newAttributeReceiver.reset();
    attributeRemoveReceiver.reset();
    nodeChangeSender.reset();
    connection.reset();
}

void BundleController::Core::release(Core* core) {
    const std::thread::id tree = core->treeThread.load();
    if (tree == std::thread::id() || tree == std::this_thread::get_id() || !core->runOnTreeThread) {
        delete core;
        return;
    }
    // The core goes with the last copy of the function: on the tree thread once it has
    // run there, or wherever it is dropped unrun (a driver that stopped).
    struct Owner {
        explicit Owner(Core* core) : core(core) {}
        Owner(const Owner&) = delete;
        Owner& operator=(const Owner&) = delete;
        ~Owner() { delete core; }
        Core* const core;
    };
    auto owner = std::make_shared<Owner>(core);
    const auto runOnTree = core->runOnTreeThread;
    runOnTree([owner] {});
}

void BundleController::Core::noteTreeThread() {
    if (treeThread.load(std::memory_order_relaxed) == std::thread::id())
        treeThread.store(std::this_thread::get_id());
}

void BundleController::Core::wake() const {
    if (wakeUp)
        wakeUp();
}

void BundleController::Core::ensureIsInitialized() {
    if (!params || nodeGone->load() || closed.load())
        return;
    noteTreeThread();
    if (params->querySession) {
        initializeQuerySession();
        return;
    }
    attributeStorage = std::make_shared<AttributeStorage>(remoteNode);
    enabled.store(params->enabled);
    dispatcher.addModule(std::make_shared<SymbolRegistryReceiver>(
        symbolRegistry, Limits::MaxPeerSymbols, &remoteNode.symbolRegistry()));
    mirrorOnly = params->mirrorOnly;
    nodeChangeSender =
        std::make_shared<NodeChangeSender>(remoteNode, *attributeStorage, typeRegistry, mirrorOnly);
    dispatcher.addSender(nodeChangeSender);
    attributeRemoveReceiver =
        std::make_shared<AttributeRemoveReceiver>(remoteNode, *attributeStorage, *nodeChangeSender);
    newAttributeReceiver = std::make_shared<NewAttributeReceiver>(
        remoteNode, *attributeStorage, symbolRegistry, typeRegistry, *nodeChangeSender);
    attributeUpdateReceiver =
        std::make_shared<AttributeUpdateReceiver>(*attributeStorage, *nodeChangeSender);
    oneWayEventReceiver = std::make_shared<OneWayEventReceiver>(symbolRegistry);
    dispatcher.addModule(attributeRemoveReceiver);
    dispatcher.addModule(newAttributeReceiver);
    dispatcher.addModule(attributeUpdateReceiver);
    dispatcher.addModule(oneWayEventReceiver);
    connection = params->connection;
    newAttributeReceiver->setSkipStaleValues(params->isMaster);
    attributeUpdateReceiver->setSkipStaleUpdates(params->isMaster);
    if (params->oneWayEventHandler) {
        oneWayEventReceiver->setHandler(params->oneWayEventHandler);
    } else {
        oneWayEventReceiver->setHandler([this](const QByteArray& name, Basalt::BinaryData& data) {
            remoteNode.handleRemoteEvent(name, data, long(reinterpret_cast<intptr_t>(this)));
        });
    }
    newAttributeReceiver->setCreateMissingAttributes(params->createMissingAttributes);
    newAttributeReceiver->setReplaceMismatched(mirrorOnly);
    newAttributeReceiver->setFootprint(&footprint);
    attributeRemoveReceiver->setFootprint(&footprint);
    if (!writeRules.allowsEverything()) {
        newAttributeReceiver->setWriteRules(&writeRules);
        attributeUpdateReceiver->setWriteRules(&writeRules);
        attributeRemoveReceiver->setWriteRules(&writeRules);
        oneWayEventReceiver->setWriteRules(&writeRules);
    }
    params.reset();
    if (wakeUp) {
        // Local changes and events wait for the next output pass: wake the tree thread.
        changeWakeId = remoteNode.addAttributeChangeListener([this](const NodeWatcher::Event&) {
            if (!changeWakePending.load(std::memory_order_relaxed) &&
                !changeWakePending.exchange(true))
                wake();
        });
        eventWakeId = remoteNode.addEventListener([this](const RemoteNode::Event&) { wake(); });
    }
    remoteNode.update();
    nodeChangeSender->sendInitialValues();
}

// Symbols a light client may define: it names none, and its registry is read by nothing.
constexpr int MaxQueryPeerSymbols = 1024;

void BundleController::Core::initializeQuerySession() {
    enabled.store(params->enabled);
    // The client's own sender asks for the symbol module too; it is offered so that the
    // binding succeeds, and nothing here reads the symbols.
    dispatcher.addModule(
        std::make_shared<SymbolRegistryReceiver>(symbolRegistry, MaxQueryPeerSymbols));
    queryReplies = std::make_shared<PendingBundleSender>(ModuleNames::QueryReply);
    dispatcher.addSender(queryReplies);
    QueryReceiver::Options options;
    options.rules = writeRules.allowsEverything() ? nullptr : &writeRules;
    options.footprint = &footprint;
    options.createMissing = params->createMissingAttributes;
    options.mayRemove = params->queryMayRemove;
    queryReceiver =
        std::make_shared<QueryReceiver>(remoteNode, typeRegistry, *queryReplies, options);
    dispatcher.addModule(queryReceiver);
    connection = params->connection;
    params.reset();
}

void BundleController::Core::addTask(const Task& task) {
    {
        Basalt::Guard guard(mutex);
        tasks.push_back(task);
    }
    wake();
}

void BundleController::Core::runTasks() {
    noteTreeThread();
    std::vector<Task> batch;
    {
        Basalt::Guard guard(mutex);
        batch.swap(tasks);
    }
    // A task that throws (an application's own, through addTask) is logged; the rest
    // of the batch and the session go on.
    for (const Task& task : batch) {
        try {
            task(*this);
        } catch (const std::exception& e) {
            Basalt::Trace::error("BundleController::Core::runTasks # A task threw: %s", e.what());
        }
    }
}

void BundleController::Core::finish() {
    ended = true;
    if (!isInitialized() || queryReceiver) {
        // Nothing of the peer's was applied before: there is nothing to finish, and
        // announcing the tree only to drop it would cost a walk of the whole tree. A
        // light client that hung up waits for no answer: its questions are dropped.
        std::vector<Task> dropped;
        Basalt::Guard guard(mutex);
        dropped.swap(tasks);
        return;
    }
    runTasks();
    runTasks();
}

void BundleController::Core::flush(bool mayHoldBack) {
    if (nodeGone->load() || ended)
        return;
    // Only a core that can wake its tree thread may wait for the peer to catch up.
    if (mayHoldBack && drainedWake && connection && nodeChangeSender &&
        !nodeChangeSender->eventsPiledUp() &&
        connection->holdBack([token = drainedWake] { (*token)(); })) {
        nodeChangeSender->holdChanges();
        if (counters)
            counters->passesHeld += 1;
        return;
    }
    std::vector<Bundle> out;
    dispatcher.writeUpdates(out);
    if (counters && !out.empty()) {
        uint64_t bytes = 0;
        for (const Bundle& bundle : out)
            bytes += bundle.size();
        counters->batchesSent += 1;
        counters->bundlesSent += out.size();
        counters->bytesSent += bytes;
    }
    if (connection)
        connection->send(out);
}

void BundleController::Core::process(const std::vector<Bundle>& bundles) {
    ensureIsInitialized();
    if (nodeGone->load() || !isInitialized())
        return;
    if (!bundles.empty() && enabled.load()) {
        // Local changes made before the batch came leave before it is applied.
        remoteNode.update();
        if (enabled.load())
            flush();
    }
    const Basalt::TracePeer about(peerName);
    for (const Bundle& bundle : bundles) {
        footprint.received(bundle.size());
        BundleReader reader(bundle);
        try {
            dispatcher.dispatchBundle(reader);
            if (counters) {
                counters->bundlesReceived += 1;
                counters->bytesReceived += bundle.size();
            }
        } catch (const std::exception& e) {
            Basalt::Trace::warning("BundleController::process # Failed to process bundle of type "
                                   "type %d: %s",
                                   int(bundle.headerWord(BundleCore::MessageTypeWord)), e.what());
            if (counters)
                counters->bundlesFailed += 1;
        }
    }
}

void BundleController::Core::batchApplied() {
    if (mirrorOnly && !mirrored && isInitialized() && !nodeGone->load()) {
        mirrored = true;
        removeUnannounced(remoteNode);
    }
    if (counters)
        counters->batchesApplied += 1;
}

void BundleController::Core::removeUnannounced(Tessel::Node& under) {
    const AttributeCache& cache = remoteNode.attributeCache();
    for (Tessel::Attribute* child : under.children()) {
        if (Tessel::Node* inner = child->asNode()) {
            removeUnannounced(*inner);
            // The peer announces attributes, not nodes: a node left empty is not its.
            if (inner->children().empty())
                under.deleteAttribute(inner);
            continue;
        }
        const unsigned int symbol = cache.symbolOf(child);
        // What this side keeps to itself ("id" attributes, paths without the Sync flag)
        // is no peer's to announce.
        if (!(remoteNode.syncFlags().getFlags(symbol) & SyncFlags::Sync))
            continue;
        const DovelSessionAttribute* record = attributeStorage->findByLocalSymbol(symbol);
        if (!record || record->readSymbol == 0)
            under.deleteAttribute(child);
    }
}

// ---- BundleController ----

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
            Tessel::Node::invokeAfterUpdate(runHook);
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

BundleController::BundleController(const BundleController& other)
    : master(other.master), autoUpdate(other.autoUpdate), core(other.core),
      ownedCore(other.ownedCore), backlog(other.backlog) {}

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

void BundleController::addTask(const Task& task) {
    CorePtr target;
    {
        CoreList& list = coreList();
        Basalt::Guard guard(list.mutex);
        target = core.lock();
        if (!target || target->nodeGone->load())
            return;
        Basalt::Guard coreGuard(target->mutex);
        target->tasks.push_back(task);
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
    // The charge goes with the task: released once the batch is applied, or when the
    // task is dropped with its core.
    const int64_t charged = ReceiveBacklog::chargeOf(int64_t(bundles.size()), bytes);
    addTask([bundles, batchEnds, charge = backlog->charge(charged)](Core& c) mutable {
        c.process(bundles);
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
