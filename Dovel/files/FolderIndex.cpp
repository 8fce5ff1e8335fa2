#include "Dovel/files/FolderIndex.h"

#include "Dovel/files/PathPolicy.h"
#include "Dovel/files/ProgressSender.h"

#include "Basalt/Trace.h"

#include <QCryptographicHash>
#include <QFile>

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>

namespace Dovel {

namespace {

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

bool sameFile(const FileInfo& cached, int64_t size, int64_t modified) {
    return !cached.md5.isEmpty() && cached.size == size && modified >= 0 &&
           cached.lastModified.toMSecsSinceEpoch() == modified;
}

bool sameLists(const FileList& a, const FileList& b) {
    if (a.size() != b.size())
        return false;
    for (auto x = a.constBegin(), y = b.constBegin(); x != a.constEnd(); ++x, ++y)
        if (x.key() != y.key() || x->size != y->size || x->md5 != y->md5 ||
            x->lastModified.toMSecsSinceEpoch() != y->lastModified.toMSecsSinceEpoch())
            return false;
    return true;
}

} // namespace

FolderIndex::FolderIndex(const QString& root, std::unique_ptr<ChecksumCache> cache)
    : root_(root), cache(std::move(cache)) {
    bool exact = false;
    files = this->cache->load(root_, exact);
    cacheStored = exact;
}

int64_t FolderIndex::collect(const QString& dir, FileList& list,
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

void FolderIndex::walkFolder(const QString& dir, std::vector<FoundFile>& found) {
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
        if (fileName.endsWith(PathPolicy::TempSuffix) ||
            (dir.isEmpty() && fileName == PathPolicy::LockFileName))
            continue; // a download in progress, or a pull's lock
        QString name = dir + QLatin1Char('/') + fileName;
        if (!PathPolicy::isCarriableName(name)) {
            Basalt::Trace::warning("FolderIndex::walkFolder # Skipping '%s': the file protocol "
                                   "cannot carry its name",
                                   name.toUtf8().constData());
            if (uncarriable.size() < MaxUncarriableNames)
                uncarriable.append(name);
            continue;
        }
        if (link && !PathPolicy::isInside(root_, QFileInfo(root_ + name).canonicalFilePath())) {
            Basalt::Trace::warning("FolderIndex::walkFolder # Skipping '%s': the link leads "
                                   "outside the folder",
                                   name.toUtf8().constData());
            continue;
        }
        if (isDir) {
            const QString canonical = QFileInfo(root_ + name).canonicalFilePath();
            if (visitedDirs.contains(canonical))
                continue; // a link back into the tree
            visitedDirs.insert(canonical);
            walked.append(root_ + name);
            walkFolder(name, found);
            continue;
        }
        found.push_back(FoundFile{std::move(name), int64_t(status.st_size), modifiedMsecs(status)});
    }
    ::closedir(folder);
}

FileList FolderIndex::build(ProgressSender* progress) {
    Basalt::Guard guard(mutex);
    return buildLocked(progress);
}

QStringList FolderIndex::uncarriableNames() const {
    Basalt::Guard guard(mutex);
    return uncarriable;
}

QStringList FolderIndex::walkedFolders() const {
    Basalt::Guard guard(mutex);
    return walked;
}

uint64_t FolderIndex::generation() const {
    Basalt::Guard guard(mutex);
    return buildsBegun;
}

FileList FolderIndex::builtSince(uint64_t generation, ProgressSender* progress) {
    Basalt::Guard guard(mutex);
    if (buildsBegun > generation)
        return files;
    return buildLocked(progress);
}

FileList FolderIndex::buildLocked(ProgressSender* progress) {
    ++buildsBegun;
    report(progress, QStringLiteral("Scanning directory tree..."));
    FileList list;
    QList<QPair<QString, QFileInfo>> pending;
    visitedDirs.clear();
    visitedDirs.insert(root_);
    uncarriable.clear();
    walked = QStringList{root_};
    collect(QString(), list, pending);
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
    Basalt::Trace::debug("FolderIndex::build # %s: %lld checksums reused, %d computed",
                         root_.toUtf8().constData(), static_cast<long long>(reusedHere), generated);

    // An unchanged list leaves the store as it is: rewriting it is most of the cost of
    // listing a large unchanged folder.
    if (!cacheStored || !sameLists(list, files)) {
        cache->store(root_, list);
        cacheStored = true;
    }
    files = list;
    report(progress, QStringLiteral("Checksum list generated"));
    return list;
}

FileList FolderIndex::list() const {
    Basalt::Guard guard(mutex);
    return files;
}

QString FolderIndex::md5(const QString& name) {
    const QString path = PathPolicy::resolveInside(root_, name);
    if (path.isEmpty())
        return QString();
    struct stat status;
    const bool found = ::stat(QFile::encodeName(path).constData(), &status) == 0;
    {
        Basalt::Guard guard(mutex);
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

QString FolderIndex::computeMd5(const QString& path, bool* ok) {
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

void FolderIndex::recordFile(const QString& name, int64_t size, const QString& md5) {
    const int64_t modified = modifiedMsecs(root_ + name);
    const FileInfo finished{
        size, md5, utcTime(modified >= 0 ? modified : QDateTime::currentMSecsSinceEpoch())};
    Basalt::Guard guard(mutex);
    files.insert(name, finished);
    cacheStored = false;
}

void FolderIndex::forgetFiles(const QStringList& names) {
    Basalt::Guard guard(mutex);
    for (const QString& name : names)
        files.remove(name);
    cacheStored = false;
}

} // namespace Dovel
