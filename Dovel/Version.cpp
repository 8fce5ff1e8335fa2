#include "Dovel/Version.h"

namespace Dovel {

QByteArray version() {
    return QByteArrayLiteral("2.6.1");
}

} // namespace Dovel
