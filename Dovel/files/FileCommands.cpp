#include "Dovel/files/FileCommands.h"

#include <cmath>

namespace Dovel {
namespace FileCommands {

QByteArray sendFileInfoLine(const QString& name) {
    return QStringLiteral("sendfileinfo \"%1\"\n").arg(name).toUtf8();
}

QByteArray fileInfoLine(int64_t size, const QString& name, int64_t parts, const QString& md5) {
    return QStringLiteral("fileinfo %1 \"%2\" %3 %4\n")
        .arg(static_cast<qlonglong>(size))
        .arg(name)
        .arg(static_cast<qlonglong>(parts))
        .arg(md5)
        .toUtf8();
}

QByteArray sendPartsLine(const QString& name) {
    return QStringLiteral("sendparts \"%1\"\n").arg(name).toUtf8();
}

QByteArray filePartLine(const QString& name, int64_t bytes, int64_t part) {
    return QStringLiteral("filepart \"%1\" %2 %3\n")
        .arg(name)
        .arg(static_cast<qlonglong>(bytes))
        .arg(static_cast<qlonglong>(part))
        .toUtf8();
}

int64_t announcedParts(int64_t size) {
    return static_cast<int64_t>(std::ceil(static_cast<float>(size) / static_cast<float>(PartSize)));
}

} // namespace FileCommands
} // namespace Dovel
