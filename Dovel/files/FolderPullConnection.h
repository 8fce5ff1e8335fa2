// The pulling end of a folder mirror: a client file-transfer connection that brings a
// local folder up to date with a FolderServeConnection. After the login it receives
// the server's file list, asks ("sendfileinfo") for every file that is missing here or
// differs in size or MD5, optionally removes local files that the server does not have
// (and the folders left empty), downloads the files, then checks the folder against the
// list once more (walking it again only when something was fetched or removed). One
// attempt, no reconnection: the result says what happened.
//
// Threads: start, waitFinished and result may be called from any thread; the progress
// callback and the protocol run on the connection's thread. The result is guarded by
// `resultMutex`. The asset folder must outlive the connection.
#pragma once

#include "Dovel/files/AssetBase.h"
#include "Dovel/files/FileTransferHandler.h"

#include "Basalt/Condition.h"
#include "Basalt/Mutex.h"

#include <QMap>
#include <QSet>
#include <QStringList>

#include <functional>

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
        bool success = false; // the folder matches the server's list
        QString error;        // why the pull ended early, if it did
        QStringList failed;   // names that do not match
        int filesChecked = 0; // entries of the server's list
        int filesTransferred = 0;
        int filesDeleted = 0;
        int64_t bytesTransferred = 0;
    };

    // With deleteExtra, local files that the server does not list are removed.
    FolderPullConnection(AssetBase& asset, bool deleteExtra);
    ~FolderPullConnection() override;

    // Called on the connection's thread as files progress; set before start().
    void setProgressCallback(std::function<void(const Progress&)> callback);
    // Connects once to host:port and runs the pull. The local list is walked when the
    // server's list has arrived, unless the asset holds one built since `listGeneration`
    // (AssetBase::buildGeneration(); by default its value now): a caller that has just
    // built the list, to have the checksums ready before connecting, spares the walk.
    void start(const QString& host, int port);
    void start(const QString& host, int port, uint64_t listGeneration);
    // Waits up to `ms` milliseconds (negative: without limit); true once finished.
    bool waitFinished(int ms);
    Result result() const;

protected:
    bool parse(const QString& line) override;
    void handleConnection() override;
    void connectionFailed() override;
    void progress(int64_t bytes, const QString& name) override;
    void downloadStarted(const QString& name, int64_t size) override;
    void downloadFinished(const QString& name, bool success) override;

private:
    struct Entry {
        int64_t size = 0;
        QString md5;
    };

    bool receiveList(const QString& countText);
    void compareAndRequest(const QString& totalText);
    void receiveSync();
    void checkDone();
    void verifyAndFinish();
    void finish(bool success, const QString& error);
    void report(const QString& name);

    const bool deleteExtra;
    std::function<void(const Progress&)> progressCallback;

    // The protocol's state: the connection's thread only.
    QMap<QString, Entry> serverList;
    uint64_t listGeneration = 0;
    AssetBase::FileList compared; // the local list that the requests were made from
    bool changedHere = false;     // a file was requested or removed
    int listEntriesSeen = 0;      // skipped ones included
    bool listDone = false;
    bool syncReceived = false;
    QSet<QString> pending;   // requested and not yet finished
    QSet<QString> announced; // described by the server and being downloaded
    QStringList failedNames;
    int transferred = 0;
    int deleted = 0;
    int64_t bytesDone = 0;
    Progress progressState;

    mutable Basalt::Mutex resultMutex;
    Basalt::Condition finishedCondition;
    Result result_; // guarded by resultMutex
};

} // namespace Dovel
