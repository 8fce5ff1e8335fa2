#include "Dovel/session/Connection.h"

namespace Dovel {

Connection::~Connection() = default;

bool Connection::holdBack(const std::function<void()>&) {
    return false;
}

} // namespace Dovel
