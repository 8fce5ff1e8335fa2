#include "Basalt/SocketError.h"

#include <cstring>

namespace Basalt {

QString socketErrorText(int error) {
    if (error == HostNotFound)
        return QStringLiteral("host not found");
    if (error == 0)
        return QStringLiteral("no error");
    char buffer[256];
    QString text = QString::fromLocal8Bit(::strerror_r(error, buffer, sizeof buffer));
    // The system's texts start with a capital, as sentences do; ours follow a colon.
    if (text.size() > 1 && text.at(0).isUpper() && !text.at(1).isUpper())
        text[0] = text.at(0).toLower();
    return text;
}

} // namespace Basalt
