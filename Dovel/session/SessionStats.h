// What an application shows about its sessions: the state of a connection and the
// counters of its sessions (bundles and bytes both ways, from BundleCounters, and the
// sessions' starts and ends). Every field is atomic; any thread may read.
#pragma once

#include "Dovel/bundle/BundleCounters.h"

#include <atomic>
#include <cstdint>

namespace Dovel {

enum class SessionState {
    Idle,        // not started, or stopped
    Connecting,  // opening the socket
    Handshaking, // greeting, version and login
    Connected,   // a session runs
    Retrying     // a client waiting for its next attempt
};

const char* sessionStateName(SessionState state);

struct SessionStats : BundleCounters {
    std::atomic<uint64_t> sessionsStarted{0};   // handshakes that started a session
    std::atomic<uint64_t> sessionsEnded{0};     // sessions whose connection ended
    std::atomic<uint64_t> handshakeFailures{0}; // greetings or logins that failed
    std::atomic<uint64_t> connectFailures{0};   // client attempts that found no server
};

} // namespace Dovel
