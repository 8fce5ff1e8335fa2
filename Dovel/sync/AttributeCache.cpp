#include "Dovel/sync/AttributeCache.h"

#include "Basalt/Trace.h"
#include "Tessel/Attribute.h" // the attribute map hashes by its size
#include "Tessel/TreeObserver.h"

namespace Dovel {

AttributeCache::AttributeCache() = default;

bool AttributeCache::add(unsigned int symbol, Tessel::Attribute* attribute) {
    if (!attribute)
        return false; // a symbol without an attribute is an absent one
    std::unique_lock<Basalt::RwLock> locker(lock);
    if (Tessel::Attribute* const* found = bySymbol.find(symbol)) {
        if (*found == attribute)
            return true;
        Basalt::Trace::error("AttributeCache::ensureExists # Found an existing symbol (%u) "
                             "pointing to a different attribute",
                             symbol);
        return false;
    }
    bySymbol.insert(symbol, attribute);
    return true;
}

Tessel::Attribute* AttributeCache::find(unsigned int symbol) const {
    std::shared_lock<Basalt::RwLock> locker(lock);
    return bySymbol.value(symbol);
}

Tessel::Attribute* AttributeCache::findOrAdd(unsigned int symbol, Tessel::Attribute* attribute) {
    std::unique_lock<Basalt::RwLock> locker(lock);
    if (Tessel::Attribute* const* found = bySymbol.find(symbol))
        return *found;
    if (attribute)
        bySymbol.insert(symbol, attribute);
    return attribute;
}

void AttributeCache::setObserver(const Tessel::TreeObserver* watcher) {
    observer.store(watcher);
}

void AttributeCache::index(unsigned int symbol, Tessel::Attribute* attribute) {
    std::unique_lock<Basalt::RwLock> locker(lock);
    byAttribute.insert(attribute, symbol);
}

unsigned int AttributeCache::observedSymbolOf(const Tessel::Attribute& attribute) const {
    // The slot is read on the tree thread, which alone writes it.
    const Tessel::TreeObserver* const watcher = observer.load(std::memory_order_relaxed);
    return watcher && attribute.observer() == watcher ? attribute.observedAs() : 0u;
}

unsigned int AttributeCache::symbolOf(Tessel::Attribute* attribute) const {
    if (!attribute)
        return 0;
    if (const unsigned int symbol = observedSymbolOf(*attribute))
        return symbol;
    std::shared_lock<Basalt::RwLock> locker(lock);
    return byAttribute.value(attribute, 0u);
}

bool AttributeCache::remove(unsigned int symbol) {
    std::unique_lock<Basalt::RwLock> locker(lock);
    Tessel::Attribute* const attribute = bySymbol.value(symbol);
    if (!attribute) {
        Basalt::Trace::error("AttributeCache::remove # Trying to remove missing symbol: %u",
                             symbol);
        return false;
    }
    // An attribute seen under two paths is indexed under the one seen last.
    if (byAttribute.value(attribute, 0u) == symbol)
        byAttribute.erase(attribute);
    bySymbol.remove(symbol);
    nodes.remove(symbol);
    removed.fetch_add(1, std::memory_order_release);
    return true;
}

bool AttributeCache::isNode(unsigned int symbol) const {
    std::shared_lock<Basalt::RwLock> locker(lock);
    return nodes.contains(symbol);
}

void AttributeCache::setIsNode(unsigned int symbol, bool isNode) {
    std::unique_lock<Basalt::RwLock> locker(lock);
    if (isNode)
        nodes.insert(symbol);
    else
        nodes.remove(symbol);
}

int AttributeCache::size() const {
    std::shared_lock<Basalt::RwLock> locker(lock);
    return bySymbol.size();
}

} // namespace Dovel
