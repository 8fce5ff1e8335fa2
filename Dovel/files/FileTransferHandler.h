// The protocol that copies files of an asset folder between two peers over the line
// protocol, with the commands of FileCommands.
//
// The receiver writes parts to NAME + ".filesync.part" (PathPolicy::tempPathFor), checks
// the whole file's MD5 and renames it into place. Downloads whose parts stop coming for
// the connection's time-out fail. The sender never hands out a file whose name holds ".."
// or whose path leaves the folder (symbolic links are resolved): such a request is
// logged and gets no answer.
//
// Threads: lines and parts arrive on the link's reading thread (the connection's), where
// the hooks run and where parts are written to their temporary files; their MD5 runs on
// a DownloadHasher's threads, which read the files back. A download whose last part has
// come is finished (its MD5 checked, the file renamed into place) once its hash is done,
// at the next line or when the peer is quiet, so that the next file arrives meanwhile;
// the last download expected waits for every hash, and a line about a finishing
// download's name (or a new file at the same place) waits for that one. Uploads are the
// FileUploader's: its task on the background pool sends the parts asked for. The asset
// folder and the link must outlive the handler.
#pragma once

#include "Dovel/files/DownloadHasher.h"
#include "Dovel/files/DownloadLedger.h"
#include "Dovel/files/FileCommands.h"
#include "Dovel/files/FileUploader.h"
#include "Dovel/transport/ConnectionHandler.h"

#include "Basalt/Stopwatch.h"

#include <QFile>
#include <QHash>
#include <QRegularExpression>
#include <QSet>
#include <QString>

#include <cstdint>
#include <deque>
#include <map>
#include <memory>

namespace Dovel {

class AssetBase;

class FileTransferHandler : public ConnectionHandler {
public:
    static constexpr int64_t PartSize = FileCommands::PartSize;
    // Progress is reported every this many parts (and at the last).
    static constexpr int64_t ProgressPeriod = 20;
    // Downloads whose MD5 may run at once, each on a thread.
    static constexpr int HashThreads = 2;
    static constexpr double DefaultTimeoutSeconds = 60.0;

    // Sets the link's time-out to DefaultTimeoutSeconds.
    FileTransferHandler(ConnectionLink& link, AssetBase& asset);
    ~FileTransferHandler() override;

    AssetBase& asset() { return assetBase; }

protected:
    bool parse(const QString& line) override;
    void connected() override;
    void disconnected() override;
    // Downloads waiting for their hash end while the peer is quiet.
    bool wantsIdle() override;
    void idle() override;

    void requestFileInfo(const QString& name);
    // Answers a description request; false (and no answer) when the file does not exist
    // or may not be handed out.
    bool sendFileInfo(const QString& name);

    // The local folder that names are appended to; the asset folder's root by default.
    virtual QString rootDirectory() const;
    // Bytes received for `name` since the last report.
    virtual void progress(int64_t bytes, const QString& name);
    // Whether a description of `name` may start a download; a peer may send only what
    // was asked for. True by default.
    virtual bool wantsDownload(const QString& name);
    // A download was accepted (after "fileinfo"; its parts may still wait for others
    // to end) / has ended.
    virtual void downloadStarted(const QString& name, int64_t size);
    virtual void downloadFinished(const QString& name, bool success);

private:
    void requestFileParts(const QString& name);
    void receiveFileInfo(const QString& name, int64_t size, int64_t parts, const QString& md5);
    // A description whose parts have not been asked for yet.
    struct Described {
        QString name;
        int64_t size = 0;
        int64_t parts = 0;
        QString md5;
    };
    // Enters the download list and asks for the parts.
    void startDownload(const Described& download);
    // Starts waiting downloads while fewer than Limits::MaxDownloadsPerConnection run.
    void startWaitingDownloads();
    void receiveFilePart(const QString& name, int64_t bytes, int64_t part);
    // The open temporary file of a download being received.
    struct Receiving {
        QString target;
        QString temp;
        QFile file;
        int64_t written = 0;
    };
    // A download whose parts have all come, waiting for its hash.
    struct Finishing {
        QString name;
        QString target;
        QString temp;
    };
    // The temporary file of `name`, made afresh for part 1; null (logged) when it
    // cannot be opened.
    Receiving* receivingFile(const QString& name, int64_t part);
    // Finishes the downloads waiting for their hashes, in the order their last parts
    // came: all of them with `wait`, else those whose hash is done, up to the first that
    // is not.
    void settleFinishing(bool wait);
    // A finishing download of `name` ends (with every one before it) before anything
    // else is done about the name.
    void settleFinishing(const QString& name);
    void finishDownload(const Finishing& download);
    // Finishes what can be finished, forgets hashes and closes the open temporary files.
    void settleReceiving();
    void failDownload(const QString& name, bool mayTouchFiles);
    // The canonical path of a file that may be handed out, or empty (the refusal is
    // logged).
    QString servablePath(const QString& name, const char* operation) const;
    // The path a received file may be written to, or empty.
    QString targetPath(const QString& name) const;
    QString canonicalRoot(const QString& rootDir) const;

    // Answers "sendparts": queues the file for the uploader when it may be handed out.
    void startFilePartsUploadTask(const QString& name);

    const int64_t partSize = PartSize;
    AssetBase& assetBase;
    const int64_t progressPeriod = ProgressPeriod;
    QHash<QString, int64_t> receivedCounts; // the connection's thread only
    // Owns this connection's downloads; new at every connection. Its thread only.
    ConnectionId connectionId = 0;

    const QRegularExpression fileInfoPattern;
    const QRegularExpression sendFileInfoPattern;
    const QRegularExpression filePartPattern;
    const QRegularExpression sendPartsPattern;

    // The connection's thread only: open temporary files, downloads waiting for their
    // hash, names accepted whose last part has not come, and the buffer parts are read
    // into.
    std::map<QString, std::unique_ptr<Receiving>> receiving;
    std::deque<Finishing> finishing;
    QSet<QString> incoming;               // parts asked for, last part not yet come
    std::deque<Described> waitingToStart; // described, parts not yet asked for
    QByteArray partBuffer;
    DownloadHasher hashes;
    Basalt::Stopwatch sinceProgress; // since the last part came (or the wait began)

    FileUploader uploader; // sends the parts asked for
};

} // namespace Dovel
