// Counters of one or more sessions, for an application's status display. Every field
// is atomic: the tree thread and the connection threads add, any thread reads.
#pragma once

#include <atomic>
#include <cstdint>

namespace Dovel {

struct BundleCounters {
    std::atomic<uint64_t> batchesReceived{0}; // "dovel2" batches scheduled
    std::atomic<uint64_t> batchesApplied{0};  // of those, applied whole (every piece)
    std::atomic<uint64_t> bundlesReceived{0}; // bundles dispatched
    std::atomic<uint64_t> bundlesFailed{0};   // bundles whose dispatch threw
    std::atomic<uint64_t> batchesSent{0};     // non-empty output passes sent (a pass of
                                              // more than Limits::MaxBundlesPerBatch
                                              // bundles reaches the peer as several)
    std::atomic<uint64_t> bundlesSent{0};     // bundles of those passes
    std::atomic<uint64_t> bytesSent{0};       // their bytes, headers included
    std::atomic<uint64_t> bytesReceived{0};   // bytes of the dispatched bundles
    std::atomic<uint64_t> passesHeld{0};      // output passes held back for a slow peer
    std::atomic<uint64_t> changesRefused{0};  // the peer's changes refused by the
                                              // session's write rules
};

} // namespace Dovel
