#include "Dovel/files/AssetBase.h"

#include "Dovel/files/PathPolicy.h"

#include "Basalt/Trace.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace Dovel {

namespace {

// The canonical form of a folder, made when it is missing.
QString canonicalFolder(const QString& root) {
    QDir().mkpath(root);
    const QString canonical = QDir(root).canonicalPath();
    return canonical.isEmpty() ? QDir::cleanPath(QDir(root).absolutePath()) : canonical;
}

} // namespace

AssetBase::AssetBase(const QString& root)
    : root_(canonicalFolder(root)), index_(root_, std::make_unique<SettingsChecksumCache>()),
      ledger(root_) {}

AssetBase::~AssetBase() {
    if (lockFd >= 0) {
        // Removed while still held, so that no one locks it after we let go.
        ::unlink(
            QFile::encodeName(root_ + QLatin1Char('/') + PathPolicy::LockFileName).constData());
        ::close(lockFd);
    }
}

void AssetBase::transferFinished() {}

bool AssetBase::endDownload(const QString& name, bool success) {
    int64_t size = 0;
    QString md5;
    const bool existed = ledger.describe(name, size, md5);
    if (existed && success)
        index_.recordFile(name, size, md5);
    const bool empty = ledger.remove(name) == 0;
    if (existed && empty) {
        index_.build(nullptr);
        transferFinished();
    }
    return existed;
}

bool AssetBase::lockForWriting(QString& error) {
    if (lockFd >= 0)
        return true;
    const QByteArray path = QFile::encodeName(root_ + QLatin1Char('/') + PathPolicy::LockFileName);
    const int fd = ::open(path.constData(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
    if (fd < 0) {
        error = QStringLiteral("cannot lock %1: %2")
                    .arg(root_, QString::fromLocal8Bit(strerror(errno)));
        return false;
    }
    // The holder removes the file when it is done: a lock taken on a file that has been
    // removed (or replaced) meanwhile is no lock, and is let go.
    struct stat held;
    struct stat named;
    if (::flock(fd, LOCK_EX | LOCK_NB) != 0 || ::fstat(fd, &held) != 0 ||
        ::stat(path.constData(), &named) != 0 || held.st_ino != named.st_ino ||
        held.st_dev != named.st_dev) {
        ::close(fd);
        error = QStringLiteral("another pull is writing into %1").arg(root_);
        return false;
    }
    lockFd = fd;
    return true;
}

void AssetBase::addFileToRemoveQueue(const QString& path) {
    Basalt::Guard guard(removeMutex);
    removeQueue.insert(path);
}

int AssetBase::drainRemoveQueue() {
    QSet<QString> taken;
    {
        Basalt::Guard guard(removeMutex);
        taken.swap(removeQueue);
    }
    int removed = 0;
    for (const QString& path : taken)
        if (removeFileAndEmptyFolders(path))
            ++removed;
    if (!taken.isEmpty()) {
        index_.forgetFiles(taken.values());
        transferFinished();
    }
    return removed;
}

bool AssetBase::removeFileAndEmptyFolders(const QString& path) {
    if (PathPolicy::resolveInside(root_, path).isEmpty()) {
        Basalt::Trace::warning("AssetBase::removeFileAndEmptyFolders # Refusing '%s': outside "
                               "the folder",
                               path.toUtf8().constData());
        return false;
    }
    const QString full = root_ + path;
    if (!QFile::remove(full)) {
        Basalt::Trace::warning("AssetBase::removeFileAndEmptyFolders # Cannot remove '%s'",
                               full.toUtf8().constData());
        return false;
    }
    QString folder = QFileInfo(full).absolutePath();
    for (;;) {
        const QString canonical = QFileInfo(folder).canonicalFilePath();
        if (canonical.isEmpty() || canonical == root_ || !PathPolicy::isInside(root_, canonical))
            break;
        if (!QDir().rmdir(canonical))
            break; // not empty
        folder = QFileInfo(canonical).absolutePath();
    }
    return true;
}

} // namespace Dovel
