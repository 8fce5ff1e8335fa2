#include "Dovel/session/UpdateLoopExecutor.h"

#include "Tessel/Node.h"
#include "Tessel/UpdateLoop.h"

namespace Dovel {

const std::shared_ptr<UpdateLoopExecutor>& UpdateLoopExecutor::instance() {
    static auto* executor = new std::shared_ptr<UpdateLoopExecutor>(new UpdateLoopExecutor);
    return *executor;
}

void UpdateLoopExecutor::post(std::function<void()> function) {
    Tessel::Node::invokeAfterUpdate(std::move(function));
}

void UpdateLoopExecutor::wake() {
    Tessel::UpdateLoop::wake();
}

} // namespace Dovel
