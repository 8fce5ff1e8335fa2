#include "Tessel/ChildIndex.h"

#include "Tessel/Attribute.h"

#include "Basalt/KeyedHash.h"

namespace Tessel {

std::size_t ChildIndex::homeOf(const QByteArray& name) const {
    static const uint64_t* const key = Basalt::processHashKey();
    return std::size_t(Basalt::keyedHash(0, name.constData(), size_t(name.size()), key) >> 32) &
           mask;
}

Attribute* ChildIndex::find(const QByteArray& name) const {
    if (count == 0)
        return nullptr;
    for (std::size_t i = homeOf(name);; i = (i + 1) & mask) {
        Attribute* child = table[i];
        if (!child || child->name() == name)
            return child;
    }
}

void ChildIndex::insert(Attribute* child) {
    if (2 * (std::size_t(count) + 1) > (table ? capacity() : 0))
        reserve(std::size_t(count) + 1);
    std::size_t i = homeOf(child->name());
    while (table[i])
        i = (i + 1) & mask;
    table[i] = child;
    ++count;
}

bool ChildIndex::remove(const QByteArray& name) {
    if (count == 0)
        return false;
    std::size_t hole = homeOf(name);
    while (table[hole] && table[hole]->name() != name)
        hole = (hole + 1) & mask;
    if (!table[hole])
        return false;
    if (--count == 0) {
        table.reset();
        mask = 0;
        return true;
    }
    // Backward shift: each child after the hole moves into it unless its home lies
    // cyclically in (hole, its slot], so that no probe from a home is cut short.
    for (std::size_t j = (hole + 1) & mask; table[j]; j = (j + 1) & mask) {
        const std::size_t home = homeOf(table[j]->name());
        const bool stays = hole <= j ? (hole < home && home <= j) : (hole < home || home <= j);
        if (!stays) {
            table[hole] = table[j];
            hole = j;
        }
    }
    table[hole] = nullptr;
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
        if (Attribute* child = old[k]) {
            std::size_t i = homeOf(child->name());
            while (table[i])
                i = (i + 1) & mask;
            table[i] = child;
        }
}

} // namespace Tessel
