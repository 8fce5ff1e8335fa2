// One local folder of asset files that peers keep in step with the file-transfer
// protocol: its canonical root, the list of its files with size, modification time and
// MD5, the download list of files being received, and the queue of files to remove.
//
// Checksums are cached in the settings store (QSettings of "Brevant"/"Cache", array
// "FileList/" + root) and reused while a file's size and modification time (to the
// millisecond) stay the same, so an unchanged folder is listed without rereading it.
// The array is read and written through ChecksumCacheFile where it can, QSettings
// otherwise.
//
// Symbolic links: a served folder follows the links that lead to files or folders
// inside it (their files are listed under the link's path) and skips the others. A
// folder a pull writes into leaves links alone (leaveLinksAlone): it neither lists,
// follows, removes nor writes through them, so that a pull never touches anything but
// the path a name names; a file the server has where a link stands here fails.
//
// Thread-safe: the file list and the checksum cache are guarded by `fileListMutex`, the
// download list by `downloadMutex` (each download's running MD5 by a lock of its own,
// taken after the list's is released), the remove queue by `removeMutex`; the file list
// lock is never taken while the download list lock is held.
#pragma once

#include "Basalt/Mutex.h"
#include "Basalt/TimeStamp.h"

#include <QByteArray>
#include <QCryptographicHash>
#include <QDateTime>
#include <QFileInfo>
#include <QList>
#include <QMap>
#include <QPair>
#include <QSet>
#include <QString>
#include <QStringList>

#include <atomic>
#include <cstdint>
#include <map>
#include <memory>
#include <vector>

namespace Dovel {

class ConnectionThread;
class ProgressSender;

class AssetBase {
public:
    struct FileInfo {
        int64_t size = 0;
        QString md5;            // 32 lowercase hexadecimal digits
        QDateTime lastModified; // in UTC
    };
    // From file name ("/dir/file", relative to the root) to its description.
    using FileList = QMap<QString, FileInfo>;

    // `root` need not be canonical; the stored root is (a missing folder is made).
    explicit AssetBase(const QString& root);
    virtual ~AssetBase();
    AssetBase(const AssetBase&) = delete;
    AssetBase& operator=(const AssetBase&) = delete;

    QString root() const { return root_; }

    // Walks the folder and returns its list, reusing cached checksums; rewrites the
    // cache. Progress texts go to `progress` when given.
    FileList buildFileList(ProgressSender* progress = nullptr);
    // The list of the last build, with finished downloads recorded since.
    FileList fileList() const;
    // Builds begun so far; a list built after this value was read saw the folder as it
    // was then or later.
    uint64_t buildGeneration() const;
    // The list of a build begun after `generation` was read (waiting for one under way),
    // or a new build when there is none. Lets two users that want a fresh list share one
    // walk of the folder.
    FileList fileListBuiltSince(uint64_t generation, ProgressSender* progress = nullptr);
    // The files the last build left out because the protocol cannot carry their names
    // (at most MaxUncarriableNames of them).
    QStringList uncarriableNames() const;
    static constexpr int MaxUncarriableNames = 1000;
    // The folders the last build walked (absolute paths, the root first).
    QStringList foldersOfLastBuild() const;
    // The checksum of a file: the listed one while its size and modification time are
    // unchanged, otherwise computed now. Empty when the file cannot be read.
    QString md5(const QString& name);

    // True for a name the protocol can carry: "/" then components separated by "/",
    // none empty, "." or "..", no ".." anywhere, none of \ : * ? " < > and no control
    // characters, at most Limits::MaxFileNameBytes.
    static bool isCarriableName(const QString& name);
    // The absolute path of `name` when it stays inside the root after resolving
    // symbolic links (the nearest existing ancestor is resolved for a missing file);
    // empty when the name is not carriable or leads outside.
    QString resolveInside(const QString& name) const { return resolveInside(root_, name); }
    // Links are left alone from now on (see above): a pull's folder. Set before use.
    void leaveLinksAlone() { linksLeftAlone = true; }
    bool leavesLinksAlone() const { return linksLeftAlone; }
    // root + name when no component of it below the root is a symbolic link (the file
    // itself may be missing); empty otherwise or when the name is not carriable.
    static QString resolveLinkFree(const QString& canonicalRoot, const QString& name);
    // The same for any canonical root.
    static QString resolveInside(const QString& canonicalRoot, const QString& name);
    // root + name when it is a regular file reached through no symbolic link below the
    // canonical root, so that it is its own canonical path; empty otherwise, and the
    // caller resolves the path in full. Costs an lstat() per component of the name only.
    static QString linkFreeFile(const QString& canonicalRoot, const QString& name);
    // True when a canonical path is the canonical root or lies below it.
    static bool isInside(const QString& canonicalRoot, const QString& canonicalPath);
    // The parts of a file of `size` bytes in parts of `partSize`, rounded up.
    static int64_t partCount(int64_t size, int64_t partSize);

