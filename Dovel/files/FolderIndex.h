// The list of one folder's files with size, modification time and MD5: the walk that
// finds them, the checksums, the generations of builds, and the names left out.
//
// Checksums are kept in a ChecksumCache and reused while a file's size and modification
// time (to the millisecond) stay the same, so an unchanged folder is listed without
// rereading it; the store is rewritten only when the list changed.
//
// Symbolic links: the walk follows the links that lead to files or folders inside the
// folder (their files are listed under the link's path) and skips the others; a folder
// a pull writes into leaves links alone (leaveLinksAlone): the walk neither lists nor
// follows them.
//
// Thread-safe: the list, the cache and everything a build leaves are guarded by one
// lock (`mutex`), held for a whole build; the counters are atomic. The index never calls
// out of itself while holding its lock except to the cache and the progress sender.
#pragma once

#include "Dovel/files/ChecksumCache.h"
#include "Dovel/files/FileList.h"

#include "Basalt/Mutex.h"

#include <QFileInfo>
#include <QList>
#include <QPair>
#include <QSet>
#include <QString>
#include <QStringList>

#include <atomic>
#include <cstdint>
#include <memory>
#include <vector>

namespace Dovel {

class ProgressSender;

class FolderIndex {
public:
    static constexpr int MaxUncarriableNames = 1000;

    // `root` must be canonical. The stored list is read from `cache` now.
    FolderIndex(const QString& root, std::unique_ptr<ChecksumCache> cache);
    FolderIndex(const FolderIndex&) = delete;
    FolderIndex& operator=(const FolderIndex&) = delete;

    QString root() const { return root_; }
    // Links are left alone from now on (see above): a pull's folder. Set before use.
    void leaveLinksAlone() { linksLeftAlone = true; }
    bool leavesLinksAlone() const { return linksLeftAlone; }

    // Walks the folder and returns its list, reusing cached checksums; rewrites the
    // cache. Progress texts go to `progress` when given.
    FileList build(ProgressSender* progress = nullptr);
    // The list of the last build, with the changes recorded since.
    FileList list() const;
    // Builds begun so far; a list built after this value was read saw the folder as it
    // was then or later.
    uint64_t generation() const;
    // The list of a build begun after `generation` was read (waiting for one under way),
    // or a new build when there is none. Lets two users that want a fresh list share one
    // walk of the folder.
    FileList builtSince(uint64_t generation, ProgressSender* progress = nullptr);
    // The files the last build left out because the protocol cannot carry their names
    // (at most MaxUncarriableNames of them).
    QStringList uncarriableNames() const;
    // The folders the last build walked (absolute paths, the root first).
    QStringList walkedFolders() const;
    // The checksum of a file: the listed one while its size and modification time are
    // unchanged, otherwise computed now. Empty when the file cannot be read.
    QString md5(const QString& name);

    // A file received whole: listed with its checksum and its modification time now.
    void recordFile(const QString& name, int64_t size, const QString& md5);
    // Files removed: no longer listed.
    void forgetFiles(const QStringList& names);

    // Checksums computed by reading a file, and taken from the cache instead, over the
    // index's life.
    int64_t checksumsComputed() const { return computed.load(); }
    int64_t checksumsReused() const { return reused.load(); }

private:
    struct FoundFile {
        QString name;
        int64_t size = 0;
        int64_t modified = 0; // milliseconds since the epoch
    };

    // build() with the lock held.
    FileList buildLocked(ProgressSender* progress);
    // Walks the folder `dir` (a name relative to the root, "" for the root itself) and
    // the folders below it: files whose cached checksum still holds go to `list`, the
    // others to `pending`. Returns the files found.
    int64_t collect(const QString& dir, FileList& list, QList<QPair<QString, QFileInfo>>& pending);
    // Appends the readable regular files below `dir` that the protocol can carry,
    // in no particular order.
    void walkFolder(const QString& dir, std::vector<FoundFile>& found);
    static QString computeMd5(const QString& path, bool* ok);

    const QString root_;
    const std::unique_ptr<ChecksumCache> cache;
    bool linksLeftAlone = false;
    std::atomic<int64_t> computed{0};
    std::atomic<int64_t> reused{0};

    mutable Basalt::Mutex mutex;
    FileList files;          // the last built list, which is also the checksum cache
    QStringList uncarriable; // guarded by mutex
    QStringList walked;      // guarded by mutex
    // Whether the cache holds exactly `files`; guarded by mutex.
    bool cacheStored = false;
    uint64_t buildsBegun = 0; // guarded by mutex
    // Directories visited during one walk, by canonical path, so that a link cannot
    // make the walk loop; guarded by mutex.
    QSet<QString> visitedDirs;
};

} // namespace Dovel
