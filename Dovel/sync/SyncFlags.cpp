#include "Dovel/sync/SyncFlags.h"

namespace Dovel {

SyncFlags::SyncFlags() = default;

SyncFlags::Flag SyncFlags::getFlags(unsigned int symbol) const {
    if (stored.load(std::memory_order_acquire) == 0)
        return Sync;
    std::shared_lock<Basalt::RwLock> locker(lock);
    return flags.value(symbol, Sync);
}

void SyncFlags::setFlags(unsigned int symbol, Flag flag) {
    std::unique_lock<Basalt::RwLock> locker(lock);
    if (flag == Sync)
        flags.remove(symbol);
    else
        flags.insert(symbol, flag);
    stored.store(flags.size(), std::memory_order_release);
}

void SyncFlags::clear() {
    std::unique_lock<Basalt::RwLock> locker(lock);
}

int SyncFlags::storedCount() const {
    std::shared_lock<Basalt::RwLock> locker(lock);
    return flags.size();
}

} // namespace Dovel
