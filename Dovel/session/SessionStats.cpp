#include "Dovel/session/SessionStats.h"

namespace Dovel {

const char* sessionStateName(SessionState state) {
    switch (state) {
    case SessionState::Idle:
        return "idle";
    case SessionState::Connecting:
        return "connecting";
    case SessionState::Handshaking:
        return "handshaking";
    case SessionState::Connected:
        return "connected";
    case SessionState::Retrying:
        return "retrying";
    }
    return "?";
}

} // namespace Dovel
