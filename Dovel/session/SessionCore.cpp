#include "Dovel/session/SessionCore.h"

#include "Dovel/bundle/BundleReader.h"
#include "Dovel/bundle/ModuleNames.h"
#include "Dovel/bundle/PendingBundleSender.h"
#include "Dovel/bundle/SymbolRegistryReceiver.h"
#include "Dovel/session/Connection.h"
#include "Dovel/session/UpdateLoopExecutor.h"
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

#include <exception>

namespace Dovel {

SessionCore::SessionCore(RemoteNode& node, const BundleControllerParams& p)
    : params(std::make_unique<BundleControllerParams>(p)), remoteNode(node),
      executor(p.autoUpdate ? UpdateLoopExecutor::instance() : p.executor), counters(p.counters),
      writeRules(p.writeRules), peerName(p.peerName) {
    if (executor) {
        drainedWake = std::make_shared<DrainedWake>();
        drainedWake->executor = executor;
    }
}

void SessionCore::DrainedWake::operator()() {
    std::lock_guard<std::mutex> lock(mutex);
    if (executor)
        executor->wake();
}

SessionCore::~SessionCore() {
    if (drainedWake) {
        std::lock_guard<std::mutex> lock(drainedWake->mutex);
        drainedWake->executor.reset();
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

void SessionCore::release(SessionCore* core) {
    const std::thread::id tree = core->treeThread.load();
    if (tree == std::thread::id() || tree == std::this_thread::get_id() || !core->executor) {
        delete core;
        return;
    }
    // The core goes with the last copy of the function: on the tree thread once it has
    // run there, or wherever it is dropped unrun (a driver that stopped).
    struct Owner {
        explicit Owner(SessionCore* core) : core(core) {}
        Owner(const Owner&) = delete;
        Owner& operator=(const Owner&) = delete;
        ~Owner() { delete core; }
        SessionCore* const core;
    };
    auto owner = std::make_shared<Owner>(core);
    const std::shared_ptr<TreeExecutor> executor = core->executor;
    executor->post([owner] {});
}

void SessionCore::noteTreeThread() {
    if (treeThread.load(std::memory_order_relaxed) == std::thread::id())
        treeThread.store(std::this_thread::get_id());
}

void SessionCore::wake() const {
    if (executor)
        executor->wake();
}

void SessionCore::ensureIsInitialized() {
    if (!params || nodeGone->load() || closed.load())
        return;
    noteTreeThread();
    if (params->querySession) {
        initializeQuerySession();
        return;
    }
    attributeStorage = std::make_shared<AttributeStorage>(remoteNode, symbolRegistry);
    enabled.store(params->enabled);
    symbolRegistry.shareWith(remoteNode.symbolRegistry());
    dispatcher.addModule(std::make_shared<SymbolRegistryReceiver>(symbolRegistry));
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
    if (executor) {
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

void SessionCore::initializeQuerySession() {
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

void SessionCore::addTask(SessionTask task) {
    {
        Basalt::Guard guard(mutex);
        tasks.push_back(std::move(task));
    }
    wake();
}

void SessionCore::runTasks() {
    noteTreeThread();
    std::vector<SessionTask> batch;
    {
        Basalt::Guard guard(mutex);
        batch.swap(tasks);
    }
    // A task that throws (an application's own, through addTask) is logged; the rest
    // of the batch and the session go on.
    for (SessionTask& task : batch) {
        try {
            task(*this);
        } catch (const std::exception& e) {
            Basalt::Trace::error("SessionCore::runTasks # A task threw: %s", e.what());
        }
        // What a task holds (a piece of a batch) goes once it ran, not with the last task.
        task = nullptr;
    }
}

void SessionCore::finish() {
    ended = true;
    if (!isInitialized() || queryReceiver) {
        // Nothing of the peer's was applied before: there is nothing to finish, and
        // announcing the tree only to drop it would cost a walk of the whole tree. A
        // light client that hung up waits for no answer: its questions are dropped.
        std::vector<SessionTask> dropped;
        Basalt::Guard guard(mutex);
        dropped.swap(tasks);
        return;
    }
    runTasks();
    runTasks();
}

void SessionCore::flush(bool mayHoldBack) {
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

void SessionCore::process(const std::vector<Bundle>& bundles) {
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

void SessionCore::batchApplied() {
    if (mirrorOnly && !mirrored && isInitialized() && !nodeGone->load()) {
        mirrored = true;
        removeUnannounced(remoteNode);
    }
    if (counters)
        counters->batchesApplied += 1;
}

void SessionCore::removeUnannounced(Tessel::Node& under) {
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
        if (!record || !record->announcedByPeer)
            under.deleteAttribute(child);
    }
}

} // namespace Dovel
