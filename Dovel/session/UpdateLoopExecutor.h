// The host's update loop (Tessel::UpdateLoop) as a TreeExecutor: a posted function runs
// after the loop's next pass (Tessel::Node::invokeAfterUpdate), and a wake ends the
// loop's wait. Automatic sessions run there: whatever thread drives the loop is their
// tree thread.
//
// Thread-safe; one per process, never destroyed (sessions may end in static
// destructors of other units).
#pragma once

#include "Dovel/session/TreeExecutor.h"

#include <memory>

namespace Dovel {

class UpdateLoopExecutor final : public TreeExecutor {
public:
    static const std::shared_ptr<UpdateLoopExecutor>& instance();

    void post(std::function<void()> function) override;
    void wake() override;
};

} // namespace Dovel
