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
// It also counts the node's children once it exists (it then holds every one of them);
// a node without an index has few and counts them itself. The count and the size sit
// in front of the slots, in one block: a node of a large tree keeps one pointer here.
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
    ~ChildIndex();

    // Whether there is no index (a node with few children scans them).
    bool isEmpty() const { return !table; }
    // The node's children, once indexed.
    uint32_t children() const { return table ? table->listed : 0; }
    // A child was listed or unlisted: counted while there is an index.
    void childListed() {
        if (table)
            ++table->listed;
    }
    void childUnlisted() {
        if (table)
            --table->listed;
    }
    // The indexed child named `name`, or null.
    Attribute* find(const QByteArray& name) const;
    // Makes the index for `listed` children, counted by the node, before it inserts
    // them; room for all of them without growing.
    void create(uint32_t listed);
    // Indexes `child`, counted already, under its name, which no indexed child has.
    void insert(Attribute* child);
    // Forgets the child named `name`, uncounted already; false when none is indexed.
    // The index goes with the last child.
    bool remove(const QByteArray& name);

private:
    // The block's header; the entries (slots) follow it.
    struct Table {
        uint32_t mask;
        uint32_t listed;
    };
    static Attribute** entriesOf(Table* table) { return reinterpret_cast<Attribute**>(table + 1); }
    Attribute** entries() const { return entriesOf(table); }
    std::size_t homeOf(const QByteArray& name) const;
    std::size_t capacity() const { return std::size_t(table->mask) + 1; }
    // A new table of `size` slots (a power of two) with the children of the old one.
    void rehash(std::size_t size);
    // Puts `child` in the first free slot from its home; the table has room.
    void place(Attribute* child);
    static void release(Table* table);

    Table* table = nullptr; // owned
};

} // namespace Tessel
