// The library's own version, announced in the line greeting and the session's "info".
#pragma once

#include <QByteArray>

namespace Dovel {

// "2.6.1": the version this library speaks on the wire.
QByteArray version();

} // namespace Dovel
