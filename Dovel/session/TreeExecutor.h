// The thread that owns a session's tree, as other threads reach it: a function posted
// to it runs there at its next pass, and a wake makes it run a pass soon. Sessions use
// nothing else of the thread that drives them, so that a thread of Dovel's own
// (SessionDriver) and the host's update loop (UpdateLoopExecutor) serve them alike.
//
// Thread-safe: both may be called from any thread, also once the thread has stopped; a
// function posted then is dropped unrun, where its last copy goes.
#pragma once

#include <functional>

namespace Dovel {

class TreeExecutor {
public:
    virtual ~TreeExecutor() = default;
    virtual void post(std::function<void()> function) = 0;
    virtual void wake() = 0;
};

} // namespace Dovel
