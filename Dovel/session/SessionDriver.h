// A tree thread for applications that do not run one: a thread that owns a RemoteNode's
// tree, runs the functions posted to it and updates the manual BundleControllers added
// to it (all in one BundleController::update, so a node shared by many sessions is
// updated three times per pass). It sleeps until woken: by a post, by a controller's
// queued work, or by a local change of a session's node (the controllers' wake-up
// callback), so a change leaves without waiting for a polling interval. While wake-ups
// come in quick succession it polls for the next one before sleeping (Basalt::SpinWait),
// since a sleeping thread is slow to wake on a virtual machine.
//
// Thread-safe. Once a node is handed to a driver, change its tree only inside post()
// or call(). Controllers are released on the driver's thread. The driver must outlive
// the servers and clients that use it.
#pragma once

#include <condition_variable>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

namespace Dovel {

class BundleController;
class TreeExecutor;

class SessionDriver {
public:
    // Starts the thread. Besides the wake-ups a pass runs every `idlePassMs`
    // milliseconds as a safety net; 0 or less: only when woken.
    explicit SessionDriver(int idlePassMs = 1000);
    // Stops and joins the thread, then releases the controllers on the calling thread.
    ~SessionDriver();
    SessionDriver(const SessionDriver&) = delete;
    SessionDriver& operator=(const SessionDriver&) = delete;

    // Runs `function` on the tree thread at the next pass.
    void post(std::function<void()> function);
    // Runs `function` on the tree thread and waits for it (runs it at once when called
    // on the tree thread). False when the driver stopped before it ran.
    bool call(const std::function<void()>& function);
    // Makes the thread run a pass soon.
    void wake();
    bool isTreeThread() const;
    // The driver's thread as a TreeExecutor, for BundleControllerParams::executor. Safe
    // to use after the driver is gone: it then wakes nothing and drops what is posted.
    std::shared_ptr<TreeExecutor> executor() const;

    // Updates `controller` at every pass until removed.
    void addController(std::shared_ptr<BundleController> controller);
    // Stops updating it; the next pass applies what its peer sent before the session
    // ended (BundleController::finish), and the last reference goes on the tree thread.
    void removeController(std::shared_ptr<BundleController>&& controller);
    int controllerCount() const;
    // Passes run so far.
    uint64_t passCount() const;

private:
    struct Shared; // what executor() may outlive the driver with
    class Executor;
    void loop();

    std::shared_ptr<Shared> shared;
    std::thread thread;
};

} // namespace Dovel
