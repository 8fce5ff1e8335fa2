// The process-wide queue of functions to run on the tree's update thread, and the loop
// an application drives to run them (Node::invokeAfterUpdate posts here).
//
// Thread-safe. The thread that calls runOnce or waitAndRun becomes the update thread.
// post() from any other thread wakes a waiting waitAndRun; a post made on the update
// thread itself does not, so a hook that re-registers itself after every run is run
// once per pass instead of turning waitAndRun into a busy spin.
#pragma once

#include <functional>

namespace Tessel {

class UpdateLoop {
public:
    // Queues `function` to run at the next pass.
    static void post(std::function<void()> function);
    // Runs, in order, the functions queued before the call; those queued while it runs
    // wait for the next pass. Returns how many ran. A function that throws is logged and
    // the pass goes on.
    static int runOnce();
    // Waits until woken or `timeoutMs` passed (returns at once if a wake came since the
    // last pass), then runs one pass. Returns how many functions ran.
    static int waitAndRun(int timeoutMs);
    // Makes the current or next waitAndRun stop waiting.
    static void wake();
    static int pendingCount();
    // Drops every queued function, the wake flag and the update thread (for tests).
    static void reset();
    // True on the thread that last ran a pass.
    static bool isUpdateThread();
};

} // namespace Tessel
