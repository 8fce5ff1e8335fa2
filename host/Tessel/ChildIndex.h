// The children of a node that has many, found by name: an open-addressing table of the
// children themselves, whose names are the keys, probed linearly from a keyed hash of
// the name and kept at most half full. A slot is one pointer; a hash of byte arrays
// spent a heap node per child (about 56 bytes with its bucket), and a tree of a million
// attributes indexes a quarter of a million children (its items under their groups).
//
// The key is drawn once per process (Basalt::keyedHash), so names a peer chooses cannot
// be aimed at one run of slots: a QHash, which this replaces, hashed with a seed that
// whole families of names collide under whatever its value. Children's names must not
// change while they are indexed and must differ from each other (a node's children do,
// and keep theirs).
//
// It also counts the node's children, indexed or not: once the index exists it holds
// every one of them, so one counter serves both, in every node of a tree.
//
// Not thread-safe; the node's owner uses it on one thread.
#pragma once

#include <QByteArray>

#include <cstddef>
#include <cstdint>
#include <memory>

namespace Tessel {

class Attribute;

class ChildIndex {
public:
    ChildIndex() = default;
    ChildIndex(const ChildIndex&) = delete;
    ChildIndex& operator=(const ChildIndex&) = delete;

    // Whether there is no index (a node with few children scans them).
    bool isEmpty() const { return !table; }
    // The node's children, indexed or not.
    uint32_t children() const { return listed; }
    void childListed() { ++listed; }
    void childUnlisted() { --listed; }
    // The indexed child named `name`, or null.
    Attribute* find(const QByteArray& name) const;
    // Indexes `child`, counted already, under its name, which no indexed child has.
    void insert(Attribute* child);
    // Forgets the child named `name`, uncounted already; false when none is indexed.
    // The table goes with the last child.
    bool remove(const QByteArray& name);
    // Room for `children` without growing.
    void reserve(std::size_t children);

private:
    std::size_t homeOf(const QByteArray& name) const;
    std::size_t capacity() const { return std::size_t(mask) + 1; }
    void rehash(std::size_t size);
    // Puts `child` in the first free slot from its home; the table has room.
    void place(Attribute* child);

    std::unique_ptr<Attribute*[]> table;
    uint32_t mask = 0;
    uint32_t listed = 0;
};

} // namespace Tessel
