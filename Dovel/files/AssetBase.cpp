#include "Dovel/files/AssetBase.h"

#include "Dovel/Limits.h"
#include "Dovel/files/ChecksumCacheFile.h"
#include "Dovel/files/ProgressSender.h"
#include "Dovel/transport/ConnectionThread.h"

#include "Basalt/Trace.h"

#include <QDir>
#include <QFile>
#include <QSettings>

#include <dirent.h>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cmath>
#include <cstring>

namespace Dovel {

namespace {

const QString TempSuffix = QStringLiteral(".filesync.part");
// How many computed checksums between two "Generated checksums" reports.
constexpr int ChecksumReportPeriod = 100;

void report(ProgressSender* progress, const QString& text) {
    if (progress)
        progress->transferInfo(text);
}

// A file's modification time in milliseconds since the epoch (links followed, as
// QFileInfo does), or -1 when it cannot be read. Read with stat() because
// QFileInfo::lastModified converts to local time, which costs a time-zone lookup per
// file and dominates the walk of a large folder.
int64_t modifiedMsecs(const struct stat& status) {
    return int64_t(status.st_mtim.tv_sec) * 1000 + status.st_mtim.tv_nsec / 1000000;
}

int64_t modifiedMsecs(const QString& path) {
    struct stat status;
    if (::stat(QFile::encodeName(path).constData(), &status) != 0)
        return -1;
    return modifiedMsecs(status);
}

// Whether an entry of an open folder is readable, as access() says; decided from the
// mode alone when it lets everyone read, which spares the call for nearly every file.
bool isReadable(int folderFd, const char* name, const struct stat& status) {
    constexpr mode_t everyone = S_IRUSR | S_IRGRP | S_IROTH;
    if ((status.st_mode & everyone) == everyone)
        return true;
    return ::faccessat(folderFd, name, R_OK, 0) == 0;
}

// Times are kept in UTC: the same instant, without local-time conversions.
QDateTime utcTime(int64_t msecs) {
    return QDateTime::fromMSecsSinceEpoch(msecs, Qt::UTC);
}

bool sameFile(const AssetBase::FileInfo& cached, int64_t size, int64_t modified) {
    return !cached.md5.isEmpty() && cached.size == size && modified >= 0 &&
           cached.lastModified.toMSecsSinceEpoch() == modified;
}

bool sameLists(const AssetBase::FileList& a, const AssetBase::FileList& b) {
    if (a.size() != b.size())
        return false;
    for (auto x = a.constBegin(), y = b.constBegin(); x != a.constEnd(); ++x, ++y)
        if (x.key() != y.key() || x->size != y->size || x->md5 != y->md5 ||
            x->lastModified.toMSecsSinceEpoch() != y->lastModified.toMSecsSinceEpoch())
            return false;
    return true;
}

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

// Calls `found(name)` for every regular file below root + dir whose name ends in the
// temporary suffix, by name relative to the root. Links are not followed, so nothing
// outside the folder is touched; the entry type from readdir() spares a stat per file.
template <typename Found>
void forEachTempFile(const QString& root, const QString& dir, const Found& found) {
    DIR* const folder = ::opendir(QFile::encodeName(root + dir).constData());
    if (!folder)
        return;
    static const QByteArray suffix = TempSuffix.toLatin1();
    while (const dirent* item = ::readdir(folder)) {
        const char* const raw = item->d_name;
        if (raw[0] == '.' && (raw[1] == '\0' || (raw[1] == '.' && raw[2] == '\0')))
            continue;
        unsigned char type = item->d_type;
        if (type == DT_UNKNOWN) {
            struct stat status;
            if (::fstatat(::dirfd(folder), raw, &status, AT_SYMLINK_NOFOLLOW) != 0)
                continue;
            type = S_ISDIR(status.st_mode) ? DT_DIR : S_ISREG(status.st_mode) ? DT_REG : DT_LNK;
        }
        if (type == DT_DIR) {
            forEachTempFile(root, dir + QLatin1Char('/') + QFile::decodeName(raw), found);
        } else if (type == DT_REG) {
            const size_t length = strlen(raw);
            if (length >= size_t(suffix.size()) &&
                memcmp(raw + length - size_t(suffix.size()), suffix.constData(),
                       size_t(suffix.size())) == 0)
                found(dir + QLatin1Char('/') + QFile::decodeName(raw));
        }
    }
    ::closedir(folder);
}

} // namespace

AssetBase::AssetBase(const QString& root) {
    QDir().mkpath(root);
    root_ = QDir(root).canonicalPath();
    if (root_.isEmpty())
        root_ = QDir::cleanPath(QDir(root).absolutePath());
    cacheFile = ChecksumCacheFile::settingsFile();
    readCache();
}

AssetBase::~AssetBase() {
    if (lockFd >= 0) {
        // Removed while still held, so that no one locks it after we let go.
        ::unlink(QFile::encodeName(root_ + QLatin1Char('/') + LockFileName).constData());
        ::close(lockFd);
    }
}

void AssetBase::transferFinished() {}

// ---- names and paths ----

bool AssetBase::isCarriableName(const QString& name) {
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

bool AssetBase::isInside(const QString& canonicalRoot, const QString& canonicalPath) {
    if (canonicalPath.isEmpty() || canonicalRoot.isEmpty())
        return false;
    if (canonicalRoot == QLatin1String("/"))
        return canonicalPath.startsWith(QLatin1Char('/'));
    return canonicalPath == canonicalRoot ||
           canonicalPath.startsWith(canonicalRoot + QLatin1Char('/'));
}

QString AssetBase::resolveInside(const QString& canonicalRoot, const QString& name) {
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

const QString AssetBase::LockFileName = QStringLiteral(".filesync.lock");

QString AssetBase::tempPathFor(const QString& target) {
    const int slash = target.lastIndexOf(QLatin1Char('/'));
    const QString leaf = target.mid(slash + 1);
    const QByteArray encoded = QFile::encodeName(leaf);
    if (encoded.size() + TempSuffix.size() <= NAME_MAX)
        return target + TempSuffix;
    return target.left(slash + 1) + QLatin1Char('.') +
           QString::fromLatin1(QCryptographicHash::hash(encoded, QCryptographicHash::Md5).toHex()) +
           TempSuffix;
}

bool AssetBase::lockForWriting(QString& error) {
    if (lockFd >= 0)
        return true;
    const QByteArray path = QFile::encodeName(root_ + QLatin1Char('/') + LockFileName);
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

QString AssetBase::resolveLinkFree(const QString& canonicalRoot, const QString& name) {
    if (!isCarriableName(name) || linkFree(canonicalRoot, name, nullptr) == LinkFree::Other)
        return QString();
    return (canonicalRoot == QLatin1String("/") ? QString() : canonicalRoot) + name;
}

QString AssetBase::linkFreeFile(const QString& canonicalRoot, const QString& name) {
    struct stat status;
    if (!isCarriableName(name) || linkFree(canonicalRoot, name, &status) != LinkFree::Exists ||
        !S_ISREG(status.st_mode))
        return QString();
    return (canonicalRoot == QLatin1String("/") ? QString() : canonicalRoot) + name;
}

int64_t AssetBase::partCount(int64_t size, int64_t partSize) {
    if (size <= 0 || partSize <= 0)
        return 0;
    // Rounded up without adding first: a peer may announce a size near the type's top.
    return size / partSize + (size % partSize != 0 ? 1 : 0);
}

// ---- the file list ----

int64_t AssetBase::buildFileList(const QString& dir, FileList& list,
                                 QList<QPair<QString, QFileInfo>>& pending) {
    // Found files are matched against the cached list in name order, one pass over both,
    // and enter `list` in order: a map lookup and insertion per file were a good part of
    // listing a large unchanged folder.
    std::vector<FoundFile> found;
    walkFolder(dir, found);
    std::sort(found.begin(), found.end(),
              [](const FoundFile& a, const FoundFile& b) { return a.name < b.name; });
    auto cached = files.constBegin();
    for (const FoundFile& file : found) {
        while (cached != files.constEnd() && cached.key() < file.name)
            ++cached;
        if (cached != files.constEnd() && cached.key() == file.name &&
            sameFile(*cached, file.size, file.modified)) {
            list.insert(list.constEnd(), file.name, *cached);
            reused.fetch_add(1);
        } else {
            pending.append(qMakePair(file.name, QFileInfo(root_ + file.name)));
        }
    }
    return int64_t(found.size());
}

void AssetBase::walkFolder(const QString& dir, std::vector<FoundFile>& found) {
    // Read with readdir() and one fstatat() per entry relative to the open folder: a
    // QFileInfo per entry costs an access() and two stats by full path, which is most of
    // the time of listing a large unchanged folder.
    const QString folderPath = root_ + dir;
    DIR* const folder = ::opendir(
        QFile::encodeName(folderPath.isEmpty() ? QStringLiteral("/") : folderPath).constData());
    if (!folder)
        return;
    const int folderFd = ::dirfd(folder);
    while (const dirent* item = ::readdir(folder)) {
        const char* const raw = item->d_name;
        if (raw[0] == '.' && (raw[1] == '\0' || (raw[1] == '.' && raw[2] == '\0')))
            continue;
        struct stat status;
        if (::fstatat(folderFd, raw, &status, AT_SYMLINK_NOFOLLOW) != 0)
            continue;
        const bool link = S_ISLNK(status.st_mode);
        if (link && linksLeftAlone)
            continue;
        if (link && ::fstatat(folderFd, raw, &status, 0) != 0)
            continue; // a dangling link is neither a file nor a folder
        const bool isDir = S_ISDIR(status.st_mode);
        if ((!isDir && !S_ISREG(status.st_mode)) || !isReadable(folderFd, raw, status))
            continue;
        const QString fileName = QFile::decodeName(raw);
        if (fileName.endsWith(TempSuffix) || (dir.isEmpty() && fileName == LockFileName))
            continue; // a download in progress, or a pull's lock
        QString name = dir + QLatin1Char('/') + fileName;
        if (!isCarriableName(name)) {
            Basalt::Trace::warning("AssetBase::buildFileList # Skipping '%s': the file protocol "
                                   "cannot carry its name",
                                   name.toUtf8().constData());
            if (uncarriable.size() < MaxUncarriableNames)
                uncarriable.append(name);
            continue;
        }
        if (link && !isInsideRoot(QFileInfo(root_ + name).canonicalFilePath())) {
            Basalt::Trace::warning("AssetBase::buildFileList # Skipping '%s': the link leads "
                                   "outside the folder",
                                   name.toUtf8().constData());
            continue;
        }
        if (isDir) {
            const QString canonical = QFileInfo(root_ + name).canonicalFilePath();
            if (visitedDirs.contains(canonical))
                continue; // a link back into the tree
            visitedDirs.insert(canonical);
            walkedFolders.append(root_ + name);
            walkFolder(name, found);
            continue;
        }
        found.push_back(FoundFile{std::move(name), int64_t(status.st_size), modifiedMsecs(status)});
    }
    ::closedir(folder);
}

AssetBase::FileList AssetBase::buildFileList(ProgressSender* progress) {
    Basalt::Guard guard(fileListMutex);
    return buildLocked(progress);
}

QStringList AssetBase::uncarriableNames() const {
    Basalt::Guard guard(fileListMutex);
    return uncarriable;
}

QStringList AssetBase::foldersOfLastBuild() const {
    Basalt::Guard guard(fileListMutex);
    return walkedFolders;
}

uint64_t AssetBase::buildGeneration() const {
    Basalt::Guard guard(fileListMutex);
    return buildsBegun;
}

AssetBase::FileList AssetBase::fileListBuiltSince(uint64_t generation, ProgressSender* progress) {
    Basalt::Guard guard(fileListMutex);
    if (buildsBegun > generation)
        return files;
    return buildLocked(progress);
}

AssetBase::FileList AssetBase::buildLocked(ProgressSender* progress) {
    ++buildsBegun;
    report(progress, QStringLiteral("Scanning directory tree..."));
    FileList list;
    QList<QPair<QString, QFileInfo>> pending;
    visitedDirs.clear();
    visitedDirs.insert(root_);
    uncarriable.clear();
    walkedFolders = QStringList{root_};
    buildFileList(QString(), list, pending);
    const int64_t reusedHere = list.size();

    int generated = 0;
    for (const QPair<QString, QFileInfo>& file : pending) {
        const QString path = file.second.absoluteFilePath();
        // Taken before reading, so that a change while the file is read shows next time.
        const int64_t modified = modifiedMsecs(path);
        bool ok = false;
        const QString sum = computeMd5(path, &ok);
        if (!ok) {
            Basalt::Trace::warning("Failed to open %s", path.toUtf8().constData());
            report(progress, QStringLiteral("Failed to open: %1").arg(path));
            continue;
        }
        computed.fetch_add(1);
        list.insert(file.first, FileInfo{file.second.size(), sum, utcTime(modified)});
        if (++generated % ChecksumReportPeriod == 0)
            report(progress, QStringLiteral("Generated checksums: %1").arg(generated));
    }
    if (generated % ChecksumReportPeriod != 0)
        report(progress, QStringLiteral("Generated checksums: %1").arg(generated));
    Basalt::Trace::debug("AssetBase::buildFileList # %s: %lld checksums reused, %d computed",
                         root_.toUtf8().constData(), static_cast<long long>(reusedHere), generated);

    // An unchanged list leaves the store as it is: rewriting it is most of the cost of
    // listing a large unchanged folder.
    if (!cacheStored || !sameLists(list, files)) {
        writeCache(list);
        cacheStored = true;
    }
    files = list;
    report(progress, QStringLiteral("Checksum list generated"));
    return list;
}

AssetBase::FileList AssetBase::fileList() const {
    Basalt::Guard guard(fileListMutex);
    return files;
}

QString AssetBase::md5(const QString& name) {
    const QString path = resolveInside(name);
    if (path.isEmpty())
        return QString();
    struct stat status;
    const bool found = ::stat(QFile::encodeName(path).constData(), &status) == 0;
    {
        Basalt::Guard guard(fileListMutex);
        const auto cached = files.constFind(name);
        if (found && cached != files.constEnd() &&
            sameFile(*cached, status.st_size, modifiedMsecs(status))) {
            reused.fetch_add(1);
            return cached->md5;
        }
    }
    bool ok = false;
    const QString sum = computeMd5(path, &ok);
    if (!ok)
        return QString();
    computed.fetch_add(1);
    return sum;
}

QString AssetBase::computeMd5(const QString& path, bool* ok) {
    QFile file(path);
    *ok = false;
    if (!file.open(QIODevice::ReadOnly))
        return QString();
    QCryptographicHash hash(QCryptographicHash::Md5);
    if (!hash.addData(&file))
        return QString();
    *ok = true;
    return QString::fromLatin1(hash.result().toHex());
}

// ---- the checksum cache ----

QString AssetBase::cacheArrayName() const {
    return QStringLiteral("FileList/") + root_;
}

void AssetBase::readCache() {
    FileList plain;
    int count = 0;
    if (!ChecksumCacheFile::read(cacheFile, cacheArrayName(), plain, count)) {
        Basalt::Trace::debug("AssetBase::readCache # %s: read through QSettings",
                             root_.toUtf8().constData());
        plain.clear();
        QSettings settings(QStringLiteral("Brevant"), QStringLiteral("Cache"));
        count = settings.beginReadArray(cacheArrayName());
        for (int i = 0; i < count; ++i) {
            settings.setArrayIndex(i);
            const QString name = settings.value(QStringLiteral("file")).toString();
            FileInfo info;
            info.lastModified = utcTime(settings.value(QStringLiteral("ts")).toLongLong());
            info.md5 = settings.value(QStringLiteral("MD5")).toString();
            info.size = settings.value(QStringLiteral("size")).toLongLong();
            if (isCarriableName(name) && info.md5.size() == 32)
                plain.insert(name, info);
        }
        settings.endArray();
    }
    Basalt::Guard guard(fileListMutex);
    files = plain;
    cacheStored = files.size() == count; // else the store holds entries we dropped
}

void AssetBase::writeCache(const FileList& list) {
    if (ChecksumCacheFile::write(cacheFile, cacheArrayName(), list))
        return;
    Basalt::Trace::debug("AssetBase::writeCache # %s: written through QSettings",
                         root_.toUtf8().constData());
    QSettings settings(QStringLiteral("Brevant"), QStringLiteral("Cache"));
    settings.remove(cacheArrayName());
    settings.beginWriteArray(cacheArrayName(), list.size());
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

// ---- the download list ----

bool AssetBase::addFileToDownloadList(const QString& name, int64_t size, int64_t parts,
                                      const QString& md5, Basalt::TimeStamp owner) {
    Basalt::Guard guard(downloadMutex);
    if (downloads.count(name))
        return false;
    const int64_t charge = Limits::DownloadEntryBytes + name.toUtf8().size();
    if (downloadListBytes + charge > Limits::MaxDownloadListBytes) {
        Basalt::Trace::warning("AssetBase::addFileToDownloadList # The download list of %s is "
                               "full; '%s' is not fetched",
                               root_.toUtf8().constData(), name.toUtf8().constData());
        return false;
    }
    downloadListBytes += charge;
    Download& entry = downloads[name];
    entry.charge = charge;
    entry.startTime = QDateTime::currentDateTime();
    entry.md5 = QByteArray::fromHex(md5.toLatin1());
    entry.size = size;
    entry.parts = parts;
    entry.owner = owner;
    entry.hash = std::make_shared<RunningMd5>();
    return true;
}

bool AssetBase::isDownloading(const QString& name) const {
    Basalt::Guard guard(downloadMutex);
    return downloads.count(name) != 0;
}

int64_t AssetBase::currentParts(const QString& name) const {
    Basalt::Guard guard(downloadMutex);
    const auto it = downloads.find(name);
    return it == downloads.end() ? 0 : it->second.received;
}

int64_t AssetBase::totalParts(const QString& name) const {
    Basalt::Guard guard(downloadMutex);
    const auto it = downloads.find(name);
    return it == downloads.end() ? 0 : it->second.parts;
}

bool AssetBase::increasePartCount(const QString& name) {
    Basalt::Guard guard(downloadMutex);
    const auto it = downloads.find(name);
    if (it == downloads.end())
        return false;
    ++it->second.received;
    return true;
}

void AssetBase::downloadListAddHashData(const QString& name, const QByteArray& bytes) {
    std::shared_ptr<RunningMd5> running;
    {
        Basalt::Guard guard(downloadMutex);
        const auto it = downloads.find(name);
        if (it == downloads.end())
            return;
        running = it->second.hash;
    }
    Basalt::Guard guard(running->mutex);
    running->hash.addData(bytes);
}

QString AssetBase::downloadListMD5(const QString& name) const {
    Basalt::Guard guard(downloadMutex);
    const auto it = downloads.find(name);
    return it == downloads.end() ? QString() : QString::fromLatin1(it->second.md5.toHex());
}

QString AssetBase::downloadListPartMD5(const QString& name) const {
    std::shared_ptr<RunningMd5> running;
    {
        Basalt::Guard guard(downloadMutex);
        const auto it = downloads.find(name);
        if (it == downloads.end())
            return QString();
        running = it->second.hash;
    }
    Basalt::Guard guard(running->mutex);
    return QString::fromLatin1(running->hash.result().toHex());
}

QDateTime AssetBase::downloadListStartTime(const QString& name) const {
    Basalt::Guard guard(downloadMutex);
    const auto it = downloads.find(name);
    return it == downloads.end() ? QDateTime() : it->second.startTime;
}

int AssetBase::downloadCount() const {
    Basalt::Guard guard(downloadMutex);
    return static_cast<int>(downloads.size());
}

bool AssetBase::removeFileFromDownloadList(const QString& name, bool success) {
    FileInfo finished;
    bool existed = false;
    {
        Basalt::Guard guard(downloadMutex);
        const auto it = downloads.find(name);
        if (it != downloads.end()) {
            existed = true;
            finished.size = it->second.size;
            finished.md5 = QString::fromLatin1(it->second.md5.toHex());
        }
    }
    if (existed && success) {
        const int64_t modified = modifiedMsecs(root_ + name);
        finished.lastModified =
            utcTime(modified >= 0 ? modified : QDateTime::currentMSecsSinceEpoch());
        Basalt::Guard guard(fileListMutex);
        files.insert(name, finished);
        cacheStored = false;
    }
    bool empty;
    {
        Basalt::Guard guard(downloadMutex);
        const auto it = downloads.find(name);
        if (it != downloads.end()) {
            downloadListBytes -= it->second.charge;
            downloads.erase(it);
        }
        empty = downloads.empty();
    }
    if (existed && empty) {
        buildFileList(nullptr);
        transferFinished();
    }
    return existed;
}

int AssetBase::removeLeftoverParts() {
    int removed = 0;
    Basalt::Guard guard(downloadMutex);
    forEachTempFile(root_, QString(), [&](const QString& name) {
        for (const auto& download : downloads)
            if (tempPathFor(root_ + download.first) == root_ + name)
                return;
        if (QFile::remove(root_ + name))
            ++removed;
    });
    if (removed > 0)
        Basalt::Trace::info("AssetBase::removeLeftoverParts # Removed %d unfinished download%s "
                            "of an earlier run",
                            removed, removed == 1 ? "" : "s");
    return removed;
}

bool AssetBase::clearDownloadList(Basalt::TimeStamp owner) {
    bool dropped = false;
    Basalt::Guard guard(downloadMutex);
    for (auto it = downloads.begin(); it != downloads.end();) {
        if (it->second.owner != owner) {
            ++it;
            continue;
        }
        if (it->second.received > 0)
            QFile::remove(tempPathFor(root_ + it->first));
        downloadListBytes -= it->second.charge;
        it = downloads.erase(it);
        dropped = true;
    }
    return dropped;
}

// ---- removing files ----

void AssetBase::addFileToRemoveQueue(const QString& path,
                                     std::shared_ptr<ConnectionThread> connection) {
    Basalt::Guard guard(removeMutex);
    removeQueue[path].append(std::move(connection));
}

int AssetBase::drainRemoveQueue() {
    QMap<QString, QList<std::shared_ptr<ConnectionThread>>> taken;
    {
        Basalt::Guard guard(removeMutex);
        taken.swap(removeQueue);
    }
    int removed = 0;
    for (auto it = taken.constBegin(); it != taken.constEnd(); ++it)
        if (removeFileAndEmptyFolders(it.key()))
            ++removed;
    if (!taken.isEmpty()) {
        {
            Basalt::Guard guard(fileListMutex);
            for (auto it = taken.constBegin(); it != taken.constEnd(); ++it)
                files.remove(it.key());
            cacheStored = false;
        }
        transferFinished();
    }
    return removed;
}

bool AssetBase::removeFileAndEmptyFolders(const QString& path) {
    if (resolveInside(path).isEmpty()) {
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
        if (canonical.isEmpty() || canonical == root_ || !isInsideRoot(canonical))
            break;
        if (!QDir().rmdir(canonical))
            break; // not empty
        folder = QFileInfo(canonical).absolutePath();
    }
    return true;
}

} // namespace Dovel
