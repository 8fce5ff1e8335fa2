// The sending module of a session. It listens to the attribute changes and outgoing
// events of the session's RemoteNode, keeps those of one update period, and on each
// output pass sends them: first the symbol names the peer has not seen, then the
// additions, updates and removals (one bundle per run of equal kind; a run past
// Limits::SentBundleBytes goes on in further bundles of that kind), then the one-way
// events. Changes applied by the receivers are bracketed by ignoreOne/stopIgnoring and
// so never travel back.
//
// Thread contract: the listeners, sendInitialValues, writeUpdates and the ignore
// operations run on the tree thread. Each pending vector is guarded by its own mutex,
// held only to append or to swap it out.
#pragma once

#include "Dovel/bundle/BundleSender.h"
#include "Dovel/sync/AttributeChangeCompressor.h"
#include "Dovel/sync/NodeWatcher.h"
#include "Dovel/sync/RemoteNode.h"
#include "Dovel/sync/SymbolBits.h"

#include "Basalt/RwLock.h"

#include <cstdint>
#include <vector>

namespace Dovel {

class AttributeStorage;
class BundleWriterCore;
class TypeRegistry;
struct DovelSessionAttribute;

class NodeChangeSender : public BundleSender {
public:
    // `mirrorOnly`: a mirror's sender, through which nothing of this side goes to the
    // peer (no announcement, change, removal or event) and nothing waits to.
    NodeChangeSender(RemoteNode& node, AttributeStorage& storage, TypeRegistry& types,
                     bool mirrorOnly = false);
    ~NodeChangeSender() override;

    void writeUpdates(BundleOutput& output) override;
    // Queues every attribute of the tree as an addition: the session's first announcement.
    void sendInitialValues();
    // Instead of an output pass, while the connection has more waiting than it takes:
    // folds the period's changes into those held from earlier periods, so that what
    // waits stays bounded by the tree (one entry per attribute and kind) and each
    // attribute leaves once, with its newest value, at the next pass that writes.
    void holdChanges();
    // Whether the events raised since the last pass have grown too large to hold back.
    bool eventsPiledUp() const;

    // The next watcher event equal to `event` is the echo of a received change: drop it.
    void ignoreOne(const NodeWatcher::Event& event);
    // Withdraws an ignoreOne; true when it was still pending (the change caused no event).
    bool stopIgnoring(const NodeWatcher::Event& event);
    // Runs `apply`, which sets the attribute of `localSymbol` to a peer's value, so that
    // the change is not sent back. Nothing stays ignored afterwards, whether the value
    // changed anything or `apply` threw.
    template <typename Apply> void applyWithoutEcho(uint32_t localSymbol, Apply&& apply) {
        const NodeWatcher::Event echo{NodeWatcher::AttributeChanged, localSymbol};
        ignoreOne(echo);
        try {
            apply();
        } catch (...) {
            stopIgnoring(echo);
            throw;
        }
        stopIgnoring(echo);
    }
    // Runs `add`, which adds the attribute of `record` to the tree (a receiver creating
    // what the peer announced): the addition's report then takes the record as it is
    // instead of looking it up. Tree thread.
    template <typename Add> decltype(auto) addingFor(DovelSessionAttribute& record, Add&& add) {
        struct Scope {
            DovelSessionAttribute*& slot;
            DovelSessionAttribute* const outer;
            ~Scope() { slot = outer; }
        } scope{adding, adding};
        adding = &record;
        return add();
    }
    // The outgoing message type that carries events of `type` (0 new, 1 remove, 2
    // update); 0xFFFFFFFF for any other type.
    unsigned messageType(NodeWatcher::EventType type);

    // Queues the attribute's current value for the peer once more (with `announce`, as
    // an addition that carries it): how a change of the peer that this side refused is
    // put back on the peer's side. Tree thread.
    void sendAgain(uint32_t localSymbol, bool announce);
    // The path of a record's attribute.
    QByteArray pathOf(const DovelSessionAttribute& sa);

    // Entries in the ignore set (echo-suppression bookkeeping).
    int ignoredCount() const { return int(ignored.size()); }

protected:
    void initialize(BundleDispatcher& dispatcher) override;

private:
    // A large pass, and a first announcement, are worked through in runs of this many
    // entries: what is held for a run (records, attributes, pending names on the peer's
    // side) stays bounded by it, not by the tree.
    static constexpr size_t RunEntries = 1 << 16;
    // A pass of one run with at least this many additions names them on another thread
    // while this one writes the changes (writeNamedAside): a thread is worth its start.
    static constexpr size_t NameAsideAdditions = 2048;

