// The pulling end of a folder mirror: the file-transfer protocol of a client connection
// that brings a local folder up to date with a FolderServeConnection. After the login it
// receives the server's file list, and once the local list is in too (handed over by its
// owner, a FolderPull, which walks the folder meanwhile), asks ("sendfileinfo") for
// every file that is missing here or differs in size or MD5, optionally removes local
// files that the server does not have (and the folders left empty), downloads the files,
// then checks the folder against the list once more (walking it again only when
// something was fetched or removed). One attempt: the result, handed to the owner once,
// says what happened. A pull only receives: a server that asks for one of our files ends
// it. It asks once more for a file whose download failed.
//
// It speaks only through its ConnectionLink, so that it runs over a test's fake link as
// over a connection; what its owner must hear goes through Owner.
//
// Threads: the protocol runs on the link's reading thread, localListReady and fail on
// any other (the owner's listing thread, its own), one at a time: the protocol's state
// is guarded by `protocolMutex`, which is held while the owner is called. The owner and
// the asset folder must outlive the handler's hooks (the connection's threads and the
// owner's listing thread ended).
#pragma once

#include "Dovel/files/FileList.h"
#include "Dovel/files/FileTransferHandler.h"
#include "Dovel/transport/WriterThread.h"

#include "Basalt/Mutex.h"

#include <QHash>
#include <QMap>
#include <QSet>
#include <QStringList>

#include <cstdint>

namespace Dovel {

class FolderPullHandler : public FileTransferHandler {
public:
    struct Progress {
        int filesToFetch = 0;
        int filesFetched = 0; // finished, successfully or not
        int64_t bytesToFetch = 0;
        int64_t bytesFetched = 0;
        QString current; // the file that progressed last
    };

    struct Result {
        bool finished = false;
        bool success = false;  // the folder matches the server's list
        QString error;         // why the pull ended early, if it did
        QStringList failed;    // names that do not match
        QStringList uncarried; // the server's files whose names the protocol cannot carry
        int filesChecked = 0;  // entries of the server's list
        int filesTransferred = 0;
        int filesDeleted = 0;
        int64_t bytesTransferred = 0;
    };

    // What the pull reports, under protocolMutex (so never twice at once), on the
    // thread that made the progress or the end.
    class Owner {
    public:
        virtual ~Owner() = default;
        virtual void pullProgress(const Progress& progress) = 0;
        // Once, with `finished` set; the link is stopped right after.
        virtual void pullFinished(const Result& result) = 0;
    };

    // With deleteExtra, local files that the server does not list are removed.
    FolderPullHandler(ConnectionLink& link, AssetBase& asset, bool deleteExtra, Owner& owner);

    // How long a server may say nothing at all before the pull gives up on it (the
    // connection's writer enforces it): a server that is there pings a quiet puller at
    // least every ping interval, also while it lists a large folder.
    static double silenceLimitSeconds(double timeoutSeconds) {
        return timeoutSeconds + WriterThread::DefaultPingIntervalSeconds;
    }

    // The local folder's list; the comparison runs once the server's list is complete
    // too, unless the pull has finished or its link is stopping.
    void localListReady(const FileList& list);
    // Ends the pull with `error` before the protocol could (the folder could not be
    // locked or listed).
    void fail(const QString& error);

protected:
    bool parse(const QString& line) override;
    void attemptEnded() override;
    void connectionFailed() override;
    // The transfer handler's ends of downloads, under protocolMutex as in parse().
    void disconnected() override;
    void idle() override;
    void progress(int64_t bytes, const QString& name) override;
    // Only the files this pull asked for, once each.
    bool wantsDownload(const QString& name) override;
    void downloadStarted(const QString& name, int64_t size) override;
    void downloadFinished(const QString& name, bool success) override;

private:
    struct Entry {
        int64_t size = 0;
        QString md5;
    };

    bool receiveList(const QString& countText);
    void receiveListEnd(const QString& totalText);
    void compareAndRequest();
    void receiveSync();
    // Asks for `name`'s description; askSync() then closes the requests made.
    void request(const QString& name);
    void askSync();
    void checkDone();
    void verifyAndFinish();
    void finish(bool success, const QString& error);
    // "HOST:PORT: " and why the peer could not be reached or served.
    QString describeFailure() const;
    void report(const QString& name);

    Owner& owner;
    const bool deleteExtra;

    // The protocol's state, guarded by protocolMutex, which parse() holds while the
    // transfer handler calls back into this class.
    Basalt::Mutex protocolMutex;
    QMap<QString, Entry> serverList;
    FileList compared;        // the local list that the requests were made from
    bool localListed = false; // `compared` holds the local list
    bool changedHere = false; // a file was requested or removed
    int listEntriesSeen = 0;  // skipped ones included
    int64_t listBytes = 0;    // charged against Limits::MaxFileListBytes
    bool listDone = false;    // the server's list is complete
    bool requested = false;   // the comparison has run and asked for what differs
    // Each "sendfilesync" follows requests that its "filesync" closes: the server answers
    // in order, so a file not described by the answer of the sync after its request was
    // refused. Counted, since a retry asks again while an earlier sync is on its way.
    uint64_t syncsSent = 0;
    uint64_t syncsAnswered = 0;
    QHash<QString, uint64_t> closedBy; // the sync after each name's latest request
    bool finished = false;             // the owner has had the result
    QSet<QString> pending;             // requested and not yet finished
    QSet<QString> announced;           // described by the server and being downloaded
    QSet<QString> retried;             // failed once and asked for again
    QStringList failedNames;
    QStringList uncarried;
    int transferred = 0;
    int deleted = 0;
    int64_t bytesDone = 0;
    Progress progressState;
};

} // namespace Dovel
