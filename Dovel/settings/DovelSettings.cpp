#include "Dovel/settings/DovelSettings.h"

#include "Basalt/FileWriter.h"
#include "Basalt/PlatformUtils.h"

#include <QFileInfo>

namespace Dovel {

DovelSettings::DovelSettings(bool pellux) : QSettings(filePath(), QSettings::IniFormat) {
    beginGroup(pellux ? QStringLiteral("pellux") : QStringLiteral("config"));
}

DovelSettings::~DovelSettings() = default;

QString DovelSettings::filePath() {
    return QStringLiteral("%1/%2").arg(
        Basalt::PlatformUtils::getModuleUserDataPath("Brevant", false),
        QStringLiteral("dovel.ini"));
}

void DovelSettings::sync() {
    const QSettings::Status before = status();
    QSettings::sync();
    if (status() != QSettings::AccessError)
        return;
    if (before != QSettings::NoError && QFileInfo(fileName()).isWritable())
        return;
    Basalt::FileWriter writing(QStringLiteral("DovelSettings::sync"));
    QSettings::sync();
}

} // namespace Dovel
