#include "Tessel/ChildIndex.h"

#include "Tessel/Attribute.h"

#include "Basalt/BackwardShift.h"
#include "Basalt/KeyedHash.h"

namespace Tessel {

std::size_t ChildIndex::homeOf(const QByteArray& name) const {
    static const uint64_t* const key = Basalt::processHashKey();
    return std::size_t(Basalt::keyedHash(0, name.constData(), size_t(name.size()), key) >> 32) &
           mask;
}

Attribute* ChildIndex::find(const QByteArray& name) const {
    if (!table)
        return nullptr;
    for (std::size_t i = homeOf(name);; i = (i + 1) & mask) {
        Attribute* child = table[i];
        if (!child || child->name() == name)
            return child;
    }
}

void ChildIndex::insert(Attribute* child) {
    if (2 * std::size_t(listed) > (table ? capacity() : 0))
        reserve(listed);
    place(child);
}

void ChildIndex::place(Attribute* child) {
    std::size_t i = homeOf(child->name());
    while (table[i])
        i = (i + 1) & mask;
    table[i] = child;
}

bool ChildIndex::remove(const QByteArray& name) {
    if (!table)
        return false;
    std::size_t at = homeOf(name);
    while (table[at] && table[at]->name() != name)
        at = (at + 1) & mask;
    if (!table[at])
        return false;
    if (listed == 0) {
        table.reset();
        mask = 0;
        return true;
    }
    Basalt::removeByBackwardShift(table.get(), capacity(), at,
                                  [this](Attribute* child) { return homeOf(child->name()); });
    return true;
}

void ChildIndex::reserve(std::size_t children) {
    std::size_t wanted = 16;
    while (wanted < 2 * children)
        wanted *= 2;
    if (!table || wanted > capacity())
        rehash(wanted);
}

void ChildIndex::rehash(std::size_t size) {
    std::unique_ptr<Attribute*[]> old = std::move(table);
    const std::size_t oldSize = old ? capacity() : 0;
    table.reset(new Attribute*[size]());
    mask = uint32_t(size - 1);
    for (std::size_t k = 0; k < oldSize; ++k)
        if (Attribute* child = old[k])
            place(child);
}

} // namespace Tessel
