#include "Tessel/TreeObserver.h"

#include <atomic>
#include <deque>
#include <mutex>
#include <stdexcept>

namespace Tessel {

namespace {

// Zero until taken: the pages of slots that no observer ever took stay untouched.
std::atomic<TreeObserver*> observerSlots[TreeObserver::MaxObservers + 1];

struct SlotPool {
    std::mutex mutex;
    int used = 0;               // slots 1..used were taken at some time
    std::deque<uint16_t> freed; // of those, the ones free again, longest free first
};

SlotPool& pool() {
    // Never destroyed: a static observer may end after the pool's own statics.
    static SlotPool* const slotPool = new SlotPool;
    return *slotPool;
}

} // namespace

TreeObserver* TreeObserver::inSlot(uint16_t slot) {
    return observerSlots[slot].load(std::memory_order_acquire);
}

TreeObserver::TreeObserver() {
    SlotPool& taken = pool();
    std::lock_guard<std::mutex> locker(taken.mutex);
    // A slot is given again only once all were taken, and then the one free longest: an
    // attribute that an observer failed to let go finds no observer rather than another
    // one, unless tens of thousands of observers came and went since.
    if (taken.used < MaxObservers) {
        ownSlot = uint16_t(++taken.used);
    } else if (!taken.freed.empty()) {
        ownSlot = taken.freed.front();
        taken.freed.pop_front();
    } else {
        throw std::length_error("TreeObserver # Too many tree observers alive at once");
    }
    observerSlots[ownSlot].store(this, std::memory_order_release);
}

TreeObserver::~TreeObserver() {
    observerSlots[ownSlot].store(nullptr, std::memory_order_release);
    SlotPool& taken = pool();
    std::lock_guard<std::mutex> locker(taken.mutex);
    taken.freed.push_back(ownSlot);
}

} // namespace Tessel
