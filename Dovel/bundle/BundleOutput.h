// Collects the bundles of one output pass into a vector and numbers them with the
// session's output counter. Made by BundleDispatcher::writeUpdates for one pass; the
// vector and the counter must outlive it. One thread (the session's) at a time.
#pragma once

#include "Dovel/bundle/Bundle.h"

#include <cstdint>
#include <vector>

namespace Dovel {

class BundleOutput {
public:
    // `acknowledged`: the sequence number of the last bundle dispatched from the peer.
    BundleOutput(std::vector<Bundle>* bundles, uint32_t* sequence, uint32_t acknowledged)
        : bundles(bundles), counter(sequence), acked(acknowledged) {}

    // Appends a copy of `b` (sharing its bytes) and advances the counter by one.
    void add(const Bundle& b) {
        bundles->push_back(b);
        ++*counter;
    }

    // For header word 2 of the next bundle.
    uint32_t sequence() const { return *counter; }
    // For header word 3.
    uint32_t acknowledged() const { return acked; }

    // The common ending of a sender's bundle: when `bundle` holds more than its header,
    // fills the header (payload size, messageType, sequence(), acknowledged()), adds it
    // and makes `bundle` a fresh one (16 zero header bytes) for the sender to go on in.
    // Returns whether a bundle was added.
    bool finish(Bundle& bundle, uint32_t messageType);
    // The same for a bundle written elsewhere and handed over whole: nothing is made
    // for the sender to go on in.
    bool finishWritten(Bundle bundle, uint32_t messageType);

private:
    // From this size on, the fresh bundle reserves as much as the finished one held.
    static constexpr uint32_t LargeBundleBytes = 64 * 1024;

    std::vector<Bundle>* bundles; // not owned
    uint32_t* counter;            // not owned
    uint32_t acked;
};

} // namespace Dovel
