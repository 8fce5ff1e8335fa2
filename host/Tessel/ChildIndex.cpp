#include "Tessel/ChildIndex.h"

#include "Tessel/Attribute.h"

#include "Basalt/BackwardShift.h"
#include "Basalt/KeyedHash.h"

#include <new>
#include <utility>

namespace Tessel {

ChildIndex::~ChildIndex() {
    release(table);
}

void ChildIndex::release(Table* table) {
    if (table)
        ::operator delete(table);
}

std::size_t ChildIndex::homeOf(const QByteArray& name) const {
    static const uint64_t* const key = Basalt::processHashKey();
    return std::size_t(Basalt::keyedHash(0, name.constData(), size_t(name.size()), key) >> 32) &
           table->mask;
}

Attribute* ChildIndex::find(const QByteArray& name) const {
    if (!table)
        return nullptr;
    Attribute* const* const at = entries();
    for (std::size_t i = homeOf(name);; i = (i + 1) & table->mask) {
        Attribute* child = at[i];
        if (!child || child->name() == name)
            return child;
    }
}

void ChildIndex::create(uint32_t listed) {
    std::size_t wanted = 16;
    while (wanted < 2 * std::size_t(listed))
        wanted *= 2;
    rehash(wanted);
    table->listed = listed;
}

void ChildIndex::insert(Attribute* child) {
    if (2 * std::size_t(table->listed) > capacity())
        rehash(2 * capacity());
    place(child);
}

void ChildIndex::place(Attribute* child) {
    Attribute** const at = entries();
    std::size_t i = homeOf(child->name());
    while (at[i])
        i = (i + 1) & table->mask;
    at[i] = child;
}

bool ChildIndex::remove(const QByteArray& name) {
    if (!table)
        return false;
    Attribute** const at = entries();
    std::size_t i = homeOf(name);
    while (at[i] && at[i]->name() != name)
        i = (i + 1) & table->mask;
    if (!at[i])
        return false;
    if (table->listed == 0) {
        release(std::exchange(table, nullptr));
        return true;
    }
    Basalt::removeByBackwardShift(at, capacity(), i,
                                  [this](Attribute* child) { return homeOf(child->name()); });
    return true;
}

void ChildIndex::rehash(std::size_t size) {
    static_assert(sizeof(Table) % alignof(Attribute*) == 0, "the entries follow the header");
    Table* const old = table;
    void* const block = ::operator new(sizeof(Table) + size * sizeof(Attribute*));
    table = new (block) Table{uint32_t(size - 1), old ? old->listed : 0};
    Attribute** const at = entries();
    for (std::size_t k = 0; k < size; ++k)
        at[k] = nullptr;
    if (old) {
        Attribute** const was = entriesOf(old);
        for (std::size_t k = 0, oldSize = std::size_t(old->mask) + 1; k < oldSize; ++k)
            if (was[k])
                place(was[k]);
        release(old);
    }
}

} // namespace Tessel
