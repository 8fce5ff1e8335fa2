#include "Dovel/files/ChecksumCache.h"

#include "Dovel/files/ChecksumCacheFile.h"
#include "Dovel/files/PathPolicy.h"

#include "Basalt/Trace.h"

#include <QSettings>

namespace Dovel {

SettingsChecksumCache::SettingsChecksumCache() : settingsFile(ChecksumCacheFile::settingsFile()) {}

QString SettingsChecksumCache::arrayName(const QString& root) {
    return QStringLiteral("FileList/") + root;
}

FileList SettingsChecksumCache::load(const QString& root, bool& exact) {
    FileList plain;
    int count = 0;
    if (!ChecksumCacheFile::read(settingsFile, arrayName(root), plain, count)) {
        Basalt::Trace::debug("SettingsChecksumCache::load # %s: read through QSettings",
                             root.toUtf8().constData());
        plain.clear();
        QSettings settings(QStringLiteral("Brevant"), QStringLiteral("Cache"));
        count = settings.beginReadArray(arrayName(root));
        for (int i = 0; i < count; ++i) {
            settings.setArrayIndex(i);
            const QString name = settings.value(QStringLiteral("file")).toString();
            FileInfo info;
            info.lastModified = QDateTime::fromMSecsSinceEpoch(
                settings.value(QStringLiteral("ts")).toLongLong(), Qt::UTC);
            info.md5 = settings.value(QStringLiteral("MD5")).toString();
            info.size = settings.value(QStringLiteral("size")).toLongLong();
            if (PathPolicy::isCarriableName(name) && info.md5.size() == 32)
                plain.insert(name, info);
        }
        settings.endArray();
    }
    exact = plain.size() == count; // else the store holds entries we dropped
    return plain;
}

void SettingsChecksumCache::store(const QString& root, const FileList& list) {
    if (ChecksumCacheFile::write(settingsFile, arrayName(root), list))
        return;
    Basalt::Trace::debug("SettingsChecksumCache::store # %s: written through QSettings",
                         root.toUtf8().constData());
    QSettings settings(QStringLiteral("Brevant"), QStringLiteral("Cache"));
    settings.remove(arrayName(root));
    settings.beginWriteArray(arrayName(root), list.size());
    int i = 0;
    for (auto it = list.constBegin(); it != list.constEnd(); ++it, ++i) {
        settings.setArrayIndex(i);
        settings.setValue(QStringLiteral("file"), it.key());
        settings.setValue(QStringLiteral("ts"), it->lastModified.toMSecsSinceEpoch());
        settings.setValue(QStringLiteral("MD5"), it->md5);
        settings.setValue(QStringLiteral("size"), static_cast<qlonglong>(it->size));
    }
    settings.endArray();
    settings.sync();
}

} // namespace Dovel
