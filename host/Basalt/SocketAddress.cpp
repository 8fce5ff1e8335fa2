#include "Basalt/SocketAddress.h"

#include "Basalt/Trace.h"

#include <arpa/inet.h>
#include <netdb.h>
#include <sys/socket.h>

#include <cstring>

namespace Basalt {

bool resolveIPv4(const char* name, int port, sockaddr_in& address) {
    std::memset(&address, 0, sizeof address);
    address.sin_family = AF_INET;
    address.sin_port = htons(uint16_t(port));
    if (::inet_pton(AF_INET, name, &address.sin_addr) == 1)
        return true;
    addrinfo hints;
    std::memset(&hints, 0, sizeof hints);
    hints.ai_family = AF_INET;
    hints.ai_socktype = SOCK_STREAM;
    addrinfo* found = nullptr;
    const int rc = ::getaddrinfo(name, nullptr, &hints, &found);
    if (rc != 0 || found == nullptr) {
        Trace::debug("resolveIPv4 # Cannot resolve '%s': %s", name, ::gai_strerror(rc));
        return false;
    }
    address.sin_addr = reinterpret_cast<sockaddr_in*>(found->ai_addr)->sin_addr;
    ::freeaddrinfo(found);
    return true;
}

} // namespace Basalt
