// The process-wide source of listener ids, shared by attribute listeners and node event
// listeners: ids start at 0, only grow and are never reused. Thread-safe.
#pragma once

namespace Tessel {

long issueListenerId();

} // namespace Tessel
