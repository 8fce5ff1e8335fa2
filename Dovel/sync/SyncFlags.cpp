#include "Dovel/sync/SyncFlags.h"

namespace Dovel {

SyncFlags::SyncFlags() = default;

SyncFlags::Flag SyncFlags::getFlags(unsigned int symbol) const {
    QReadLocker locker(&lock);
    return flags.value(symbol, Sync);
}

void SyncFlags::setFlags(unsigned int symbol, Flag flag) {
    QWriteLocker locker(&lock);
    if (flag == Sync)
        flags.remove(symbol);
    else
        flags.insert(symbol, flag);
}

void SyncFlags::clear() {
    QWriteLocker locker(&lock);
}

int SyncFlags::storedCount() const {
    QReadLocker locker(&lock);
    return flags.size();
}

} // namespace Dovel