    void onAttributeChange(const NodeWatcher::Event& event);
    // onAttributeChange for an addition of each of `symbols` (emptied; symbols the
    // registry names), with each table locked once: a session's first announcement
    // names the whole tree.
    void announceAdded(std::vector<uint32_t>& symbols);
    void onEvent(const RemoteNode::Event& event);
    void forgetLocalAttribute(DovelSessionAttribute& sa);
    void collapseChanges();
    void getEvents(std::vector<RemoteNode::Event>& out);
    // One run of a pass made ready for its changes to be written: the records and the
    // attributes of its changes, and the bundles that name what the peer does not know
    // yet (payloads only: numbered when they go out, before the run's changes).
    struct NamedRun {
        std::vector<DovelSessionAttribute*> records;
        std::vector<Tessel::Attribute*> attributes;
        std::vector<Bundle> names;
        std::vector<uint32_t> named; // the symbols those name, now in the announced set
    };
    // Makes `run` ready for changes [begin, end) and then, when given, `events`. Reads
    // only what is thread-safe or the sender's alone while a pass runs (the announced
    // set, which one run at a time extends): a large pass names its next run on another
    // thread while this one writes the changes of the run before.
    void nameRun(size_t begin, size_t end, const std::vector<RemoteNode::Event>* events,
                 NamedRun& run);
    // The two halves of nameRun: the records and attributes of the run's changes, then
    // its names (`runRecords` standing for the run's own, which are only read).
    void lookUpRun(size_t begin, size_t end, NamedRun& run);
    void writeNames(size_t begin, size_t end, const std::vector<RemoteNode::Event>* events,
                    const std::vector<DovelSessionAttribute*>& runRecords, NamedRun& run);
    // A run named but not put out (the pass failed on the way) is not announced: the
    // peer is told those names again with their next use.
    void unname(const NamedRun& run);
    // A pass of one run with many additions (the answers to a peer's large batch): its
    // names are written on another thread while this one writes its changes, which are
    // numbered once the names ahead of them are counted. False, having done nothing,
    // when that cannot be (no thread, or sequence numbers about to wrap).
    bool writeNamedAside(BundleOutput& output, const std::vector<RemoteNode::Event>& events);
    // The pass's runs one after another, each named on another thread while the run
    // before is written.
    void writeRunsInTurn(BundleOutput& output, const std::vector<RemoteNode::Event>& events);
    void sendChanges(const std::vector<ChangeData>& changes, size_t begin, size_t end,
                     BundleOutput& output);
    void sendAdded(DovelSessionAttribute& sa, Tessel::Attribute* attribute, bool withValue,
                   BundleWriterCore& writer);
    void sendChanged(DovelSessionAttribute& sa, Tessel::Attribute* attribute,
                     BundleWriterCore& writer);
    void sendRemoved(DovelSessionAttribute& sa, BundleWriterCore& writer);
    // Whether the value written from `valueStart` on is within Limits::MaxSentValueBytes;
    // logs it (as `operation`) when it is not. The caller cuts what it wrote.
    bool fitsABundle(const DovelSessionAttribute& sa, const BundleWriterCore& writer,
                     uint32_t valueStart, const char* operation);
    void sendEvents(const std::vector<RemoteNode::Event>& events, BundleOutput& output);
    // Appends the symbol's name to the symbol bundle unless the peer already knows it.
    // `ahead`: a symbol to be announced a few places on, whose name starts loading now.
    // True when it appended it.
    bool announceSymbol(uint32_t symbol, BundleWriterCore& writer, uint32_t ahead = 0);

    RemoteNode& node;
    AttributeStorage& storage;
    TypeRegistry& types;
    AttributeChangeCompressor compressor;

    Basalt::RwLock changeMutex;                     // held exclusively
    std::vector<NodeWatcher::Event> pendingChanges; // guarded by changeMutex
    std::vector<NodeWatcher::Event> takenChanges;   // the pass's, swapped with pendingChanges
    // Changes of held periods, compressed and spelt out as events again (holdChanges);
    // compressed anew only once they doubled, so holding costs O(1) per change.
    std::vector<NodeWatcher::Event> heldChanges;
    std::size_t heldCompressed = 0;
    std::vector<ChangeData> changes;
    // Per entry of `changes` in the run being written: its record and its attribute,
    // looked up in one batch each (announceAdded and sendChanges use them).
    std::vector<DovelSessionAttribute*> records;
    std::vector<Tessel::Attribute*> attributes;

    mutable Basalt::RwLock eventMutex;            // held exclusively
    std::vector<RemoteNode::Event> pendingEvents; // guarded by eventMutex
    int64_t pendingEventBytes = 0;                // their payloads; guarded by eventMutex
    const bool mirrorOnly;

    uint32_t newMessageType = NoMessageType;
    uint32_t updateMessageType = NoMessageType;
    uint32_t removeMessageType = NoMessageType;
    uint32_t eventMessageType = NoMessageType;

    SymbolBits announced; // symbols whose names the peer has been sent
    // Echoes to drop: at most the one or two a receiver is applying right now, so a
    // short vector (scanned per change, empty nearly always) beats a tree.
    std::vector<NodeWatcher::Event> ignored;
    // The record whose attribute a receiver is adding (addingFor), else null.
    DovelSessionAttribute* adding = nullptr;

    long changeListenerId = -1;
    long eventListenerId = -1;
    long deletionListenerId = -1;
};

} // namespace Dovel
