// Per-symbol synchronisation flags. Only the outgoing direction consults them: a local
// change of an attribute whose flag has bit 0 clear is never sent to the peer. Only
// values other than the default 1 are stored, so the common case costs an empty map.
//
// Thread-safe: the map is guarded by `lock`. Whether it holds anything at all is also
// kept outside the lock: every attribute added or changed asks, and most trees store no
// flag, so the common answer costs one atomic load.
#pragma once

#include "Basalt/RwLock.h"

#include <QHash>

#include <atomic>
#include <cstdint>
#include <mutex>
#include <shared_mutex>
#include <vector>

namespace Dovel {

class SyncFlags {
public:
    // The library knows only bit 0 (send local changes); the application may define
    // further bits, which are kept and returned unchanged.
    enum Flag : uint32_t {
        Local = 0, // never sent to the peer
        Sync = 1,  // the default: local changes are sent
    };

    SyncFlags();
    SyncFlags(const SyncFlags&) = delete;
    SyncFlags& operator=(const SyncFlags&) = delete;

    // The stored flag, or Sync when none is stored.
    Flag getFlags(unsigned int symbol) const;
    // getFlags of symbolAt(i) for i below count, into out[i], under one lock.
    template <typename SymbolAt>
    void getFlagsAll(size_t count, SymbolAt symbolAt, std::vector<Flag>& out) const {
        if (stored.load(std::memory_order_acquire) == 0) {
            out.assign(count, Sync);
            return;
        }
        std::shared_lock<Basalt::RwLock> locker(lock);
        out.resize(count);
        for (size_t i = 0; i < count; ++i)
            out[i] = flags.value(symbolAt(i), Sync);
    }
    // Sync erases the entry; any other value is stored.
    void setFlags(unsigned int symbol, Flag flag);
    // Takes the lock and changes nothing: flags, once set, survive a clear.
    void clear();
    // Number of stored (non-default) flags.
    int storedCount() const;

private:
    QHash<unsigned int, Flag> flags;
    std::atomic<int> stored{0}; // flags.size(), written under the lock
    mutable Basalt::RwLock lock;
};

} // namespace Dovel