    // The download list. Every operation takes the download list lock.
    bool addFileToDownloadList(const QString& name, int64_t size, int64_t parts, const QString& md5,
                               Basalt::TimeStamp owner);
    bool isDownloading(const QString& name) const;
    int64_t currentParts(const QString& name) const;
    int64_t totalParts(const QString& name) const;
    bool increasePartCount(const QString& name);
    // Feeds the running MD5; may run on another thread than the rest of the download,
    // one caller at a time per name.
    void downloadListAddHashData(const QString& name, const QByteArray& bytes);
    // The announced checksum as 32 lowercase hexadecimal digits.
    QString downloadListMD5(const QString& name) const;
    // The checksum of the bytes received so far, as 32 lowercase hexadecimal digits.
    QString downloadListPartMD5(const QString& name) const;
    QDateTime downloadListStartTime(const QString& name) const;
    int downloadCount() const;
    // Ends a download: a successful one is recorded in the file list. When the list
    // becomes empty the file list is built again. False when the name was not listed.
    bool removeFileFromDownloadList(const QString& name, bool success);
    // Drops the downloads of one connection and their temporary files; true when any
    // was dropped.
    bool clearDownloadList(Basalt::TimeStamp owner);

    // Files that a peer no longer has, removed by drainRemoveQueue().
    void addFileToRemoveQueue(const QString& path, std::shared_ptr<ConnectionThread> connection);
    // Removes every queued file and the folders that it leaves empty; returns the number
    // of files removed. Calls transferFinished() when anything was queued.
    int drainRemoveQueue();
    // Removes root + path, then the folders above it that became empty (never the root).
    bool removeFileAndEmptyFolders(const QString& path);
    // Removes the temporary files of downloads that no longer run (a pull that was
    // killed leaves them behind); those of active downloads stay. Returns how many.
    int removeLeftoverParts();
    // Where a download of the file at `target` (an absolute path) is written until it is
    // checked: target + ".filesync.part", or, when that would pass the longest name a
    // file system takes, a hidden name in the same folder derived from the file's name.
    static QString tempPathFor(const QString& target);
    // The name of the lock file a pull holds in its folder's root; no walk lists it.
    static const QString LockFileName;
    // Locks the folder for one writer (a pull) until this object goes (the lock file is
    // removed then); false, with `error` set, when another process holds it or the lock
    // file cannot be made.
    bool lockForWriting(QString& error);

    // Checksums computed by reading a file, and taken from the cache instead, over the
    // asset's life.
    int64_t checksumsComputed() const { return computed.load(); }
    int64_t checksumsReused() const { return reused.load(); }

protected:
    // Called when a batch of downloads or removals has ended; does nothing by default.
    virtual void transferFinished();
    // Walks the folder `dir` (a name relative to the root, "" for the root itself) and
    // the folders below it: files whose cached checksum still holds go to `list`, the
    // others to `pending`. Returns the files found.
    int64_t buildFileList(const QString& dir, FileList& list,
                          QList<QPair<QString, QFileInfo>>& pending);

private:
    // The MD5 of a download's bytes so far, fed outside the download list lock so that a
    // part being hashed does not hold up the other download list operations.
    struct RunningMd5 {
        Basalt::Mutex mutex;
        QCryptographicHash hash{QCryptographicHash::Md5}; // guarded by `mutex`
    };
    struct Download {
        QDateTime startTime;
        QByteArray md5; // the announced checksum, 16 raw bytes
        int64_t size = 0;
        int64_t parts = 0;
        Basalt::TimeStamp owner;
        int64_t received = 0; // parts
        std::shared_ptr<RunningMd5> hash;
        int64_t charge = 0; // counted against Limits::MaxDownloadListBytes
    };

    struct FoundFile {
        QString name;
        int64_t size = 0;
        int64_t modified = 0; // milliseconds since the epoch
    };

    bool isInsideRoot(const QString& canonicalPath) const { return isInside(root_, canonicalPath); }
    // Appends the readable regular files below `dir` that the protocol can carry,
    // in no particular order; with fileListMutex held.
    void walkFolder(const QString& dir, std::vector<FoundFile>& found);
    // buildFileList() with fileListMutex held.
    FileList buildLocked(ProgressSender* progress);
    void readCache();
    void writeCache(const FileList& list);
    QString cacheArrayName() const;
    static QString computeMd5(const QString& path, bool* ok);

    QString root_;
    QString cacheFile; // the settings file of the checksum cache
    std::atomic<int64_t> computed{0};
    std::atomic<int64_t> reused{0};

    mutable Basalt::Mutex fileListMutex;
    FileList files;            // the last built list, which is also the checksum cache
    QStringList uncarriable;   // guarded by fileListMutex
    QStringList walkedFolders; // guarded by fileListMutex
    // Whether the settings store holds exactly `files`; guarded by fileListMutex.
    bool cacheStored = false;
    uint64_t buildsBegun = 0; // guarded by fileListMutex

    mutable Basalt::Mutex downloadMutex;
    std::map<QString, Download> downloads;
    int64_t downloadListBytes = 0; // the entries' charges; guarded like them

    Basalt::Mutex removeMutex;
    QMap<QString, QList<std::shared_ptr<ConnectionThread>>> removeQueue;
    // Directories visited during one walk, by canonical path, so that a link cannot
    // make the walk loop; touched only under fileListMutex.
    QSet<QString> visitedDirs;
    bool linksLeftAlone = false;
    int lockFd = -1;
};

} // namespace Dovel
