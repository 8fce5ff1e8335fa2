#include "Basalt/SpinWait.h"

#include <sched.h>

namespace Basalt {

void SpinWait::relax() {
    sched_yield();
}

} // namespace Basalt
