#include "Dovel/transport/Connection.h"

namespace Dovel {

Connection::~Connection() = default;

} // namespace Dovel
