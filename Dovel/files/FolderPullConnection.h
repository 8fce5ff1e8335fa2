// The pulling end of a folder mirror: the file-transfer protocol of a client connection
// that brings a local folder up to date with a FolderServeConnection. After the login it
// receives the server's file list, asks ("sendfileinfo") for every file that is missing
// here or differs in size or MD5, optionally removes local files that the server does
// not have (and the folders left empty), downloads the files, then checks the folder
// against the list once more (walking it again only when something was fetched or
// removed). One attempt, no reconnection: the result says what happened. A pull only
// receives: a server that asks for one of our files ends it. It locks its folder (a
// second pull into it fails at once), and asks once more for a file whose download
// failed.
//
// The local folder is listed on a thread of the pull's own while it connects and the
// server lists its folder, so that the two walks overlap and the connection's thread
// keeps answering the server (a folder whose checksums must be computed can take
// minutes); the comparison runs when both lists are in, on whichever thread finished
// last.
//
// Made by create(): the connection owns the pull, and the pointer returned shares the
// connection's ownership; connection() configures it (login key, time-out).
//
// Threads: start, waitFinished and result may be called from any thread; the progress
// callback and the protocol run on the connection's thread or the listing thread, one
// at a time: the protocol's state is guarded by `protocolMutex`, the result by
// `resultMutex`. The asset folder must outlive the connection; the pull's destructor
// (after the connection's threads ended) waits for the local walk to end.
#pragma once

#include "Dovel/files/AssetBase.h"
#include "Dovel/files/FileListThread.h"
#include "Dovel/files/FileTransferHandler.h"
#include "Dovel/transport/ConnectionThread.h"

#include "Basalt/Condition.h"
#include "Basalt/Mutex.h"

#include <QMap>
#include <QSet>
#include <QStringList>

#include <functional>
#include <memory>

namespace Dovel {

class FolderPullConnection : public FileTransferHandler {
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

    // With deleteExtra, local files that the server does not list are removed.
    static std::shared_ptr<FolderPullConnection> create(AssetBase& asset, bool deleteExtra);
    // For create(), through ConnectionThread::create.
    FolderPullConnection(ConnectionThread& connection, AssetBase& asset, bool deleteExtra);
    ~FolderPullConnection() override;

    ConnectionThread& connection() { return connection_; }

    // Called as files progress, never twice at once; set before start().
    void setProgressCallback(std::function<void(const Progress&)> callback);
    // Connects once to host:port and runs the pull; call once. The local folder is
    // walked meanwhile unless the asset holds a list built since `listGeneration`
    // (FolderIndex::generation(); by default its value now): a caller that has just
    // built the list spares the walk.
    void start(const QString& host, int port);
    void start(const QString& host, int port, uint64_t listGeneration);
    // Waits up to `ms` milliseconds (negative: without limit); true once finished.
    bool waitFinished(int ms);
    // ConnectionThread::shutdown, and then waits for the listing thread too (unless
    // called on it): the listing thread may otherwise still be leaving, having let go
    // of a reference, when the process ends.
    void shutdown();
    Result result() const;

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
    // Runs on the listing thread; compares when the server's list is complete.
    void localListReady(const FileList& list);
    void compareAndRequest();
    void receiveSync();
    void checkDone();
    void verifyAndFinish();
    void finish(bool success, const QString& error);
    // "HOST:PORT: " and why the peer could not be reached or served.
    QString describeFailure() const;
    void report(const QString& name);

    ConnectionThread& connection_; // owns this pull
    const bool deleteExtra;
    std::function<void(const Progress&)> progressCallback;

    // Walks the local folder (or takes the list built since start()'s generation).
    std::unique_ptr<FileListThread> lister;

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
    bool syncReceived = false;
    QSet<QString> pending;   // requested and not yet finished
    QSet<QString> announced; // described by the server and being downloaded
    QSet<QString> retried;   // failed once and asked for again
    QStringList failedNames;
    QStringList uncarried;
    int transferred = 0;
    int deleted = 0;
    int64_t bytesDone = 0;
    Progress progressState;

    mutable Basalt::Mutex resultMutex;
    Basalt::Condition finishedCondition;
    Result result_; // guarded by resultMutex
};

} // namespace Dovel
