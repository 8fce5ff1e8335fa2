#include "Tessel/ListenerId.h"

#include <atomic>

namespace Tessel {

namespace {
std::atomic<long> nextListenerId{0};
}

long issueListenerId() {
    return nextListenerId.fetch_add(1);
}

} // namespace Tessel
