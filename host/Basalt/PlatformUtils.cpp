#include "Basalt/PlatformUtils.h"

#include "Basalt/Trace.h"

#include <QDir>
#include <QStandardPaths>
#include <QtGlobal>

namespace Basalt {

QString PlatformUtils::getModuleUserDataPath(const char* module, bool create) {
    QString root = QStandardPaths::writableLocation(QStandardPaths::GenericDataLocation);
    // The XDG rules ignore a relative XDG_DATA_HOME, which Qt 5 takes as it is.
    if (root.isEmpty() || QDir::isRelativePath(root))
        root = QDir::homePath() + QStringLiteral("/.local/share");
    const QString path = QDir::cleanPath(root + QLatin1Char('/') + QString::fromUtf8(module));
    if (create && !QDir().mkpath(path))
        Trace::warning("PlatformUtils::getModuleUserDataPath # Cannot create '%s'",
                       path.toUtf8().constData());
    return path;
}

bool PlatformUtils::openFirewallPortTCP(int port, const QString& name) {
    Trace::debug("PlatformUtils::openFirewallPortTCP # No rule needed for port %d (%s)", port,
                 name.toUtf8().constData());
    return true;
}

} // namespace Basalt
