#include "Basalt/PathTable.h"

#include "Basalt/ByteGrowth.h"
#include "Basalt/KeyedHash.h"
#include "Basalt/NullBytes.h"

#include <QRandomGenerator>

#include <algorithm>
#include <cassert>
#include <cstring>

namespace Basalt {

namespace {

constexpr uint64_t HighHalf = ~uint64_t(0xffffffffu);

} // namespace

PathTable::PathTable() {
    key[0] = QRandomGenerator::system()->generate64();
    key[1] = QRandomGenerator::system()->generate64();
}

PathTable::~PathTable() = default;

uint64_t PathTable::hashOf(const QByteArray& name) const {
    uint64_t prefixHash = 0;
    int prefixSize = 0;
    return hashName(name.constData(), name.size(), &prefixHash, &prefixSize);
}

uint64_t PathTable::hashOf(const char* bytes, int size, uint64_t* prefixHash) const {
    int prefixSize = 0;
    return hashName(bytes, size, prefixHash, &prefixSize);
}

uint64_t PathTable::hashChild(uint64_t parent, const char* leaf, int size) const {
    // Entries keep the low half of their hash alone: a child is hashed from that.
    return keyedHash(parent & ~HighHalf, leaf, size_t(size), key);
}

uint64_t PathTable::hashName(const char* bytes, int size, uint64_t* prefixHash,
                             int* prefixSize) const {
    uint64_t hash = Root;
    int start = 0;
    *prefixHash = Root;
    *prefixSize = -1;
    for (const char* at = static_cast<const char*>(std::memchr(bytes, '/', size_t(size))); at;
         at = static_cast<const char*>(std::memchr(at + 1, '/', size_t(bytes + size - at - 1)))) {
        const int i = int(at - bytes);
        hash = hashChild(hash, bytes + start, i - start);
        start = i + 1;
        *prefixHash = hash;
        *prefixSize = i;
    }
    return hashChild(hash, bytes + start, size - start);
}

bool PathTable::matches(uint32_t id, const char* bytes, int size) const {
    int end = size;
    for (uint32_t at = id;;) {
        const Entry& e = entry(at);
        const int n = e.tail.size();
        if (e.parent == 0)
            return n == end && std::memcmp(bytes, e.tail.constData(), size_t(n)) == 0;
        if (end < n + 1 || bytes[end - n - 1] != '/' ||
            std::memcmp(bytes + end - n, e.tail.constData(), size_t(n)) != 0)
            return false;
        end -= n + 1;
        at = e.parent;
    }
}

template <typename Same> uint32_t PathTable::probe(uint64_t hash, Same same) const {
    if (hashSlots.empty())
        return 0;
    const size_t mask = hashSlots.size() - 1;
    for (size_t i = homeOf(hash);; i = (i + 1) & mask) {
        const uint64_t slot = hashSlots[i];
        if (slot == 0)
            return 0;
        const uint32_t id = uint32_t(slot);
        if ((slot & HighHalf) == (hash & HighHalf) && entry(id).lowHash == uint32_t(hash) &&
            same(id))
            return id;
    }
}

uint32_t PathTable::findHashed(const char* bytes, int size, uint64_t hash) const {
    return probe(hash, [&](uint32_t id) { return matches(id, bytes, size); });
}

uint32_t PathTable::findChildHashed(uint32_t parent, const QByteArray& leaf, uint64_t hash) const {
    if (isTop(parent))
        return findHashed(leaf.constData(), leaf.size(), hash);
    return probe(hash, [&](uint32_t id) {
        const Entry& e = entry(id);
        if (e.parent == parent)
            return e.tail == leaf;
        // Added whole before its parent was: compare the whole name (rare).
        const QByteArray whole = name(parent) + '/' + leaf;
        return matches(id, whole.constData(), whole.size());
    });
}

uint32_t PathTable::find(const QByteArray& name) const {
    uint64_t prefixHash = 0;
    int prefixSize = 0;
    const uint64_t hash = hashName(name.constData(), name.size(), &prefixHash, &prefixSize);
    return findHashed(name.constData(), name.size(), hash);
}

uint32_t PathTable::insert(const QByteArray& name) {
    uint64_t prefixHash = 0;
    int prefixSize = 0;
    const char* const bytes = name.constData();
    const uint64_t hash = hashName(bytes, name.size(), &prefixHash, &prefixSize);
    if (const uint32_t known = findHashed(bytes, name.size(), hash))
        return known;
    const uint32_t parent = prefixSize > 0 ? findHashed(bytes, prefixSize, prefixHash) : 0;
    if (parent != 0)
        return add(tails.share(bytes + prefixSize + 1, name.size() - prefixSize - 1), parent, hash);
    // The empty name is a name: keep it non-null, as every name handed out.
    if (isNull(name))
        return add(QByteArray(""), 0, hash);
    return add(tails.share(name), 0, hash);
}

uint64_t PathTable::childHash(uint32_t parent, const QByteArray& leaf) const {
    return hashChild(isTop(parent) ? Root : entry(parent).lowHash, leaf.constData(), leaf.size());
}

uint32_t PathTable::findChild(uint32_t parent, const QByteArray& leaf) const {
    if (!known(parent))
        return 0;
    if (leaf.contains('/'))
        return find(isTop(parent) ? leaf : name(parent) + '/' + leaf);
    return findChildHashed(parent, leaf, childHash(parent, leaf));
}

uint32_t PathTable::insertChild(uint32_t parent, const QByteArray& leaf) {
    if (!known(parent))
        return 0;
    if (leaf.contains('/'))
        return insert(isTop(parent) ? leaf : name(parent) + '/' + leaf);
    return addChild(parent, leaf, childHash(parent, leaf));
}

uint32_t PathTable::insertChild(uint32_t parent, const QByteArray& leaf, uint64_t parentHash,
                                uint64_t hash) {
    // The child's hash follows from the low half of its parent's, which is what is kept.
    if (!known(parent) || isTop(parent) || entry(parent).lowHash != uint32_t(parentHash) ||
        leaf.contains('/'))
        return insertChild(parent, leaf);
    assert(hash == childHash(parent, leaf));
    return addChild(parent, leaf, hash);
}

uint32_t PathTable::addChild(uint32_t parent, const QByteArray& leaf, uint64_t hash) {
    if (const uint32_t found = findChildHashed(parent, leaf, hash))
        return found;
    const uint32_t kept = isTop(parent) ? 0 : parent;
    if (isNull(leaf))
        return add(QByteArray(""), kept, hash);
    return add(tails.share(leaf), kept, hash);
}

bool PathTable::isChildOf(uint32_t id, uint32_t parent, const QByteArray& leaf) const {
    if (!known(id) || !known(parent))
        return false;
    const Entry& e = entry(id);
    return e.parent == (isTop(parent) ? 0 : parent) && e.tail == leaf;
}

int PathTable::nameSize(uint32_t id) const {
    if (!known(id))
        return -1;
    int size = 0;
    for (uint32_t at = id; at != 0;) {
        const Entry& e = entry(at);
        size += e.tail.size() + (e.parent != 0);
        at = e.parent;
    }
    return size;
}

QByteArray PathTable::name(uint32_t id) const {
    if (!known(id))
        return QByteArray();
    QByteArray out(nameSize(id), Qt::Uninitialized);
    fillName(id, out.data() + out.size());
    return out;
}

void PathTable::appendName(uint32_t id, QByteArray& out) {
    const Entry& e = entry(id);
    if (e.parent == 0) {
        out.append(e.tail);
        return;
    }
    // Siblings are named one after the other: their parent's name is built once.
    if (e.parent != namedParent) {
        parentName.resize(nameSize(e.parent));
        fillName(e.parent, parentName.data() + parentName.size());
        namedParent = e.parent;
    }
    char* to = growBy(out, parentName.size() + 1 + e.tail.size());
    std::memcpy(to, parentName.constData(), size_t(parentName.size()));
    to += parentName.size();
    *to++ = '/';
    std::memcpy(to, e.tail.constData(), size_t(e.tail.size()));
}

void PathTable::prefetchName(uint32_t id) const {
    if (!known(id))
        return;
    const uint32_t parent = entry(id).parent;
    if (parent != 0)
        // The header of the parent's leaf bytes, which holds them too when they are short.
        __builtin_prefetch(const_cast<QByteArray&>(entry(parent).tail).data_ptr());
}

void PathTable::fillName(uint32_t id, char* end) const {
    for (uint32_t at = id; at != 0;) {
        const Entry& e = entry(at);
        end -= e.tail.size();
        std::memcpy(end, e.tail.constData(), size_t(e.tail.size()));
        if (e.parent != 0)
            *--end = '/';
        at = e.parent;
    }
}

bool PathTable::hasLeaf(uint32_t id, const QByteArray& leaf) const {
    if (!known(id))
        return false;
    const Entry& e = entry(id);
    const int start = e.parent == 0 ? e.tail.lastIndexOf('/') + 1 : 0;
    return e.tail.size() - start == leaf.size() &&
           std::memcmp(e.tail.constData() + start, leaf.constData(), size_t(leaf.size())) == 0;
}

void PathTable::prefetch(const QByteArray& name) const {
    if (hashSlots.empty())
        return;
    uint64_t prefixHash = 0;
    int prefixSize = 0;
    const uint64_t hash = hashName(name.constData(), name.size(), &prefixHash, &prefixSize);
    __builtin_prefetch(&hashSlots[homeOf(hash)]);
}

void PathTable::prefetchHashed(uint64_t hash) const {
    // The two may come from different tables: the line is then merely of no use.
    const uintptr_t slots = publishedSlots.load(std::memory_order_relaxed);
    const int bits = publishedBits.load(std::memory_order_relaxed);
    if (slots != 0 && bits > 0)
        __builtin_prefetch(reinterpret_cast<const void*>(slots + uintptr_t(hash >> (64 - bits)) *
                                                                     sizeof(uint64_t)));
}

uint32_t PathTable::add(const QByteArray& tail, uint32_t parent, uint64_t hash) {
    if (count == UINT32_MAX)
        return 0;
    if ((size_t(count) + 1) * 3 > hashSlots.size() * 2)
        rehash(std::max(4, slotBits + 1));
    const uint32_t id = count + 1;
    Entry& e = entries.emplaceBack();
    e.tail = tail;
    e.parent = parent;
    e.lowHash = uint32_t(hash);
    count = id;
    placeSlot((hash & HighHalf) | id);
    return id;
}

void PathTable::placeSlot(uint64_t slot) {
    const size_t mask = hashSlots.size() - 1;
    size_t i = homeOf(slot);
    while (hashSlots[i] != 0)
        i = (i + 1) & mask;
    hashSlots[i] = slot;
}

void PathTable::rehash(int bits) {
    std::vector<uint64_t> old(size_t(1) << bits, 0);
    old.swap(hashSlots);
    slotBits = bits;
    publishedSlots.store(reinterpret_cast<uintptr_t>(hashSlots.data()), std::memory_order_relaxed);
    publishedBits.store(bits, std::memory_order_relaxed);
    for (const uint64_t slot : old)
        if (slot != 0)
            placeSlot(slot);
}

} // namespace Basalt
