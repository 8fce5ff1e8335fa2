#include "Dovel/sync/NewAttributeReceiver.h"

#include "Dovel/Limits.h"
#include "Dovel/bundle/ModuleNames.h"
#include "Dovel/bundle/PeerSymbols.h"
#include "Dovel/sync/AttributeCache.h"
#include "Dovel/sync/AttributeStorage.h"
#include "Dovel/sync/NodeChangeSender.h"
#include "Dovel/sync/NodeWatcher.h"
#include "Dovel/sync/PeerFootprint.h"
#include "Dovel/sync/PeerWriteRules.h"
#include "Dovel/sync/RemoteNode.h"
#include "Dovel/types/TypeRegistry.h"

#include "Basalt/Trace.h"
#include "Tessel/AttributeAlias.h"
#include "Tessel/Node.h"
#include "Tessel/SharedNames.h"

#include <algorithm>
#include <cstring>
#include <memory>

namespace Dovel {

static_assert(DovelSessionAttribute::MaxFixedSize > uint32_t(Limits::MaxBundlePayloadBytes),
              "a fixed size a record cannot keep must be one no bundle holds");

namespace {

// The number of components of a path, or -1 when one is empty (a leading, trailing or
// doubled slash), and in `leafStart` where its last component starts. One pass over the
// bytes: it runs for every entry.
int componentCount(const QByteArray& path, int* leafStart) {
    const char* const begin = path.constData();
    const char* const end = begin + path.size();
    *leafStart = 0;
    if (begin == end)
        return 1;
    if (*begin == '/' || end[-1] == '/')
        return -1;
    int count = 1;
    for (const char* slash = begin;
         (slash = static_cast<const char*>(std::memchr(slash, '/', size_t(end - slash))));
         ++slash, ++count) {
        if (slash[1] == '/')
            return -1;
        *leafStart = int(slash - begin) + 1;
    }
    return count;
}

// The length of the leading whole components that the path of `aSize` bytes at `a`
// and that of `bSize` bytes at `b` share (without the '/' after them), 0 when none.
int commonParent(const char* a, int aSize, const char* b, int bSize) {
    const int both = std::min(aSize, bSize);
    int same = 0;
    // Siblings' paths share all but their last component: eight bytes at a time first.
    for (uint64_t x = 0, y = 0; same + 8 <= both; same += 8) {
        std::memcpy(&x, a + same, 8);
        std::memcpy(&y, b + same, 8);
        if (x != y)
            break;
    }
    while (same < both && a[same] == b[same])
        ++same;
    if ((same == aSize || a[same] == '/') && (same == bSize || b[same] == '/'))
        return same;
    while (same > 0 && a[same - 1] != '/')
        --same;
    return same > 0 ? same - 1 : 0;
}

// Reads past one value of the announced size.
void skipValue(BundleReader& reader, uint32_t fixedSize) {
    reader.read(fixedSize != 0 ? fixedSize : reader.readUInt32());
}

} // namespace

NewAttributeReceiver::NewAttributeReceiver(RemoteNode& node, AttributeStorage& storage,
                                           PeerSymbols& peerSymbols, TypeRegistry& types,
                                           NodeChangeSender& sender)
    : BundleReceiver(ModuleNames::AttributeNew), node(node), storage(storage),
      peerSymbols(peerSymbols), types(types), sender(sender) {}

NewAttributeReceiver::~NewAttributeReceiver() = default;

void NewAttributeReceiver::handleBundle(BundleReader& reader) {
    const BundleCore& bundle = reader.bundle();
    const uint32_t acknowledged = bundle.headerWord(BundleCore::AcknowledgedWord);
    const uint32_t sequence = bundle.sequenceNumber();
    // A few entries ahead of the one applied, the registry starts loading where each
    // path's local symbol is looked up: in a large tree that probe would otherwise wait
    // on memory for every entry. A malformed entry ahead ends the looking ahead; the
    // entry itself is reported when it is applied. What was hashed for each path looked
    // ahead at serves its entry when applied, so that the leaf is hashed once; but only
    // for the very same name: an entry whose value takes other than the bytes announced
    // puts the look-ahead out of step with the entries applied.
    constexpr int LookAhead = 4;
    constexpr uint32_t Kept = 8;
    static_assert((Kept & (Kept - 1)) == 0 && Kept > LookAhead, "a ring of the entries ahead");
    AheadHash aheadHashes[Kept] = {};
    uint32_t aheadCount = 0; // entries looked ahead at
    BundleReader ahead = reader;
    bool aheadValid = true;
    const auto prefetchNext = [&] {
        if (!aheadValid || ahead.atEnd())
            return;
        try {
            const uint32_t symbol = ahead.readUInt32();
            ahead.readUInt32();
            const uint32_t fixedSize = ahead.readUInt32();
            if ((ahead.readUInt32() & 1u) != 0)
                skipValue(ahead, fixedSize);
            // A name already settled is this side's: its record is there to be found.
            AheadHash& kept = aheadHashes[aheadCount++ % Kept];
            kept = AheadHash{symbol, nullptr, 0, 0, 0};
            if (const QByteArray* path = peerSymbols.pendingName(symbol)) {
                kept.name = path->constData();
                prefetchRecord(*path, kept);
            }
        } catch (const std::exception&) {
            aheadValid = false;
        }
    };
    for (int i = 0; i < LookAhead; ++i)
        prefetchNext();
    for (uint32_t index = 1; !reader.atEnd(); ++index) {
        prefetchNext();
        const uint32_t symbol = reader.readUInt32();
        const uint32_t typeCode = reader.readUInt32();
        const uint32_t fixedSize = reader.readUInt32();
        const bool hasValue = (reader.readUInt32() & 1u) != 0;
        const AheadHash* hashed = index <= aheadCount ? &aheadHashes[(index - 1) % Kept] : nullptr;
        handleEntry(reader, symbol, typeCode, fixedSize, hasValue, acknowledged, sequence, index,
                    hashed && hashed->symbol == symbol ? hashed : nullptr);
    }
}

void NewAttributeReceiver::handleEntry(BundleReader& reader, uint32_t symbol, uint32_t typeCode,
                                       uint32_t fixedSize, bool hasValue, uint32_t acknowledged,
                                       uint32_t sequence, uint32_t messageIndex,
                                       const AheadHash* hashed) {
    const QByteArray path = peerSymbols.lookup(symbol);
    if (path.isEmpty()) {
        // Despite its wording, only this entry is skipped.
        Basalt::Trace::error("NewAttributeReceiver::handleBundle # Unknown symbol %d at message "
                             "index %u. Will ignore the bundle",
                             int(symbol), messageIndex);
        if (hasValue)
            skipValue(reader, fixedSize);
        return;
    }
    int leafStart = 0;
    const int components = componentCount(path, &leafStart);
    if (components < 0) {
        Basalt::Trace::error("NewAttributeReceiver::handleBundle # Malformed path '%s'",
                             path.constData());
        if (hasValue)
            skipValue(reader, fixedSize);
        return;
    }
    if (components > Limits::MaxPeerPathDepth) {
        Basalt::Trace::error("NewAttributeReceiver::handleBundle # A path of %d components is "
                             "deeper than %d; '%s' is ignored",
                             components, Limits::MaxPeerPathDepth, path.constData());
        if (hasValue)
            skipValue(reader, fixedSize);
        return;
    }

    // A peer that may not write here adds nothing and changes no value; an
    // announcement without a value of what this side removed is no addition (below).
    const bool writable = !writeRules || writeRules->mayWrite(path);
    // The pending name is shared, not copied: the same bytes are the same name.
    if (hashed && hashed->name != path.constData())
        hashed = nullptr;
    // The parent first: the record's symbol then follows from the parent's and the leaf.
    Tessel::Node* parent = findParent(path, leafStart, createMissing && writable, hashed);

    // The leaf as the tree and the registry keep it: shared once for both.
    const QByteArray leafName =
        Tessel::sharedName(path.constData() + leafStart, path.size() - leafStart);
    // The record bound to the symbol, or the record of this path (made when there is
    // none), bound to it.
    bool boundNow = false;
    DovelSessionAttribute* sa = storage.bindReadSymbol(
        symbol, path, localSymbolOf(path, leafStart, leafName, hashed), &boundNow);
    // Whether the record's symbol is this path's: then this side's registry holds the
    // path, and the peer's symbol need not keep a copy of it.
    const bool ownPath = boundNow || node.symbolRegistry().isNameOf(sa->localSymbol, path);
    if (ownPath)
        peerSymbols.settle(symbol, sa->localSymbol);
    sa->announcedByPeer = true;
    sa->setTypeCode(typeCode);
    sa->fixedSize = std::min(fixedSize, DovelSessionAttribute::MaxFixedSize);
    sa->removedByPeer = false;

    bool apply = hasValue;
    // This side sent a newer value that the peer had not seen when it wrote this one.
    if (apply && skipStale && acknowledged < sa->lastSentSequence)
        apply = false;

    // Until a local attribute takes the values, later updates are read past.
    auto skipAll = [&] {
        sa->codecs.setDeserializer(skippingDeserializer(fixedSize));
        if (hasValue)
            skipValue(reader, fixedSize);
    };

    auto refuseAddition = [&] {
        if (!writable && (hasValue || !sa->removedLocally))
            writeRules->refuse(path);
        skipAll();
    };

    if (!parent) {
        refuseAddition();
        return;
    }
    Tessel::Attribute* leaf = parent->attribute(leafName);
    if (leaf && replaceMismatched && createMissing && writable &&
        !types.isMadeFor(typeCode, *leaf)) {
        // A mirror takes the peer's type: what stands here as another class (or a node)
        // is made again.
        parent->deleteAttribute(leaf);
        sa->removedLocally = false; // replaced, not removed: what comes now is created
        leaf = parent->attribute(leafName);
    }
    Deserializer deserializer = leaf ? types.createDeserializer(typeCode, leaf) : Deserializer();
    sa->localOrigin = leaf != nullptr;

    if (!leaf) {
        if (!createMissing || !writable) {
            refuseAddition();
            return;
        }
        if (!mayCreate(false, path, path.size())) {
            skipAll();
            return;
        }
        // An announcement without a value for an attribute this side has removed is the
        // peer's answer to an earlier announcement of ours, overtaken by our removal,
        // which is on its way to the peer. Creating it again would bring the removed
        // attribute back, with a default value, on both sides.
        if (!hasValue && sa->removedLocally) {
            skipAll();
            return;
        }
        std::unique_ptr<Tessel::Attribute> created(types.createAttribute(typeCode));
        deserializer = created ? types.createDeserializer(typeCode, created.get()) : Deserializer();
        if (!deserializer) {
            Basalt::Trace::error("NewAttributeReceiver::createDeserializer # Found an attribute "
                                 "that we don't know how to deserialize at '%s'",
                                 path.constData());
            skipAll();
            return;
        }
        // The record takes the deserializer only once the value is read: a value cut
        // short throws, and then the attribute dies with this scope while the record
        // reads the attribute's later values past. Nothing asks the record meanwhile.
        if (hasValue) {
            try {
                if (apply) {
                    sa->valueReceived = sequence != 0;
                    deserializer(reader);
                    created->setAsDefaults();
                } else {
                    skipValue(reader, fixedSize);
                }
            } catch (...) {
                sa->codecs.setDeserializer(skippingDeserializer(fixedSize));
                throw;
            }
        }
        // The record takes the deserializer before the attribute is reported: a listener
        // of that report may remove the attribute again, and its removal then puts a
        // skipping deserializer back.
        sa->codecs.setDeserializer(deserializer);
        // Watched and cached at once, so that the next entries and updates find it.
        unsigned int watchedAs = 0;
        // After findParent, for a path of more than one component, parentSymbol is 0 or
        // the symbol of this path's parent.
        if (!sender.addingFor(*sa, [&] {
                return node.watcher().addComplete(*parent, leafName, created.get(), path,
                                                  ownPath ? sa->localSymbol : 0, &watchedAs,
                                                  ownPath && leafStart > 0 ? parentSymbol : 0);
            })) {
            Basalt::Trace::error("NewAttributeReceiver::handleBundle # Could not add '%s'",
                                 path.constData());
            sa->codecs.setDeserializer(skippingDeserializer(fixedSize));
            return;
        }
        // Owned by its host now; or a listener of the report deleted it, or its parent.
        Tessel::Attribute* const added = created.release();
        // Watched under the record's symbol: then the cache holds it there (a listener's
        // removal would have ended the watching).
        const bool watched = watchedAs != 0 && watchedAs == sa->localSymbol;
        if (!watched && node.attributeCache().find(sa->localSymbol) != added)
            sa->codecs.setDeserializer(skippingDeserializer(fixedSize));
        return;
    }

    sa->codecs.setDeserializer(std::move(deserializer));
    if (!sa->codecs.hasDeserializer()) {
        Basalt::Trace::error("NewAttributeReceiver::createDeserializer # Found an attribute that "
                             "we don't know how to deserialize at '%s'",
                             path.constData());
        skipAll();
        return;
    }
    if (!hasValue)
        return;
    if (!apply || !writable) {
        skipValue(reader, fixedSize);
        if (apply) {
            // The peer changed it after it saw ours: it gets ours back.
            sender.sendAgain(sa->localSymbol, false);
            writeRules->refuse(path);
        }
        return;
    }
    sa->valueReceived = sequence != 0;
    sender.applyWithoutEcho(sa->localSymbol, [&] { sa->codecs.deserialize(reader); });
}

void NewAttributeReceiver::prefetchRecord(const QByteArray& path, AheadHash& hashed) {
    const Basalt::SymbolRegistry& registry = node.symbolRegistry();
    const char* const bytes = path.constData();
    const int parentBytes = path.lastIndexOf('/');
    if (parentBytes <= 0) {
        registry.prefetch(path);
        return;
    }
    if (!aheadParent.holds(bytes, parentBytes)) {
        const int grandparentBytes = path.lastIndexOf('/', parentBytes - 1);
        if (grandparentBytes > 0 && aheadGrandparent.holds(bytes, grandparentBytes)) {
            aheadParent.hash =
                registry.hashChild(aheadGrandparent.hash, bytes + grandparentBytes + 1,
                                   parentBytes - grandparentBytes - 1);
        } else {
            aheadParent.hash = registry.hashOf(bytes, parentBytes, &aheadGrandparent.hash);
            aheadGrandparent.path.assign(bytes, size_t(std::max(grandparentBytes, 0)));
        }
        aheadParent.path.assign(bytes, size_t(parentBytes));
        // A parent seen first may be a node still to be made, under that hash.
        registry.prefetchHashed(aheadParent.hash);
    }
    hashed.parent = aheadParent.hash;
    hashed.grandparent = aheadGrandparent.hash;
    hashed.path = registry.hashChild(aheadParent.hash, bytes + parentBytes + 1,
                                     path.size() - parentBytes - 1);
    registry.prefetchHashed(hashed.path);
}

uint32_t NewAttributeReceiver::localSymbolOf(const QByteArray& path, int leafStart,
                                             const QByteArray& leafName, const AheadHash* hashed) {
    const int parentBytes = leafStart - 1;
    if (parentBytes <= 0 || parentSymbol == 0 || parentBytes != parentPathBytes ||
        std::memcmp(path.constData(), parentPathOwner.constData(), size_t(parentBytes)) != 0)
        return 0;
    // The registry keeps the leaf: the one copy the attribute's name shares as well.
    // The registry takes the hashes looked ahead at when the parent's name is the one
    // they were chained from.
    Basalt::SymbolRegistry& registry = node.symbolRegistry();
    return hashed && hashed->path != 0
               ? registry.lookupOrDefineChild(parentSymbol, leafName, hashed->parent, hashed->path)
               : registry.lookupOrDefineChild(parentSymbol, leafName);
}

Tessel::Node* NewAttributeReceiver::findParent(const QByteArray& path, int leafStart, bool create,
                                               const AheadHash* hashed) {
    if (leafStart == 0)
        return &node;
    const int parentBytes = leafStart - 1;
    Tessel::Node* parent = &node;
    int start = 0;
    if (parentSymbol != 0) {
        // Whatever the cache holds at the last parent's path now: the node found last,
        // another node put there since, or nothing (then the walk below tells what to do).
        const AttributeCache& cache = node.attributeCache();
        const uint64_t removals = cache.removals();
        if (removals != parentHeldRemovals) {
            parentHeld = cache.find(parentSymbol);
            parentHeldRemovals = removals;
        }
        Tessel::Attribute* const held = parentHeld;
        Tessel::Node* const last = held ? held->asNode() : nullptr;
        const char* const lastPath = parentPathOwner.constData();
        if (parentBytes == parentPathBytes &&
            std::memcmp(path.constData(), lastPath, size_t(parentBytes)) == 0) {
            if (last)
                return last;
        } else if (last && node.attributeCache().observedSymbolOf(*last) == parentSymbol) {
            // A node watched at its own path (not one an alias shows there) has the nodes
            // of that path's prefixes above it: the walk goes on from the deepest one this
            // path shares.
            const int common =
                commonParent(path.constData(), parentBytes, lastPath, parentPathBytes);
            int levels = 0; // the last parent's components below the shared ones
            for (int at = common; at < parentPathBytes; ++at)
                levels += lastPath[at] == '/';
            Tessel::Node* shared = common > 0 ? last : nullptr;
            for (; shared && levels > 0; --levels)
                shared = shared->host();
            if (shared) {
                parent = shared;
                start = common + 1;
            }
        }
    }
    bool throughAlias = false;
    QByteArray& name = componentView; // looking up a child copies nothing
    while (start < leafStart) {
        const int end = path.indexOf('/', start);
        name.setRawData(path.constData() + start, uint(end - start));
        Tessel::Attribute* raw = parent->attribute(name);
        if (!raw) {
            if (!create || !(parent = addNode(*parent, path, start, end, !throughAlias,
                                              end == parentBytes ? hashed : nullptr)))
                return nullptr;
            start = end + 1;
            continue;
        }
        Tessel::Attribute* const resolved = Tessel::AttributeAlias::resolve(raw);
        throughAlias = throughAlias || resolved != raw;
        if (!Tessel::asNode(resolved) && replaceMismatched && create) {
            // A mirror takes the peer's shape: a value where the peer has a node goes.
            Tessel::Node* const host = parent;
            host->deleteAttribute(raw);
            if (host->attribute(name) || !(parent = addNode(*host, path, start, end, !throughAlias,
                                                            end == parentBytes ? hashed : nullptr)))
                return nullptr;
            start = end + 1;
            continue;
        }
        if (!(parent = Tessel::asNode(resolved))) {
            Basalt::Trace::error("NewAttributeReceiver::createOrFindAttribute # Found an existing "
                                 "attribute where a node was expected");
            return nullptr;
        }
        start = end + 1;
    }
    // Only a parent at its own path is kept: the symbol the watcher observes it under is
    // then the symbol of this path.
    const unsigned int symbol = throughAlias ? 0 : node.attributeCache().observedSymbolOf(*parent);
    parentPathOwner = symbol ? path : QByteArray();
    parentPathBytes = symbol ? parentBytes : -1;
    parentSymbol = symbol;
    parentHeldRemovals = node.attributeCache().removals();
    parentHeld = symbol ? node.attributeCache().find(symbol) : nullptr;
    return parent;
}

bool NewAttributeReceiver::mayCreate(bool node, const QByteArray& path, int pathBytes) {
    if (!footprint)
        return true;
    if (node ? footprint->chargeNode(pathBytes) : footprint->chargeAttribute(pathBytes))
        return true;
    if (!footprintSaid) {
        footprintSaid = true;
        Basalt::Trace::warning("NewAttributeReceiver::handleBundle # The peer's additions would "
                               "make this side hold more than %lld bytes for the %lld bytes it "
                               "sent; '%s' and further ones past that are not created",
                               static_cast<long long>(footprint->held()),
                               static_cast<long long>(footprint->receivedSoFar()),
                               path.constData());
    }
    return false;
}

Tessel::Node* NewAttributeReceiver::addNode(Tessel::Node& parent, const QByteArray& path, int start,
                                            int end, bool atOwnPath, const AheadHash* hashes) {
    if (!mayCreate(true, path, end))
        return nullptr;
    const QByteArray name(path.constData() + start, end - start);
    auto created = std::make_unique<Tessel::Node>(nullptr, name);
    // A parent observed at its own path names the node's symbol by its own and the name,
    // which spares the watcher finding it again and checking it against the path.
    const unsigned int under = atOwnPath ? node.attributeCache().observedSymbolOf(parent) : 0;
    unsigned int symbol = 0;
    if (under) {
        Basalt::SymbolRegistry& registry = node.symbolRegistry();
        symbol =
            hashes ? registry.lookupOrDefineChild(under, name, hashes->grandparent, hashes->parent)
                   : registry.lookupOrDefineChild(under, name);
    }
    // Watched at once, which reports it (before the attribute that brought it exists): a
    // listener of the report may delete it again, and then the walk must not go on.
    nodePathView.setRawData(path.constData(), uint(end));
    if (!node.watcher().addComplete(parent, name, created.get(), nodePathView, symbol, &symbol,
                                    symbol ? under : 0))
        return nullptr;
    const Tessel::Attribute* const added = created.release(); // owned by its host, or gone
    Tessel::Attribute* const now = symbol ? node.attributeCache().find(symbol) : nullptr;
    if (now != added)
        return nullptr;
    if (footprint)
        footprint->nodeCreated(symbol);
    return Tessel::asNode(now);
}

} // namespace Dovel
