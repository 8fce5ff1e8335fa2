// IPv4 address resolution shared by the client and listening sockets (internal to
// Basalt). Thread-safe.
#pragma once

#include <netinet/in.h>

namespace Basalt {

// Fills `address` with `name` (a dotted address or a host name) and `port`; false when
// the name cannot be resolved.
bool resolveIPv4(const char* name, int port, sockaddr_in& address);

} // namespace Basalt
