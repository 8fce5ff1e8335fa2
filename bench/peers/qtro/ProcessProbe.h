// Measurements a process takes of itself and of its TCP sockets: CPU time, peak
// resident size, heap in use, and the kernel's counters of a connected socket.
// Plain functions; each may be called from any thread.
#pragma once

#include <cstdint>

class QObject;

namespace QtroBench {

// CPU seconds (user + system) this process has used so far.
double cpuSeconds();
// The peak resident set size of this process so far, in MiB.
double peakRssMb();
// Bytes the heap has handed out and not taken back (small blocks and mapped ones).
double heapInUseBytes();

// The descriptor of the first connected TCP socket among the descendants of `owner`
// (the connection a QRemoteObjectNode or Host made), or -1. Thread of `owner` only.
int tcpSocketOf(const QObject& owner);
// Payload bytes the kernel has received on socket `fd` (TCP_INFO), or -1 if unknown.
int64_t tcpBytesReceived(int fd);
// Whether TCP_NODELAY is set on `fd`; sets it first when `set` is true.
bool tcpNoDelay(int fd, bool set = false);

} // namespace QtroBench
