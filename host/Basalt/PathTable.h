// Interned names read as '/'-separated paths, each kept once and given a dense id.
//
// A name is stored as the id of its parent (the name before its last '/', when the
// table holds it) and the bytes after that '/'; otherwise as its whole bytes. A tree's
// million paths thus share their parents' bytes instead of holding a copy each, which
// used to cost more than everything else the tables keep. Under an empty name the child
// is the leaf alone, as paths under a root read ("a", not "/a").
//
// Ids start at 1 and are never reused: nothing is removed. A name's hash is keyed by a
// random key and chained over its components, so that a child's hash follows from the
// low half of its parent's and its leaf, and a peer cannot choose names that crowd one
// run of slots (SipHash-1-3, keyed). An entry keeps the low half of its hash and its
// slot the high half: 16 bytes an entry, for the millions of names of a tree.
//
// Not thread-safe, the owner guards it; except hashOf, hashChild and prefetchHashed,
// which read only what never changes or what is published for them.
#pragma once

#include "Basalt/NameCache.h"
#include "Basalt/StableArray.h"

#include <QByteArray>

#include <atomic>
#include <cstdint>
#include <memory>
#include <utility>
#include <vector>

namespace Basalt {

class PathTable {
public:
    PathTable();
    ~PathTable();
    PathTable(const PathTable&) = delete;
    PathTable& operator=(const PathTable&) = delete;

    // The id of `name`, 0 when absent.
    uint32_t find(const QByteArray& name) const;
    // The id of `name`, added when absent (0 when the ids are used up).
    uint32_t insert(const QByteArray& name);
    // The same for the child `leaf` of the entry `parent`, without building its path;
    // 0 for an unknown parent.
    uint32_t findChild(uint32_t parent, const QByteArray& leaf) const;
    uint32_t insertChild(uint32_t parent, const QByteArray& leaf);
    // insertChild for a caller that has hashed the child already: `hash` must be
    // hashChild(parentHash, leaf). Taken when `parentHash` is the hash of the parent's
    // name (and the parent is not the empty name); otherwise the child is hashed anew.
    uint32_t insertChild(uint32_t parent, const QByteArray& leaf, uint64_t parentHash,
                         uint64_t hash);

    // The name of an id (a null array for an unknown id), built from its parts.
    QByteArray name(uint32_t id) const;
    // Appends the name of a known id to `out`, without a copy of its own.
    void appendName(uint32_t id, QByteArray& out);
    // Starts loading what appendName(id) will read beyond the entries themselves: the
    // leaf bytes of the entry's parent, which a first pass over a large tree finds cold
    // (one per node). Changes nothing; an unknown id is ignored.
    void prefetchName(uint32_t id) const;
    // Whether the last component of the name of an id (the bytes after its last '/', or
    // the whole name) is `leaf`; false for an unknown id.
    bool hasLeaf(uint32_t id, const QByteArray& leaf) const;
    // The hash a name is kept under; for checks that no name can choose it.
    uint64_t hashOf(const QByteArray& name) const;
    // The hash of the `size` bytes at `bytes` as a name, and in `prefixHash` that of the
    // name before its last '/' (the seed of the chain when it has none).
    uint64_t hashOf(const char* bytes, int size, uint64_t* prefixHash) const;
    // The hash of the child `leaf` of a name hashed `parent`: a name's hash follows from
    // the low half of its parent's. Reads only the key, which never changes.
    uint64_t hashChild(uint64_t parent, const char* leaf, int size) const;
    // Whether `id` is the child `leaf` of `parent` as stored: true only for a name kept
    // under its parent, so a false answer leaves the question open. Builds and hashes
    // nothing.
    bool isChildOf(uint32_t id, uint32_t parent, const QByteArray& leaf) const;
    // Whether `name` is the name of `id`, without building it.
    bool isNameOf(uint32_t id, const QByteArray& name) const {
        return known(id) && matches(id, name.constData(), name.size());
    }
    int size() const { return int(count); }

    // Starts loading the slot where `name` is looked up: in a table of a million names
    // nearly every probe misses the cache. Changes nothing.
    void prefetch(const QByteArray& name) const;
    // The same for a name of hash `hash`. Needs no lock: it reads where the slots were
    // last published, and loading a line of a table since replaced is harmless (a
    // prefetch never faults).
    void prefetchHashed(uint64_t hash) const;

private:
    struct Entry {
        QByteArray tail;      // the bytes after the parent's name and '/', or the whole name
        uint32_t parent = 0;  // 0: `tail` is the whole name
        uint32_t lowHash = 0; // the low half of the whole name's hash
    };
    static_assert(sizeof(void*) != 8 || sizeof(Entry) == 16, "an entry in 16 bytes");
    Entry& entry(uint32_t id) { return entries[id - 1]; }
    const Entry& entry(uint32_t id) const { return entries[id - 1]; }
    bool known(uint32_t id) const { return id != 0 && id <= count; }
    // The size of the name of a known id.
    int nameSize(uint32_t id) const;
    // Writes the name of a known id to the bytes that end at `end`.
    void fillName(uint32_t id, char* end) const;

    // The hash of the whole name, and of the part before its last '/' (`prefixHash`;
    // `prefixSize` is -1 when there is no '/').
    uint64_t hashName(const char* bytes, int size, uint64_t* prefixHash, int* prefixSize) const;
    // The id of the name of that hash, 0 when absent.
    uint32_t findHashed(const char* bytes, int size, uint64_t hash) const;
    uint32_t findChildHashed(uint32_t parent, const QByteArray& leaf, uint64_t hash) const;
    // The id in the slots of that hash for which `same(id)` holds, 0 when none.
    template <typename Same> uint32_t probe(uint64_t hash, Same same) const;
    // The hash of the child `leaf` of the entry `parent`.
    uint64_t childHash(uint32_t parent, const QByteArray& leaf) const;
    // Whether the entry's name is empty: its children are their leaves alone.
    bool isTop(uint32_t id) const {
        const Entry& e = entry(id);
        return e.parent == 0 && e.tail.isEmpty();
    }
    // Whether the entry's name is those bytes.
    bool matches(uint32_t id, const char* bytes, int size) const;
    // insertChild for a known parent and a leaf without '/', hashed `hash`.
    uint32_t addChild(uint32_t parent, const QByteArray& leaf, uint64_t hash);
    // Adds an entry that is known to be absent.
    uint32_t add(const QByteArray& tail, uint32_t parent, uint64_t hash);
    void placeSlot(uint64_t slot);
    void rehash(int bits);
    size_t homeOf(uint64_t hashOrSlot) const { return size_t(hashOrSlot >> (64 - slotBits)); }

    // The chain's seed: the hash a name without a parent is a child of.
    static constexpr uint64_t Root = 0;

    StableArray<Entry, 12> entries; // by id - 1
    uint32_t count = 0;
    // Open addressing, probed linearly from the top bits of the hash and at most two
    // thirds full. A slot holds an id in its low half (0: free) and the top half of the
    // name's hash above it, so that probing past other names and growing never read the
    // entries (a cache miss each).
    std::vector<uint64_t> hashSlots;
    int slotBits = 0;
    // hashSlots and slotBits as prefetchHashed reads them, without the owner's lock.
    std::atomic<uintptr_t> publishedSlots{0};
    std::atomic<int> publishedBits{0};
    uint64_t key[2];
    // The short tails a tree repeats ("a", "pos"), kept once.
    NameCache tails;
    // The parent appendName named last, and its name (names never change).
    uint32_t namedParent = 0;
    QByteArray parentName;
};

} // namespace Basalt
