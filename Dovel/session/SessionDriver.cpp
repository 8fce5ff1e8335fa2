#include "Dovel/session/SessionDriver.h"

#include "Dovel/session/BundleController.h"
#include "Dovel/session/TreeExecutor.h"

#include "Basalt/SpinWait.h"
#include "Basalt/Trace.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <exception>

namespace Dovel {

struct SessionDriver::Shared {
    mutable std::mutex mutex;
    std::condition_variable condition;
    bool woken = false;
    bool stopping = false;
    // Counts wake-ups, so that the idle thread can poll for one without the lock.
    std::atomic<uint64_t> wakes{0};
    std::vector<std::function<void()>> posted;
    std::vector<std::shared_ptr<BundleController>> controllers;
    std::vector<std::shared_ptr<BundleController>> retired;
    uint64_t passes = 0;
    int idlePassMs = 1000;
    std::thread::id treeThread;

    void wake() {
        std::lock_guard<std::mutex> lock(mutex);
        if (!woken)
            wakeLocked();
    }
    // Sets woken (the caller holds the mutex) and wakes the thread.
    void wakeLocked() {
        woken = true;
        ++wakes;
        condition.notify_all();
    }
};

SessionDriver::SessionDriver(int idlePassMs) : shared(std::make_shared<Shared>()) {
    shared->idlePassMs = idlePassMs;
    thread = std::thread([this] { loop(); });
}

SessionDriver::~SessionDriver() {
    {
        std::lock_guard<std::mutex> lock(shared->mutex);
        shared->stopping = true;
        shared->wakeLocked();
    }
    thread.join();
    std::vector<std::function<void()>> posted;
    std::vector<std::shared_ptr<BundleController>> controllers;
    std::vector<std::shared_ptr<BundleController>> retired;
    {
        std::lock_guard<std::mutex> lock(shared->mutex);
        posted.swap(shared->posted);
        controllers.swap(shared->controllers);
        retired.swap(shared->retired);
    }
}

void SessionDriver::loop() {
    {
        std::lock_guard<std::mutex> lock(shared->mutex);
        shared->treeThread = std::this_thread::get_id();
    }
    Basalt::SpinWait spin;
    for (;;) {
        std::vector<std::function<void()>> posted;
        std::vector<std::shared_ptr<BundleController>> controllers;
        std::vector<std::shared_ptr<BundleController>> retired;
        {
            std::unique_lock<std::mutex> lock(shared->mutex);
            const auto ready = [this] { return shared->woken || shared->stopping; };
            if (!ready()) {
                const uint64_t seen = shared->wakes.load();
                lock.unlock();
                const bool spun = spin.spin([&] { return shared->wakes.load() != seen; });
                lock.lock();
                if (!spun) {
                    if (shared->idlePassMs > 0)
                        shared->condition.wait_for(
                            lock, std::chrono::milliseconds(shared->idlePassMs), ready);
                    else
                        shared->condition.wait(lock, ready);
                    spin.woke();
                }
            }
            if (shared->stopping)
                return;
            shared->woken = false;
            posted.swap(shared->posted);
            controllers = shared->controllers;
            retired.swap(shared->retired);
        }
        // What an ended session received before its peer hung up is applied before
        // this pass's output, so that the other sessions pass it on.
        BundleController::finish(retired);
        retired.clear(); // released here, on the tree thread
        for (const auto& function : posted) {
            try {
                function();
            } catch (const std::exception& e) {
                Basalt::Trace::error("SessionDriver::loop # A posted function threw: %s", e.what());
            }
        }
        posted.clear();
        BundleController::update(controllers);
        controllers.clear();
        std::lock_guard<std::mutex> lock(shared->mutex);
        ++shared->passes;
    }
}

void SessionDriver::post(std::function<void()> function) {
    std::lock_guard<std::mutex> lock(shared->mutex);
    shared->posted.push_back(std::move(function));
    shared->wakeLocked();
}

bool SessionDriver::call(const std::function<void()>& function) {
    if (isTreeThread()) {
        function();
        return true;
    }
    struct Done {
        std::mutex mutex;
        std::condition_variable condition;
        bool ran = false;
        bool dropped = false;
    };
    auto done = std::make_shared<Done>();
    {
        // The guard's destructor tells the waiter when the function is dropped unrun.
        struct Signal {
            std::shared_ptr<Done> done;
            ~Signal() {
                if (!done)
                    return;
                std::lock_guard<std::mutex> lock(done->mutex);
                done->dropped = !done->ran;
                done->condition.notify_all();
            }
        };
        auto signal = std::make_shared<Signal>();
        signal->done = done;
        post([signal, &function] {
            function();
            std::lock_guard<std::mutex> lock(signal->done->mutex);
            signal->done->ran = true;
            signal->done->condition.notify_all();
        });
    }
    std::unique_lock<std::mutex> lock(done->mutex);
    done->condition.wait(lock, [&] { return done->ran || done->dropped; });
    return done->ran;
}

void SessionDriver::wake() {
    shared->wake();
}

class SessionDriver::Executor final : public TreeExecutor {
public:
    explicit Executor(std::weak_ptr<Shared> shared) : shared(std::move(shared)) {}

    void post(std::function<void()> function) override {
        std::shared_ptr<Shared> alive = shared.lock();
        if (!alive)
            return;
        std::lock_guard<std::mutex> lock(alive->mutex);
        if (alive->stopping)
            return;
        alive->posted.push_back(std::move(function));
        alive->wakeLocked();
    }
    void wake() override {
        if (std::shared_ptr<Shared> alive = shared.lock())
            alive->wake();
    }

private:
    const std::weak_ptr<Shared> shared;
};

std::shared_ptr<TreeExecutor> SessionDriver::executor() const {
    return std::make_shared<Executor>(shared);
}

bool SessionDriver::isTreeThread() const {
    std::lock_guard<std::mutex> lock(shared->mutex);
    return std::this_thread::get_id() == shared->treeThread;
}

void SessionDriver::addController(std::shared_ptr<BundleController> controller) {
    if (!controller)
        return;
    std::lock_guard<std::mutex> lock(shared->mutex);
    shared->controllers.push_back(std::move(controller));
    shared->wakeLocked();
}

void SessionDriver::removeController(std::shared_ptr<BundleController>&& controller) {
    if (!controller)
        return;
    std::lock_guard<std::mutex> lock(shared->mutex);
    auto& list = shared->controllers;
    list.erase(std::remove(list.begin(), list.end(), controller), list.end());
    shared->retired.push_back(std::move(controller));
    shared->wakeLocked();
}

int SessionDriver::controllerCount() const {
    std::lock_guard<std::mutex> lock(shared->mutex);
    return int(shared->controllers.size());
}

uint64_t SessionDriver::passCount() const {
    std::lock_guard<std::mutex> lock(shared->mutex);
    return shared->passes;
}

} // namespace Dovel
