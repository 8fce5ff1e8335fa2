// When a client connection tries again. After an attempt ends it pauses until
// RetrySeconds have passed since that attempt began, reporting the time left about once
// a second, unless it is woken to give up (stop) or asked to move to another address at
// once (connectToHost). It also holds whether the client keeps retrying at all. A
// server-side connection uses the same wakeable wait for its login delay.
//
// Threads: the connection's own thread pauses; any thread may wake it, ask for a move or
// change the keep-retrying flag. A caller that changes what a pause's `done` reads does
// so before it calls wake(), so that no wake-up is lost.
#pragma once

#include "Basalt/Condition.h"
#include "Basalt/Mutex.h"
#include "Basalt/Stopwatch.h"

#include <atomic>
#include <functional>

namespace Dovel {

class ReconnectPolicy {
public:
    static constexpr double RetrySeconds = 3.0;

    void setKeepRetrying(bool keep) { keep_.store(keep); }
    bool keepRetrying() const { return keep_.load(); }

    // Ends the pause under way (or the next one) at once, for an attempt at a new address.
    void requestMove();
    // Whether a move was asked for, and clears the request.
    bool takeMoveRequest();
    bool moveRequested() const;
    // Makes a pause look at its `done` again.
    void wake();

    // Waits until RetrySeconds after `start`, unless done() holds or a move is asked for;
    // progress(seconds left) follows each wake-up and may call wake or requestMove.
    // done() is called with the policy's mutex held.
    void pause(const Basalt::Stopwatch& start, const std::function<bool()>& done,
               const std::function<void(double)>& progress);
    // Waits `seconds` unless done() comes to hold first; false then.
    bool sleep(double seconds, const std::function<bool()>& done);

private:
    mutable Basalt::Mutex mutex;
    Basalt::Condition condition;
    bool moveNow = false; // guarded by mutex
    std::atomic<bool> keep_{true};
};

} // namespace Dovel
