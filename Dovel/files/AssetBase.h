// One local folder of asset files that peers keep in step with the file-transfer
// protocol: its canonical root, the index of its files (FolderIndex), the downloads being
// received into it (DownloadLedger), the queue of files to remove, and the lock a pull
// holds on it. It does what touches more than one of those: a download that ends is
// recorded in the index, and removed files leave it.
//
// A folder a pull writes into leaves links alone (index().leaveLinksAlone()): it neither
// lists, follows, removes nor writes through them, so that a pull never touches anything
// but the path a name names; a file the server has where a link stands here fails.
//
// Thread-safe: the index and the ledger guard themselves, and neither calls the other,
// so that their locks are never held together; the remove queue is guarded by
// `removeMutex`, and no other lock is taken while it is held.
#pragma once

#include "Dovel/files/DownloadLedger.h"
#include "Dovel/files/FileList.h"
#include "Dovel/files/FolderIndex.h"

#include "Basalt/Mutex.h"

#include <QSet>
#include <QString>

namespace Dovel {

class ProgressSender;

class AssetBase {
public:
    // `root` need not be canonical; the stored root is (a missing folder is made). The
    // index keeps its checksums in the settings store (SettingsChecksumCache).
    explicit AssetBase(const QString& root);
    virtual ~AssetBase();
    AssetBase(const AssetBase&) = delete;
    AssetBase& operator=(const AssetBase&) = delete;

    QString root() const { return root_; }
    FolderIndex& index() { return index_; }
    const FolderIndex& index() const { return index_; }
    DownloadLedger& downloads() { return ledger; }
    const DownloadLedger& downloads() const { return ledger; }

    // index().build(): walks the folder and returns its list.
    FileList buildFileList(ProgressSender* progress = nullptr) { return index_.build(progress); }

    // Ends a download: a successful one is recorded in the index. When no download is
    // left the folder is listed again. False when the name was not being downloaded.
    bool endDownload(const QString& name, bool success);

    // Files that a peer no longer has, removed by drainRemoveQueue().
    void addFileToRemoveQueue(const QString& path);
    // Removes every queued file and the folders that it leaves empty; returns the number
    // of files removed. Calls transferFinished() when anything was queued.
    int drainRemoveQueue();
    // Removes root + path, then the folders above it that became empty (never the root).
    bool removeFileAndEmptyFolders(const QString& path);
    // Locks the folder for one writer (a pull) until this object goes (the lock file,
    // PathPolicy::LockFileName, is removed then); false, with `error` set, when another
    // process holds it or the lock file cannot be made.
    bool lockForWriting(QString& error);

protected:
    // Called when a batch of downloads or removals has ended; does nothing by default.
    virtual void transferFinished();

private:
    QString root_;
    FolderIndex index_;
    DownloadLedger ledger;

    Basalt::Mutex removeMutex;
    QSet<QString> removeQueue; // guarded by it
    int lockFd = -1;
};

} // namespace Dovel
