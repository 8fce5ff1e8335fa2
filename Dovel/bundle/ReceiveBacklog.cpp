#include "Dovel/bundle/ReceiveBacklog.h"

#include <chrono>

namespace Dovel {

namespace {

// What a charge holds: the backlog it gives its bytes back to.
struct Charge {
    std::shared_ptr<ReceiveBacklog> backlog;
    int64_t bytes;
};

} // namespace

std::shared_ptr<void> ReceiveBacklog::charge(int64_t bytes) {
    {
        std::lock_guard<std::mutex> lock(mutex);
        waiting += bytes;
    }
    return std::shared_ptr<void>(new Charge{shared_from_this(), bytes}, [](void* held) {
        const auto* charge = static_cast<Charge*>(held);
        charge->backlog->release(charge->bytes);
        delete charge;
    });
}

int64_t ReceiveBacklog::bytes() const {
    std::lock_guard<std::mutex> lock(mutex);
    return waiting;
}

bool ReceiveBacklog::waitAtMost(int64_t limit, int ms) const {
    std::unique_lock<std::mutex> lock(mutex);
    return released.wait_for(lock, std::chrono::milliseconds(ms), [&] { return waiting <= limit; });
}

void ReceiveBacklog::release(int64_t bytes) {
    std::lock_guard<std::mutex> lock(mutex);
    waiting -= bytes;
    released.notify_all();
}

} // namespace Dovel
