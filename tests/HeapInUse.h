// The bytes the allocator has handed out and not taken back, for tests that check what a
// container keeps. The sanitizers' allocators do not report through mallinfo2: there
// HeapIsVisible is false and heapInUse() stays 0, so "less than" checks still hold and
// "more than" checks must be skipped.
#pragma once

#include <malloc.h>

#include <cstddef>

namespace TestHeap {

#ifdef DOVEL_SANITIZED
constexpr bool HeapIsVisible = false;
#else
constexpr bool HeapIsVisible = true;
#endif

inline size_t heapInUse() {
    return HeapIsVisible ? mallinfo2().uordblks : 0;
}

} // namespace TestHeap
