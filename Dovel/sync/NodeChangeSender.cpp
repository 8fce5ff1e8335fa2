#include "Dovel/sync/NodeChangeSender.h"

#include "Dovel/Limits.h"
#include "Dovel/bundle/BundleDispatcher.h"
#include "Dovel/bundle/BundleWriter.h"
#include "Dovel/bundle/ModuleNames.h"
#include "Dovel/sync/AttributeCache.h"
#include "Dovel/sync/AttributeStorage.h"
#include "Dovel/sync/SymbolSet.h"
#include "Dovel/types/TypeRegistry.h"

#include "Basalt/Trace.h"
#include "Tessel/Node.h"

#include <algorithm>
#include <future>
#include <memory>
#include <mutex>
#include <system_error>
#include <utility>

namespace Dovel {

NodeChangeSender::NodeChangeSender(RemoteNode& node, AttributeStorage& storage, TypeRegistry& types,
                                   bool mirrorOnly)
    : node(node), storage(storage), types(types), mirrorOnly(mirrorOnly) {
    changeListenerId = node.addAttributeChangeListener(
        [this](const NodeWatcher::Event& event) { onAttributeChange(event); });
    eventListenerId =
        node.addEventListener([this](const RemoteNode::Event& event) { onEvent(event); });
    // The node may die before the session: then there is nothing left to unregister from.
    deletionListenerId = node.addListener(
        [this] {
            changeListenerId = -1;
            eventListenerId = -1;
            deletionListenerId = -1;
        },
        Tessel::Attribute::RoleDelete);
}

NodeChangeSender::~NodeChangeSender() {
    if (changeListenerId >= 0)
        node.removeAttributeChangeListener(changeListenerId);
    if (eventListenerId >= 0)
        node.removeEventLIstener(eventListenerId);
    if (deletionListenerId >= 0)
        node.removeListener(deletionListenerId);
}

void NodeChangeSender::initialize(BundleDispatcher& dispatcher) {
    newMessageType = dispatcher.resolveMessageType(ModuleNames::AttributeNew);
    updateMessageType = dispatcher.resolveMessageType(ModuleNames::AttributeUpdate);
    removeMessageType = dispatcher.resolveMessageType(ModuleNames::AttributeRemove);
    eventMessageType = dispatcher.resolveMessageType(ModuleNames::OneWayEvent);
}

unsigned NodeChangeSender::messageType(NodeWatcher::EventType type) {
    switch (type) {
    case NodeWatcher::AttributeAdded:
        return newMessageType;
    case NodeWatcher::AttributeRemoved:
        return removeMessageType;
    case NodeWatcher::AttributeChanged:
        return updateMessageType;
    default:
        Basalt::Trace::error("NodeChangeSender::messageType # Found an invalid event type %d",
                             int(type));
        return 0xFFFFFFFFu;
    }
}

void NodeChangeSender::ignoreOne(const NodeWatcher::Event& event) {
    if (std::find(ignored.begin(), ignored.end(), event) != ignored.end()) {
        Basalt::Trace::error("NodeChangeSender::ignoreOne # Called for an already ignored symbol");
        return;
    }
    ignored.push_back(event);
}

bool NodeChangeSender::stopIgnoring(const NodeWatcher::Event& event) {
    const auto found = std::find(ignored.begin(), ignored.end(), event);
    if (found == ignored.end())
        return false;
    ignored.erase(found);
    return true;
}

namespace {

void logNoAttribute() {
    Basalt::Trace::error("NodeChangeSender::onAttributeChange # Got an attribute change event "
                         "but can't find the actual attribute");
}

void logNoRecord() {
    Basalt::Trace::error("NodeChangeSender::onAttributeChange # Could not find a session "
                         "attribute for the given change");
}

} // namespace

void NodeChangeSender::onAttributeChange(const NodeWatcher::Event& event) {
    if (stopIgnoring(event))
        return; // the echo of a change a receiver applied
    if (event.type == NodeWatcher::NodeAdded || event.type == NodeWatcher::NodeRemoved)
        return; // the peer creates nodes from the attributes' paths
    if (mirrorOnly || !(node.syncFlags().getFlags(event.symbol) & SyncFlags::Sync)) {
        // Not sent, but an attribute the peer announced all the same holds codecs bound
        // to the object that is going away.
        if (event.type == NodeWatcher::AttributeRemoved) {
            std::lock_guard<Basalt::RwLock> guard(changeMutex);
            if (DovelSessionAttribute* sa = storage.findByLocalSymbol(event.symbol))
                forgetLocalAttribute(*sa);
        }
        return;
    }
    // A value change comes from a live attribute that has a record once it was
    // announced, and so does an addition whose record is not marked removed (its
    // removal would have come first and marked it). Only other events need the cache
    // to tell that the attribute is there. Records are made on the tree thread alone,
    // where this runs: the lookup stands until the lock below. A record is the only one
    // of its local symbol, so that of an addition under way is the one to find.
    DovelSessionAttribute* sa = adding && adding->localSymbol == event.symbol
                                    ? adding
                                    : storage.findByLocalSymbol(event.symbol);
    const bool live = sa && (event.type == NodeWatcher::AttributeChanged ||
                             (event.type == NodeWatcher::AttributeAdded && !sa->removedLocally));
    if (!live && !node.attributeCache().find(event.symbol)) {
        logNoAttribute();
        return;
    }

    std::lock_guard<Basalt::RwLock> guard(changeMutex);
    // A record for a symbol of some path other than the root's; the symbol is all it
    // needs, so no path is built.
    const Basalt::SymbolRegistry& registry = node.symbolRegistry();
    if (!sa && event.type == NodeWatcher::AttributeAdded &&
        registry.namesBelowRoot(uint32_t(event.symbol)))
        sa = storage.createByPath(QByteArray(), uint32_t(event.symbol));
    if (!sa) {
        logNoRecord();
        return;
    }
    if (event.type == NodeWatcher::AttributeRemoved)
        forgetLocalAttribute(*sa);
    if (sa->removedByPeer && event.type != NodeWatcher::AttributeAdded)
        return;
    pendingChanges.push_back(event);
}

// Values of the peer still under way must be read past, not applied to a dead object.
void NodeChangeSender::forgetLocalAttribute(DovelSessionAttribute& sa) {
    sa.codecs.assign(Serializer(), skippingDeserializer(sa.fixedSize));
    sa.valueReceived = false;
    sa.removedLocally = true;
}

void NodeChangeSender::onEvent(const RemoteNode::Event& event) {
    if (mirrorOnly)
        return;
    std::lock_guard<Basalt::RwLock> guard(eventMutex);
    pendingEvents.push_back(event);
    // Empty events cost memory too: each is charged its record as well.
    pendingEventBytes += int64_t(sizeof(RemoteNode::Event)) + event.data.size();
}

void NodeChangeSender::sendInitialValues() {
    if (mirrorOnly)
        return;
    Basalt::SymbolRegistry& registry = node.symbolRegistry();
    const AttributeCache& cache = node.attributeCache();
    {
        // Room for an addition of everything watched, taken once: grown by doubling, a
        // tree's worth would be copied and its fresh pages touched twice over.
        std::lock_guard<Basalt::RwLock> guard(changeMutex);
        pendingChanges.reserve(pendingChanges.size() + size_t(cache.size()));
    }
    std::vector<uint32_t> added;
    // A tree's worth of records is made on another thread, a run at a time, while the
    // walk goes on: announceAdded reads and fills only tables with locks of their own
    // (and the sender's scratch vectors, which nothing else uses meanwhile). The runs
    // are announced in the walk's order; while receivers suppress echoes, announceAdded
    // asks onAttributeChange (tree thread), and the walk announces once at its end.
    const bool inRuns = ignored.empty();
    std::future<void> announcing; // waited on before the walk's state goes
    const auto announceRun = [&] {
        if (announcing.valid())
            announcing.get();
        // Shared, so that it is still here should no thread be had.
        auto run = std::make_shared<std::vector<uint32_t>>();
        run->swap(added);
        try {
            announcing = std::async(std::launch::async, [this, run] { announceAdded(*run); });
        } catch (const std::system_error&) {
            announceAdded(*run); // made here
        }
    };
    walkAttributesUnder(node, [&](Tessel::Attribute& found, Tessel::Attribute&,
                                  const QByteArray& parent, bool ownPath) {
        // What the watcher observes carries its own path's symbol: taken when the walk came
        // by its host's own path (no alias on the way), where the watcher observes it.
        unsigned int symbol = ownPath ? cache.observedSymbolOf(found) : 0;
        if (symbol) {
            const Tessel::Node* host = found.host();
            if (!host || cache.observedSymbolOf(*host) == 0)
                symbol = 0;
        }
        // Others may be indexed under their path's symbol: taken when the registry names
        // that path, it spares building and hashing a path per attribute (one also reached
        // through an alias may be indexed under the other path).
        if (!symbol) {
            symbol = cache.symbolOf(&found);
            if (!symbol || !isChildPath(registry.lookup(symbol), parent, found.name()))
                symbol = registry.lookup(childPath(parent, found.name()));
        }
        added.push_back(symbol);
        if (inRuns && added.size() == RunEntries)
            announceRun();
    });
    if (announcing.valid())
        announcing.get();
    announceAdded(added);
}

void NodeChangeSender::announceAdded(std::vector<uint32_t>& symbols) {
    if (!ignored.empty()) {
        for (uint32_t symbol : symbols)
            onAttributeChange({NodeWatcher::AttributeAdded, symbol});
        clearAndTrim(symbols, 0);
        return;
    }
    // What onAttributeChange does for each addition, with each table locked once a run.
    // The symbols name paths (the walk's own): a record is made for any but the root's.
    const uint32_t root = node.symbolRegistry().lookup(QByteArray());
    std::vector<SyncFlags::Flag> flags;
    std::vector<uint32_t> run;
    for (size_t begin = 0; begin < symbols.size(); begin += RunEntries) {
        const size_t end = std::min(symbols.size(), begin + RunEntries);
        node.syncFlags().getFlagsAll(
            end - begin, [&](size_t i) { return symbols[begin + i]; }, flags);
        run.clear();
        for (size_t i = begin; i < end; ++i)
            if (flags[i - begin] & SyncFlags::Sync)
                run.push_back(symbols[i]);
        node.attributeCache().findAll(
            run.size(), [&](size_t i) { return run[i]; }, attributes);
        std::lock_guard<Basalt::RwLock> guard(changeMutex);
        storage.findOrCreateByLocalSymbols(
            run.size(), [&](size_t i) { return attributes[i] ? run[i] : 0u; },
            [root](uint32_t symbol) { return symbol != 0 && symbol != root; }, records);
        for (size_t i = 0; i < run.size(); ++i) {
            if (!attributes[i])
                logNoAttribute();
            else if (!records[i])
                logNoRecord();
            else
                pendingChanges.push_back({NodeWatcher::AttributeAdded, run[i]});
        }
    }
    clearAndTrim(records, 0);
    clearAndTrim(attributes, 0);
    clearAndTrim(symbols, 0);
}

void NodeChangeSender::writeUpdates(BundleOutput& output) {
    collapseChanges();
    std::vector<RemoteNode::Event> events;
    getEvents(events);
    const auto additions = [this] {
        size_t count = 0;
        for (const ChangeData& change : changes)
            count += change.type == NodeWatcher::AttributeAdded;
        return count;
    };
    const bool oneRun = changes.size() <= RunEntries;
    if (!(oneRun && changes.size() >= NameAsideAdditions && additions() >= NameAsideAdditions &&
          writeNamedAside(output, events)))
        writeRunsInTurn(output, events);
    clearAndTrim(records, 0);
    clearAndTrim(attributes, 0);
    sendEvents(events, output);
    clearAndTrim(changes, std::min(changes.size(), TrimEntries));
}

void NodeChangeSender::writeRunsInTurn(BundleOutput& output,
                                       const std::vector<RemoteNode::Event>& events) {
    // A large pass (a session's first) goes out in runs, each its names and then its
    // changes: the peer holds a name whole only until the change that uses it comes. A
    // pass of one run is laid out as it always was, all names first. The names of the
    // next run are written on another thread meanwhile: they read only the registry and
    // the announced set, which no other part of the pass touches. A first copy waits
    // on this pass, so it takes both cores.
    const size_t runs = std::max<size_t>(1, (changes.size() + RunEntries - 1) / RunEntries);
    const auto runEnd = [&](size_t k) { return std::min(changes.size(), (k + 1) * RunEntries); };
    const auto eventsOf = [&](size_t k) { return k + 1 == runs ? &events : nullptr; };
    const auto name = [this, &runEnd, &eventsOf](size_t k, NamedRun run) {
        try {
            nameRun(k * RunEntries, runEnd(k), eventsOf(k), run);
        } catch (...) {
            unname(run);
            throw;
        }
        return run;
    };
    // The first run fills the vectors the last pass left, so that a pass of one run
    // allocates nothing for them once they have grown.
    NamedRun first;
    first.records.swap(records);
    first.attributes.swap(attributes);
    NamedRun current = name(0, std::move(first));
    std::future<NamedRun> next; // joined before anything it reads goes (declared after)
    try {
        for (size_t k = 0; k < runs; ++k) {
            if (k > 0)
                current = next.valid() ? next.get() : name(k, NamedRun()); // no thread was had
            if (k + 1 < runs) {
                try {
                    next = std::async(std::launch::async, name, k + 1, NamedRun());
                } catch (const std::system_error&) {
                    next = std::future<NamedRun>();
                }
            }
            for (Bundle& names : current.names)
                output.finishWritten(std::move(names), symbolMessageType);
            records.swap(current.records);
            attributes.swap(current.attributes);
            sendChanges(changes, k * RunEntries, runEnd(k), output);
        }
    } catch (...) {
        if (next.valid()) {
            try {
                unname(next.get());
            } catch (...) { // unnamed as it failed
            }
        }
        throw;
    }
}

void NodeChangeSender::holdChanges() {
    {
        std::lock_guard<Basalt::RwLock> guard(changeMutex);
        takenChanges.swap(pendingChanges);
    }
    heldChanges.insert(heldChanges.end(), takenChanges.begin(), takenChanges.end());
    takenChanges.clear();
    if (heldChanges.size() < 2 * heldCompressed + 4096)
        return;
    // The compressed list, spelt out as events, compresses again to itself, and with
    // later events to what the whole sequence would give.
    compressor.compress(heldChanges, changes);
    heldChanges.clear();
    for (const ChangeData& change : changes) {
        const auto type = NodeWatcher::EventType(change.type);
        heldChanges.push_back({type, change.symbol});
        if (type == NodeWatcher::AttributeAdded && change.withValue)
            heldChanges.push_back({NodeWatcher::AttributeChanged, change.symbol});
    }
    heldCompressed = heldChanges.size();
}

bool NodeChangeSender::eventsPiledUp() const {
    std::lock_guard<Basalt::RwLock> guard(eventMutex);
    return pendingEventBytes > Limits::MaxHeldEventBytes;
}

void NodeChangeSender::collapseChanges() {
    {
        std::lock_guard<Basalt::RwLock> guard(changeMutex);
        takenChanges.swap(pendingChanges);
    }
    if (!heldChanges.empty()) {
        heldChanges.insert(heldChanges.end(), takenChanges.begin(), takenChanges.end());
        takenChanges.swap(heldChanges);
        heldChanges.clear();
        heldCompressed = 0;
    }
    compressor.compress(takenChanges, changes);
    // Cleared, not freed: the next swap hands its capacity back to pendingChanges. A
    // burst such as a first announcement is freed before its bundles are written.
    clearAndTrim(takenChanges, std::min(takenChanges.size(), TrimEntries));
}

void NodeChangeSender::getEvents(std::vector<RemoteNode::Event>& out) {
    std::lock_guard<Basalt::RwLock> guard(eventMutex);
    out.swap(pendingEvents);
    pendingEventBytes = 0;
}

void NodeChangeSender::sendAgain(uint32_t localSymbol, bool announce) {
    if (mirrorOnly || !node.attributeCache().find(localSymbol))
        return;
    std::lock_guard<Basalt::RwLock> guard(changeMutex);
    if (announce)
        pendingChanges.push_back({NodeWatcher::AttributeAdded, localSymbol});
    pendingChanges.push_back({NodeWatcher::AttributeChanged, localSymbol});
}

QByteArray NodeChangeSender::pathOf(const DovelSessionAttribute& sa) {
    return node.symbolRegistry().lookup(sa.localSymbol);
}

bool NodeChangeSender::announceSymbol(uint32_t symbol, BundleWriterCore& writer, uint32_t ahead) {
    if (announced.contains(symbol))
        return false;
    // The name goes from the registry straight into the bundle.
    const bool named = writer.writeWordAndBytesFrom(symbol, [&](QByteArray& packet) {
        const int before = packet.size();
        if (!node.symbolRegistry().appendName(symbol, packet, ahead))
            return false;
        return packet.size() > before; // the root's empty name is no attribute's
    });
    if (!named) {
        Basalt::Trace::error(
            "NodeChangeSender # found an AttributeChange that points to an unknown symbol");
        return false;
    }
    announced.insert(symbol);
    return true;
}

static void logMissingSessionAttribute() {
    Basalt::Trace::error("NodeChangeSender::sendChanges # Missing DovelSessionAttribute when "
                         "sending an attribute event. Will ignore");
}

namespace {

// Whether `bundle` has reached the size at which the sender goes on in a new bundle.
bool isFull(const Bundle& bundle) {
    return bundle.size() >= BundleCore::HeaderSize + uint32_t(Limits::SentBundleBytes);
}

} // namespace

void NodeChangeSender::unname(const NamedRun& run) {
    for (const uint32_t symbol : run.named)
        announced.remove(symbol);
}

bool NodeChangeSender::writeNamedAside(BundleOutput& output,
                                       const std::vector<RemoteNode::Event>& events) {
    const size_t count = changes.size();
    const uint32_t first = output.sequence();
    // The changes are numbered from `first` as they are written, then moved up past the
    // names: no number may wrap on the way (a bundle holds at least one entry).
    if (uint64_t(first) + 2 * (uint64_t(count) + events.size()) + 16 > UINT32_MAX)
        return false;
    NamedRun run;
    run.records.swap(records);
    run.attributes.swap(attributes);
    lookUpRun(0, count, run);
    records.swap(run.records);
    attributes.swap(run.attributes);
    // The other thread writes run.names and run.named and reads the records vector,
    // which this one only reads too.
    std::future<void> naming;
    try {
        naming = std::async(std::launch::async, [this, &run, &events, count] {
            writeNames(0, count, &events, records, run);
        });
    } catch (const std::system_error&) {
        return false;
    }
    std::vector<Bundle> written;
    uint32_t numbered = first;
    BundleOutput aside(&written, &numbered, output.acknowledged());
    try {
        sendChanges(changes, 0, count, aside);
    } catch (...) {
        try {
            naming.get();
        } catch (...) { // this pass fails anyway
        }
        unname(run);
        throw;
    }
    try {
        naming.get();
    } catch (...) {
        unname(run);
        throw;
    }
    for (Bundle& names : run.names)
        output.finishWritten(std::move(names), symbolMessageType);
    const uint32_t moved = output.sequence() - first;
    for (Bundle& bundle : written) {
        bundle.setHeaderWord(BundleCore::SequenceNumberWord, output.sequence());
        output.add(bundle);
    }
    // What sendAdded and sendChanged noted as the number a value went out in moves too.
    if (moved != 0)
        for (DovelSessionAttribute* sa : records)
            if (sa && sa->lastSentSequence >= first && sa->lastSentSequence < numbered)
                sa->lastSentSequence += moved;
    return true;
}

void NodeChangeSender::nameRun(size_t begin, size_t end,
                               const std::vector<RemoteNode::Event>* events, NamedRun& run) {
    lookUpRun(begin, end, run);
    writeNames(begin, end, events, run.records, run);
}

void NodeChangeSender::lookUpRun(size_t begin, size_t end, NamedRun& run) {
    const auto symbolAt = [this, begin](size_t i) { return changes[begin + i].symbol; };
    storage.findByLocalSymbols(end - begin, symbolAt, run.records);
    node.attributeCache().findAll(end - begin, symbolAt, run.attributes);
}

void NodeChangeSender::writeNames(size_t begin, size_t end,
                                  const std::vector<RemoteNode::Event>* events,
                                  const std::vector<DovelSessionAttribute*>& runRecords,
                                  NamedRun& run) {
    Bundle bundle;
    BundleWriter writer(bundle);
    const auto announce = [&](uint32_t symbol, uint32_t ahead) {
        if (announceSymbol(symbol, writer, ahead))
            run.named.push_back(symbol);
        if (isFull(bundle)) {
            run.names.push_back(std::move(bundle));
            // One full bundle is likely followed by another: its room is taken at once.
            bundle = Bundle();
            bundle.mutablePacket().reserve(
                int(BundleCore::HeaderSize + uint32_t(Limits::SentBundleBytes)));
        }
    };
    // A first pass names a whole tree, each node's leaf bytes cold: loaded this many
    // names ahead.
    constexpr size_t Ahead = 8;
    for (size_t i = begin; i < end; ++i) {
        if (!runRecords[i - begin]) {
            logMissingSessionAttribute();
            continue;
        }
        announce(changes[i].symbol, i + Ahead < end ? changes[i + Ahead].symbol : 0);
    }
    if (events)
        for (const RemoteNode::Event& event : *events)
            announce(event.symbol, 0);
    run.names.push_back(std::move(bundle));
}

void NodeChangeSender::sendChanges(const std::vector<ChangeData>& changes, size_t begin, size_t end,
                                   BundleOutput& output) {
    Bundle bundle;
    BundleWriter writer(bundle);
    uint32_t openType = NodeWatcher::AttributeAdded;
    bool open = false;
    // The attributes of a large pass were made or last touched long before: each is
    // loaded this many entries before its serializer is made from it.
    constexpr size_t Ahead = 8;
    for (size_t i = begin; i < end; ++i) {
        if (i + Ahead < end)
            if (const Tessel::Attribute* later = attributes[i + Ahead - begin])
                __builtin_prefetch(later);
        const ChangeData& change = changes[i];
        DovelSessionAttribute* sa = records[i - begin];
        if (!sa) {
            logMissingSessionAttribute();
            continue;
        }
        if (change.type >= 3) {
            Basalt::Trace::error("NodeChangeSender # found a change with an unknown type: %d",
                                 int(change.type));
            continue;
        }
        if (!open || change.type != openType || isFull(bundle)) {
            if (open)
                output.finish(bundle, messageType(NodeWatcher::EventType(openType)));
            openType = change.type;
            open = true;
            // sendAdded and sendChanged read the sequence number from word 2.
            bundle.setHeader(0, messageType(NodeWatcher::EventType(openType)), output.sequence(),
                             output.acknowledged());
        }
        switch (change.type) {
        case NodeWatcher::AttributeAdded:
            sendAdded(*sa, attributes[i - begin], change.withValue != 0, writer);
            break;
        case NodeWatcher::AttributeChanged:
            sendChanged(*sa, attributes[i - begin], writer);
            break;
        default:
            sendRemoved(*sa, writer);
            break;
        }
    }
    if (open)
        output.finish(bundle, messageType(NodeWatcher::EventType(openType)));
}

void NodeChangeSender::sendAdded(DovelSessionAttribute& sa, Tessel::Attribute* attribute,
                                 bool withValue, BundleWriterCore& writer) {
    if (!attribute) {
        Basalt::Trace::error("NodeChangeSender # Trying to send changes for a missing attribute "
                             "with symbol %u. Ignoring",
                             sa.localSymbol);
        return;
    }
    if (sa.removedLocally && sa.typeCode() != 0) {
        sa.codecs.setDeserializer(types.createDeserializer(sa.typeCode(), attribute));
        if (!sa.codecs.hasDeserializer()) {
            Basalt::Trace::error("NodeChangeSender::sendAdded # Tried to recreate a deserializer "
                                 "but failed. Will set it to null deserializer");
            sa.codecs.setDeserializer(skippingDeserializer(sa.fixedSize));
        }
    }
    uint32_t typeCode = 0;
    uint32_t fixedSize = 0;
    sa.codecs.setSerializer(types.createSerializer(attribute, typeCode, fixedSize));
    if (!sa.codecs.hasSerializer()) {
        Basalt::Trace::error("NodeChangeSender::sendAdded # Found an attribute that we can't "
                             "serialize at '%s'. Ignoring",
                             pathOf(sa).constData());
        return;
    }
    // The peer removed it, and has no copy: this side adds it again, value and all (a
    // bare announcement would be read as the answer to one of its own).
    const bool peerLacksIt = sa.removedByPeer;
    sa.removedByPeer = false;
    const bool hasValue =
        withValue || sa.removedLocally || peerLacksIt || (sa.localOrigin && !sa.valueReceived);
    writer.writeUInt32s({sa.localSymbol, typeCode, fixedSize, hasValue ? 1u : 0u});
    if (hasValue) {
        const uint32_t valueStart = writer.pos();
        sa.codecs.serialize(writer);
        if (!fitsABundle(sa, writer, valueStart, "sendAdded")) {
            // Announced without it, as an attribute whose value the peer keeps.
            writer.bundle().mutablePacket().resize(int(valueStart));
            const uint32_t noValue = 0;
            writer.writeDataAt(valueStart - 4, &noValue, 4);
            sa.removedLocally = false;
            return;
        }
        // Only an announcement with a value makes the peer's values written before it
        // stale: one without leaves the peer's value standing, so a master that skipped
        // the peer's next values as stale would keep its own while the peer kept its.
        sa.lastSentSequence = writer.bundle().sequenceNumber();
    }
    sa.removedLocally = false;
}

void NodeChangeSender::sendChanged(DovelSessionAttribute& sa, Tessel::Attribute* attribute,
                                   BundleWriterCore& writer) {
    const uint32_t lastSent = sa.lastSentSequence;
    sa.lastSentSequence = writer.bundle().sequenceNumber();
    if (!attribute) {
        Basalt::Trace::error("NodeChangeSender # Trying to send changes for a missing attribute "
                             "with symbol %u. Ignoring",
                             sa.localSymbol);
        return;
    }
    // Without a serializer the value's bytes are unknown, so not even the symbol may go.
    if (!sa.codecs.hasSerializer()) {
        Basalt::Trace::error("NodeChangeSender::sendChanged # Found an attribute that we can't "
                             "serialize at '%s'. Ignoring",
                             pathOf(sa).constData());
        return;
    }
    const uint32_t entryStart = writer.pos();
    writer.writeUInt32(sa.localSymbol);
    sa.codecs.serialize(writer);
    if (!fitsABundle(sa, writer, entryStart + 4, "sendChanged")) {
        writer.bundle().mutablePacket().resize(int(entryStart)); // the whole entry goes
        sa.lastSentSequence = lastSent;
    }
}

bool NodeChangeSender::fitsABundle(const DovelSessionAttribute& sa, const BundleWriterCore& writer,
                                   uint32_t valueStart, const char* operation) {
    const uint32_t bytes = writer.pos() - valueStart;
    if (bytes <= uint32_t(Limits::MaxSentValueBytes))
        return true;
    Basalt::Trace::error("NodeChangeSender::%s # The value of '%s' takes %u bytes, more than a "
                         "bundle may carry; it is not sent",
                         operation, pathOf(sa).constData(), bytes);
    return false;
}

void NodeChangeSender::sendRemoved(DovelSessionAttribute& sa, BundleWriterCore& writer) {
    writer.writeUInt32(sa.localSymbol);
    sa.lastSentSequence = 0;
}

void NodeChangeSender::sendEvents(const std::vector<RemoteNode::Event>& events,
                                  BundleOutput& output) {
    if (events.empty())
        return;
    Bundle bundle;
    BundleWriter writer(bundle);
    for (const RemoteNode::Event& event : events) {
        if (event.data.size() > Limits::MaxSentValueBytes) {
            Basalt::Trace::error("NodeChangeSender::sendEvents # An event of %d bytes is more "
                                 "than a bundle may carry; it is not sent (large events go in "
                                 "slices)",
                                 int(event.data.size()));
            continue;
        }
        writer.writeUInt32(event.symbol);
        writer.writeUInt32(uint32_t(event.data.size()));
        writer.writeData(event.data.constData(), uint32_t(event.data.size()));
        if (isFull(bundle))
            output.finish(bundle, eventMessageType);
    }
    output.finish(bundle, eventMessageType);
}

} // namespace Dovel
