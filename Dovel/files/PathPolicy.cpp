#include "Dovel/files/PathPolicy.h"

#include "Dovel/Limits.h"

#include <QCryptographicHash>
#include <QFile>
#include <QFileInfo>

#include <sys/stat.h>

#include <cerrno>
#include <climits>

namespace Dovel {
namespace PathPolicy {

namespace {

// How root + name resolves when no component below the canonical root is a symbolic
// link: it is then its own canonical path, since carriable names hold no "." or ".."
// components. One lstat() per component of the name, where resolving the whole path
// costs a readlink() per component of the root as well. `Other` (a link, a file where a
// folder should be, an error) leaves the decision to a full resolution.
enum class LinkFree { Exists, Missing, Other };

LinkFree linkFree(const QString& canonicalRoot, const QString& name, struct stat* last) {
    const QByteArray root =
        canonicalRoot == QLatin1String("/") ? QByteArray() : QFile::encodeName(canonicalRoot);
    const QByteArray path = root + QFile::encodeName(name);
    for (int end = root.size() + 1; end <= path.size(); ++end) {
        if (end < path.size() && path.at(end) != '/')
            continue;
        struct stat status;
        const QByteArray prefix = path.left(end);
        if (::lstat(prefix.constData(), &status) != 0)
            return errno == ENOENT ? LinkFree::Missing : LinkFree::Other;
        if (S_ISLNK(status.st_mode) || (end < path.size() && !S_ISDIR(status.st_mode)))
            return LinkFree::Other;
        if (end == path.size() && last)
            *last = status;
    }
    return LinkFree::Exists;
}

} // namespace

QString openedPath(int fd) {
    return QFile::symLinkTarget(QStringLiteral("/proc/self/fd/%1").arg(fd));
}

const QString TempSuffix = QStringLiteral(".filesync.part");
const QString LockFileName = QStringLiteral(".filesync.lock");

bool isCarriableName(const QString& name) {
    if (!name.startsWith(QLatin1Char('/')) || name.contains(QLatin1String("..")))
        return false;
    if (name.toUtf8().size() > Limits::MaxFileNameBytes)
        return false;
    int componentStart = 1;
    for (int i = 1; i <= name.size(); ++i) {
        if (i == name.size() || name.at(i) == QLatin1Char('/')) {
            const int length = i - componentStart;
            if (length == 0 || (length == 1 && name.at(componentStart) == QLatin1Char('.')))
                return false;
            componentStart = i + 1;
            continue;
        }
        const QChar c = name.at(i);
        if (c.unicode() < 0x20 || c.unicode() == 0x7f || QStringLiteral("\\:*?\"<>").contains(c))
            return false;
    }
    return true;
}

bool isInside(const QString& canonicalRoot, const QString& canonicalPath) {
    if (canonicalPath.isEmpty() || canonicalRoot.isEmpty())
        return false;
    if (canonicalRoot == QLatin1String("/"))
        return canonicalPath.startsWith(QLatin1Char('/'));
    return canonicalPath == canonicalRoot ||
           canonicalPath.startsWith(canonicalRoot + QLatin1Char('/'));
}

QString resolveInside(const QString& canonicalRoot, const QString& name) {
    if (!isCarriableName(name))
        return QString();
    auto isInsideRoot = [&canonicalRoot](const QString& path) {
        return isInside(canonicalRoot, path);
    };
    const QString path = (canonicalRoot == QLatin1String("/") ? QString() : canonicalRoot) + name;
    if (linkFree(canonicalRoot, name, nullptr) != LinkFree::Other)
        return path;
    QFileInfo info(path);
    if (info.exists())
        return isInsideRoot(info.canonicalFilePath()) ? path : QString();
    if (info.isSymLink())
        return QString(); // a dangling link: writing through it would land anywhere
    // A file still to be made: its nearest existing folder decides.
    QString dir = info.absolutePath();
    for (;;) {
        const QFileInfo dirInfo(dir);
        if (dirInfo.exists())
            return isInsideRoot(dirInfo.canonicalFilePath()) ? path : QString();
        if (dirInfo.isSymLink())
            return QString();
        const QString parent = dirInfo.absolutePath();
        if (parent == dir)
            return QString();
        dir = parent;
    }
}

QString tempPathFor(const QString& target) {
    const int slash = target.lastIndexOf(QLatin1Char('/'));
    const QString leaf = target.mid(slash + 1);
    const QByteArray encoded = QFile::encodeName(leaf);
    if (encoded.size() + TempSuffix.size() <= NAME_MAX)
        return target + TempSuffix;
    return target.left(slash + 1) + QLatin1Char('.') +
           QString::fromLatin1(QCryptographicHash::hash(encoded, QCryptographicHash::Md5).toHex()) +
           TempSuffix;
}

QString resolveLinkFree(const QString& canonicalRoot, const QString& name) {
    if (!isCarriableName(name) || linkFree(canonicalRoot, name, nullptr) == LinkFree::Other)
        return QString();
    return (canonicalRoot == QLatin1String("/") ? QString() : canonicalRoot) + name;
}

QString linkFreeFile(const QString& canonicalRoot, const QString& name) {
    struct stat status;
    if (!isCarriableName(name) || linkFree(canonicalRoot, name, &status) != LinkFree::Exists ||
        !S_ISREG(status.st_mode))
        return QString();
    return (canonicalRoot == QLatin1String("/") ? QString() : canonicalRoot) + name;
}

int64_t partCount(int64_t size, int64_t partSize) {
    if (size <= 0 || partSize <= 0)
        return 0;
    // Rounded up without adding first: a peer may announce a size near the type's top.
    return size / partSize + (size % partSize != 0 ? 1 : 0);
}

} // namespace PathPolicy
} // namespace Dovel
