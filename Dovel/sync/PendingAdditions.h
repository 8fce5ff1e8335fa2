// The additions a NodeWatcher has been told of and not yet reported: attributes that a
// node reported as added while they may still be under construction, queued in arrival
// order with an index by symbol, so that a change or removal of one finds its record
// without a scan.
//
// Thread-safe: a node may report an addition on any thread; every operation takes the
// queue's mutex except size(), which reads a count stored under it, so that the check
// made for every attribute added (is anything queued?) costs no lock when nothing is.
#pragma once

#include <atomic>
#include <cstdint>
#include <list>
#include <memory>
#include <mutex>
#include <unordered_map>
#include <vector>

namespace Tessel {
class Attribute;
class ListenerHolder;
} // namespace Tessel

namespace Dovel {

// An attribute that a node reported as added and that is not watched yet. Shared
// between the pending queue and whoever processes it; only the one that flips
// `processed` from 0 to 1 may process it. Destroying it removes the temporary change
// listener from the attribute (which is alive as long as the record is queued: its
// removal or deletion takes the record out of the queue first). Whoever takes it out
// to process it removes that listener first (releaseListener): a listener of the
// report may delete the attribute.
struct PendingAddition {
    PendingAddition(unsigned int symbol, Tessel::Attribute* attribute, bool notify);
    ~PendingAddition();
    PendingAddition(const PendingAddition&) = delete;
    PendingAddition& operator=(const PendingAddition&) = delete;

    // True for the one caller that may process the record.
    bool claim();
    // Removes the temporary change listener now, while the attribute is known alive.
    void releaseListener();

    std::atomic<uint8_t> processed{0};
    const unsigned int symbol;
    Tessel::Attribute* const attribute;
    const bool notify;
    long listenerId = -1;
    // Where the watcher keeps the registrations of the subtree it belongs to.
    Tessel::ListenerHolder* holder = nullptr;
};

class PendingAdditions {
public:
    using Record = std::shared_ptr<PendingAddition>;

    void push(const Record& record);
    // The oldest record of `symbol`, taken out of the queue; null when there is none.
    // Released by the caller, outside the queue's mutex.
    Record take(unsigned int symbol);
    // The oldest record, taken out of the queue; null when it is empty.
    Record popFront();
    bool contains(unsigned int symbol) const;
    int size() const { return count.load(std::memory_order_acquire); }

private:
    using List = std::list<Record>;

    mutable std::mutex mutex;
    List queue;
    std::unordered_map<unsigned int, std::vector<List::iterator>> index;
    std::atomic<int> count{0}; // queue.size(), stored under the mutex
};

} // namespace Dovel
