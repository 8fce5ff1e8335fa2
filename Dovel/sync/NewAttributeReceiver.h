// The receiver of "Quillon.Dovel.AttributeNew": binds each attribute the peer announces
// to a session attribute, finds the attribute at the same path in the local tree (or
// creates it and its missing parent nodes when allowed), installs the value
// deserializer, and applies the announced value unless it is stale. Lives on the tree
// thread (the session's dispatch thread); the storage, registries, type registry and
// sender belong to the same session and outlive it.
#pragma once

#include "Dovel/bundle/BundleReceiver.h"

#include <QByteArray>

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>

namespace Tessel {
class Attribute;
class Node;
} // namespace Tessel

namespace Dovel {

class AttributeStorage;
class NodeChangeSender;
class PeerSymbols;
class PeerFootprint;
class PeerWriteRules;
class RemoteNode;
class TypeRegistry;
struct DovelSessionAttribute;

class NewAttributeReceiver : public BundleReceiver {
public:
    NewAttributeReceiver(RemoteNode& node, AttributeStorage& storage, PeerSymbols& peerSymbols,
                         TypeRegistry& types, NodeChangeSender& sender);
    ~NewAttributeReceiver() override;

    void handleBundle(BundleReader& reader) override;

    // Whether attributes (and nodes) missing locally are created. Off by default.
    bool createMissingAttributes() const { return createMissing; }
    void setCreateMissingAttributes(bool create) { createMissing = create; }
    // A mirror's rule, with creation on: an attribute of another type than the peer's,
    // or a value where the peer has a node and the reverse, is deleted and made again.
    void setReplaceMismatched(bool replace) { replaceMismatched = replace; }
    // Stale-value skipping: a value is read past when the peer wrote it before seeing
    // this side's latest value of the attribute. The session's master turns it on, so
    // that it keeps its values when both sides start with different ones.
    bool skipStaleValues() const { return skipStale; }
    void setSkipStaleValues(bool skip) { skipStale = skip; }
    // What the peer may change; null (the default): everything. Where it may not, no
    // attribute or node is created and no value applied (the refusal is reported).
    // Outlives the receiver.
    void setWriteRules(const PeerWriteRules* rules) { writeRules = rules; }
    // Where creations are charged against what the peer sent; null: not bounded.
    // Outlives the receiver.
    void setFootprint(PeerFootprint* footprint) { this->footprint = footprint; }

private:
    // What the look-ahead hashed for the entry of a peer's symbol: its pending name's
    // bytes (the name it hashed), the hash of the path before the leaf and of the whole
    // path (0: none), and of the path before the parent's last component (the parent's
    // parent, which a new parent node is defined under).
    struct AheadHash {
        uint32_t symbol;
        const char* name;
        uint64_t parent;
        uint64_t path;
        uint64_t grandparent;
    };
    // Handles one entry after its four words; `reader` stands at its value (if any).
    void handleEntry(BundleReader& reader, uint32_t symbol, uint32_t typeCode, uint32_t fixedSize,
                     bool hasValue, uint32_t acknowledged, uint32_t sequence, uint32_t messageIndex,
                     const AheadHash* hashed);
    // Starts loading where the local symbol of `path` is looked up, and keeps the hashes
    // that took in `hashed` (none for a path of one component).
    void prefetchRecord(const QByteArray& path, AheadHash& hashed);
    // The local symbol of `path` (its leaf at `leafStart`) from the parent found last,
    // when that is the path's parent: no path to hash. 0 otherwise. `leafName` is the
    // leaf's bytes, shared (the registry keeps them); `hashed`, when not null, what the
    // look-ahead hashed for this very name.
    uint32_t localSymbolOf(const QByteArray& path, int leafStart, const QByteArray& leafName,
                           const AheadHash* hashed);
    // The node that holds the attribute at `path`, whose last component starts at
    // `leafStart`; missing nodes are made with `create`. Null when there is none (the
    // entry is to be skipped). `hashed`, when not null, what the look-ahead hashed for
    // this very name.
    Tessel::Node* findParent(const QByteArray& path, int leafStart, bool create,
                             const AheadHash* hashed);
    // A new plain node under `parent` for the component of `path` in [start, end),
    // watched at once; null when a listener of its report took it away again. When
    // `parent` stands at its own path, the first `start - 1` bytes of `path` (no alias on
    // the way), `atOwnPath` tells so: the node's symbol then follows from the parent's;
    // `hashes`, when not null, hashed the node's path and its parent's.
    Tessel::Node* addNode(Tessel::Node& parent, const QByteArray& path, int start, int end,
                          bool atOwnPath, const AheadHash* hashes);

    RemoteNode& node;
    AttributeStorage& storage;
    PeerSymbols& peerSymbols;
    TypeRegistry& types;
    NodeChangeSender& sender;
    bool createMissing = false;
    bool replaceMismatched = false;
    bool skipStale = false;
    const PeerWriteRules* writeRules = nullptr;
    PeerFootprint* footprint = nullptr;
    bool footprintSaid = false; // the refusal is logged once
    // False (logged once) when the footprint cannot take a creation at `path`.
    bool mayCreate(bool node, const QByteArray& path, int pathBytes);
    // The parent found last, as its path (the first `parentPathBytes` bytes of
    // `parentPathOwner`, which shares a peer path's bytes) and the symbol under which the
    // attribute cache holds it: consecutive entries mostly share a parent, and the cache
    // is kept in step with the tree, so one comparison and one lookup replace a walk
    // from the root (a hash probe per component). A path that shares only some of the
    // parent's components is walked from the deepest shared node above it. The lookup's
    // answer is kept too, and stands while the cache has removed nothing since.
    QByteArray parentPathOwner;
    int parentPathBytes = -1;
    unsigned int parentSymbol = 0;
    Tessel::Attribute* parentHeld = nullptr;
    uint64_t parentHeldRemovals = 0;
    // A view of a path's components for the lookups (setRawData). Kept from entry to
    // entry: a view made anew costs Qt a heap block for its header, one kept unshared is
    // pointed elsewhere in place. Between uses it may point to bytes that are gone;
    // nothing reads it then.
    QByteArray componentView;
    // The same for the path of a node being added, which the watcher reads while it
    // adds the node and copies where it keeps it.
    QByteArray nodePathView;
    // The parent and grandparent paths that prefetchRecord hashed last, with their
    // hashes: the entries looked ahead at are mostly siblings or cousins, so most cost
    // one hash of a leaf.
    struct HashedPath {
        std::string path;
        uint64_t hash = 0;
        bool holds(const char* bytes, int size) const {
            return path.size() == size_t(size) &&
                   std::memcmp(path.data(), bytes, size_t(size)) == 0;
        }
    };
    HashedPath aheadParent;
    HashedPath aheadGrandparent;
};

} // namespace Dovel
