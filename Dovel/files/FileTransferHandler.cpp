#include "Dovel/files/FileTransferHandler.h"

#include "Dovel/files/FileCommands.h"

#include "Dovel/Limits.h"
#include "Dovel/files/AssetBase.h"
#include "Dovel/files/PathPolicy.h"

#include "Basalt/BinaryData.h"
#include "Basalt/FileWriter.h"
#include "Basalt/Trace.h"

#include <QDir>
#include <QFileInfo>

#include <cmath>

#include <stdio.h>

namespace Dovel {

namespace {

const QString Name = QStringLiteral("\"((?:/[^?*<>:\"]+)+)\"");
QRegularExpression pattern(const QString& text) {
    return QRegularExpression(text.arg(Name));
}

} // namespace

FileTransferHandler::FileTransferHandler(ConnectionLink& link, AssetBase& asset)
    : ConnectionHandler(link), assetBase(asset),
      fileInfoPattern(pattern(QStringLiteral("^fileinfo (-?\\d+) %1 (\\d+) ([0-9a-f]{32})$"))),
      sendFileInfoPattern(pattern(QStringLiteral("^sendfileinfo %1$"))),
      filePartPattern(pattern(QStringLiteral("^filepart %1 (\\d+) (\\d+)$"))),
      sendPartsPattern(pattern(QStringLiteral("^sendparts %1$"))),
      hashes(HashThreads,
             [&asset](const QString& name, const QByteArray& bytes) {
                 asset.downloads().addHashData(name, bytes);
             }),
      uploader(link, PartSize) {
    link.setTimeoutSeconds(DefaultTimeoutSeconds);
}

FileTransferHandler::~FileTransferHandler() = default;

// ---- wire lines ----

// ---- dispatch ----

bool FileTransferHandler::parse(const QString& line) {
    if (!finishing.empty())
        settleFinishing(false);
    QRegularExpressionMatch match = fileInfoPattern.match(line);
    if (match.hasMatch()) {
        bool sizeOk = false;
        bool partsOk = false;
        const int64_t size = match.captured(1).toLongLong(&sizeOk);
        const int64_t parts = match.captured(3).toLongLong(&partsOk);
        if (!sizeOk || !partsOk)
            return false;
        receiveFileInfo(match.captured(2), size, parts, match.captured(4));
        return true;
    }
    match = sendFileInfoPattern.match(line);
    if (match.hasMatch()) {
        settleFinishing(match.captured(1)); // the file as it now is
        sendFileInfo(match.captured(1));
        return true;
    }
    match = filePartPattern.match(line);
    if (match.hasMatch()) {
        bool countOk = false;
        bool partOk = false;
        const int64_t bytes = match.captured(2).toLongLong(&countOk);
        const int64_t part = match.captured(3).toLongLong(&partOk);
        if (!countOk || !partOk || bytes > Limits::MaxFilePartBytes) {
            // The raw bytes that follow cannot be framed: the stream is lost.
            Basalt::Trace::warning(
                "FileTransferHandler::parse # Part %s of '%s' announces %s "
                "bytes: not a part number, or above the limit of %d bytes; "
                "disconnecting",
                match.captured(3).toUtf8().constData(), match.captured(1).toUtf8().constData(),
                match.captured(2).toUtf8().constData(), Limits::MaxFilePartBytes);
            link().stop();
            return true;
        }
        receiveFilePart(match.captured(1), bytes, part);
        return true;
    }
    match = sendPartsPattern.match(line);
    if (match.hasMatch()) {
        settleFinishing(match.captured(1));
        startFilePartsUploadTask(match.captured(1));
        return true;
    }
    return false;
}

void FileTransferHandler::connected() {
    connectionId = DownloadLedger::newConnectionId();
}

bool FileTransferHandler::wantsIdle() {
    return !finishing.empty() || !incoming.isEmpty();
}

void FileTransferHandler::idle() {
    settleFinishing(false);
    // Parts asked for that do not come (the file shrank on the server while it was sent,
    // which the protocol cannot say): those downloads fail, so that the peer's owner can
    // ask again or give up.
    if (incoming.isEmpty() || sinceProgress.elapsedSeconds() <= link().timeoutSeconds())
        return;
    for (const QString& name : QStringList(incoming.values())) {
        Basalt::Trace::warning("FileTransferHandler::idle # No part of '%s' came from %s:%d for "
                               "%g s; the file may have changed while it was sent",
                               name.toUtf8().constData(), link().hostName().toUtf8().constData(),
                               link().port(), link().timeoutSeconds());
        failDownload(name, true);
    }
    sinceProgress.restart();
}

void FileTransferHandler::disconnected() {
    settleReceiving();
    assetBase.downloads().clear(connectionId);
    receivedCounts.clear();
}

QString FileTransferHandler::rootDirectory() const {
    return assetBase.root();
}

void FileTransferHandler::progress(int64_t, const QString&) {}

bool FileTransferHandler::wantsDownload(const QString&) {
    return true;
}

void FileTransferHandler::downloadStarted(const QString&, int64_t) {}

void FileTransferHandler::downloadFinished(const QString&, bool) {}

// ---- paths ----

QString FileTransferHandler::servablePath(const QString& name, const char* operation) const {
    // The one name policy of the folder: what it lists is what it serves.
    if (!PathPolicy::isCarriableName(name)) {
        Basalt::Trace::warning("FileTransferHandler::%s # Refusing '%s': not a name the file "
                               "protocol carries",
                               operation, name.toUtf8().constData());
        return QString();
    }
    const QString rootDir = rootDirectory();
    if (rootDir == assetBase.root()) {
        const QString plain = PathPolicy::linkFreeFile(rootDir, name);
        if (!plain.isEmpty())
            return plain;
    }
    const QFileInfo info(rootDir + name);
    if (!info.exists()) {
        Basalt::Trace::warning("FileTransferHandler::commitUpload#  file '%s' doesn't exist. "
                               "Not uploaded",
                               name.toUtf8().constData());
        return QString();
    }
    const QString canonical = info.canonicalFilePath();
    if (!PathPolicy::isInside(canonicalRoot(rootDir), canonical) || !info.isFile()) {
        Basalt::Trace::warning("FileTransferHandler::%s # Refusing '%s': it is not a file "
                               "inside the shared folder",
                               operation, name.toUtf8().constData());
        return QString();
    }
    return canonical;
}

QString FileTransferHandler::targetPath(const QString& name) const {
    const QString root = canonicalRoot(rootDirectory());
    return assetBase.index().leavesLinksAlone() ? PathPolicy::resolveLinkFree(root, name)
                                                : PathPolicy::resolveInside(root, name);
}

QString FileTransferHandler::canonicalRoot(const QString& rootDir) const {
    // The asset's root is canonical already: resolving it again per file costs a
    // readlink() per component of the path.
    return rootDir == assetBase.root() ? rootDir : QFileInfo(rootDir).canonicalFilePath();
}

// ---- downloading ----

void FileTransferHandler::requestFileInfo(const QString& name) {
    link().writeBufferData(FileCommands::sendFileInfoLine(name), QByteArray());
}

void FileTransferHandler::requestFileParts(const QString& name) {
    link().writeBufferData(FileCommands::sendPartsLine(name), QByteArray());
}

void FileTransferHandler::receiveFileInfo(const QString& name, int64_t size, int64_t parts,
                                          const QString& md5) {
    settleFinishing(name); // a download of the name ends before anything is said of the next
    if (name.contains(QLatin1String("..")) || !name.startsWith(QLatin1Char('/'))) {
        Basalt::Trace::warning("Filename can't contain '..' and it has to start with '/': %s",
                               name.toUtf8().constData());
        return;
    }
    if (size < 0 || targetPath(name).isEmpty()) {
        Basalt::Trace::warning("FileTransferHandler::receiveFileInfo # Refusing '%s': no file "
                               "to fetch, or it would land outside the folder",
                               name.toUtf8().constData());
        return;
    }
    // Peers count parts in single precision, which undercounts some files above 16 MiB;
    // the exact count keeps such a file from failing.
    const int64_t exactParts = PathPolicy::partCount(size, partSize);
    if (parts != exactParts) {
        Basalt::Trace::debug("FileTransferHandler::receiveFileInfo # '%s' announces %lld parts, "
                             "expecting %lld",
                             name.toUtf8().constData(), static_cast<long long>(parts),
                             static_cast<long long>(exactParts));
        parts = exactParts;
    }
    if (!wantsDownload(name)) {
        Basalt::Trace::warning("FileTransferHandler::receiveFileInfo # Refusing '%s' from "
                               "%s:%d: it was not asked for",
                               name.toUtf8().constData(), link().hostName().toUtf8().constData(),
                               link().port());
        return;
    }
    downloadStarted(name, size);
    // Each download under way holds its file open: beyond the cap, the rest wait.
    const Described described{name, size, parts, md5};
    if (incoming.size() >= Limits::MaxDownloadsPerConnection)
        waitingToStart.push_back(described);
    else
        startDownload(described);
}

void FileTransferHandler::startDownload(const Described& download) {
    if (incoming.isEmpty())
        sinceProgress.restart(); // the wait for parts starts here
    if (assetBase.downloads().add(download.name, download.size, download.parts, download.md5,
                                  connectionId)) {
        incoming.insert(download.name);
        requestFileParts(download.name);
        return;
    }
    Basalt::Trace::warning("File '%s' is being downloaded already",
                           download.name.toUtf8().constData());
    downloadFinished(download.name, false);
}

void FileTransferHandler::startWaitingDownloads() {
    while (!waitingToStart.empty() && incoming.size() < Limits::MaxDownloadsPerConnection) {
        const Described next = waitingToStart.front();
        waitingToStart.pop_front();
        startDownload(next);
    }
}

FileTransferHandler::Receiving* FileTransferHandler::receivingFile(const QString& name,
                                                                   int64_t part) {
    auto it = receiving.find(name);
    if (it != receiving.end() && part != 1)
        return it->second.get();
    if (it != receiving.end())
        receiving.erase(it); // a download that was begun again
    // The path is checked once per download; the open file keeps it from moving.
    const QString target = targetPath(name);
    if (target.isEmpty())
        return nullptr;
    auto made = std::make_unique<Receiving>();
    made->target = target;
    made->temp = PathPolicy::tempPathFor(target);
    // Another name may lead to the same file (through a link, or a case-insensitive file
    // system): a download waiting for its hash there ends before the file is made again.
    if (!finishing.empty() && QFileInfo::exists(made->temp)) {
        const QString file = QFileInfo(made->temp).canonicalFilePath();
        for (const Finishing& download : finishing)
            if (QFileInfo(download.temp).canonicalFilePath() == file) {
                settleFinishing(true);
                break;
            }
    }
    QDir().mkpath(QFileInfo(made->temp).absolutePath());
    made->file.setFileName(made->temp);
    {
        Basalt::FileWriter writing(made->temp);
        QFile::remove(made->temp);
        // Unbuffered: every part goes to the file system as it comes, and a failed write
        // shows at once.
        if (!made->file.open(QIODevice::WriteOnly | QIODevice::Append | QIODevice::Unbuffered)) {
            Basalt::Trace::warning("Failed to open %s", made->temp.toUtf8().constData());
            return nullptr;
        }
        // A folder on the way swapped for a link since the path was checked would put
        // the download elsewhere: nothing is written there, and what was made goes.
        const QString opened = PathPolicy::openedPath(made->file.handle());
        if (opened != made->temp) {
            Basalt::Trace::warning("FileTransferHandler::receivingFile # '%s' no longer leads "
                                   "into the folder; not written",
                                   made->temp.toUtf8().constData());
            if (made->file.size() == 0)
                QFile::remove(opened);
            made->file.close();
            return nullptr;
        }
    }
    hashes.begin(name, made->temp);
    Receiving* opened = made.get();
    receiving[name] = std::move(made);
    return opened;
}

void FileTransferHandler::settleFinishing(bool wait) {
    while (!finishing.empty()) {
        if (!wait && !hashes.isDone(finishing.front().name))
            return;
        const Finishing next = finishing.front();
        finishing.pop_front();
        finishDownload(next);
    }
}

void FileTransferHandler::settleFinishing(const QString& name) {
    for (const Finishing& download : finishing)
        if (download.name == name) {
            settleFinishing(true);
            return;
        }
}

void FileTransferHandler::settleReceiving() {
    settleFinishing(true);
    hashes.cancelAll();
    receiving.clear();
    incoming.clear();
    waitingToStart.clear();
}

void FileTransferHandler::receiveFilePart(const QString& name, int64_t bytes, int64_t part) {
    sinceProgress.restart();
    // The bytes come first, so that the stream stays framed whatever happens next.
    partBuffer.resize(int(bytes));
    if (!link().readData(reinterpret_cast<uint8_t*>(partBuffer.data()), int(bytes)))
        return; // the connection has ended; disconnected() clears its downloads

    settleFinishing(name);
    // Only parts asked for: the rest would open files beyond the cap.
    const bool downloading = incoming.contains(name) && assetBase.downloads().isDownloading(name);
    const int64_t expected = assetBase.downloads().currentParts(name) + 1;
    if (!downloading || part != expected) {
        Basalt::Trace::warning("received file part %lld but we expected %lld: '%s'",
                               static_cast<long long>(part), static_cast<long long>(expected),
                               name.toUtf8().constData());
        failDownload(name, downloading);
        return;
    }
    Receiving* file = receivingFile(name, part);
    if (!file) {
        failDownload(name, true);
        return;
    }
    // The parts must come to the size announced, which the checksum alone does not hold
    // the peer to: a file of other bytes would replace ours.
    int64_t announced = 0;
    QString md5;
    assetBase.downloads().describe(name, announced, md5);
    const auto wrongSize = [&](const char* how) {
        Basalt::Trace::warning("FileTransferHandler::receiveFilePart # The parts of '%s' come "
                               "to %s %lld bytes announced",
                               name.toUtf8().constData(), how, static_cast<long long>(announced));
        failDownload(name, true);
    };
    if (bytes > announced - file->written) {
        wrongSize("more than the");
        return;
    }
    {
        Basalt::FileWriter writing(file->temp);
        if (file->file.write(partBuffer) != partBuffer.size()) {
            Basalt::Trace::warning("FileTransferHandler::receiveFilePart # Failed to write %s: "
                                   "%s",
                                   file->temp.toUtf8().constData(),
                                   file->file.errorString().toUtf8().constData());
            failDownload(name, true);
            return;
        }
    }
    file->written += bytes;

    assetBase.downloads().increasePartCount(name);
    const int64_t current = assetBase.downloads().currentParts(name);
    const int64_t total = assetBase.downloads().totalParts(name);
    const bool last = current == total || total == 0;
    if (last && file->written != announced) {
        wrongSize("fewer than the");
        return;
    }
    hashes.written(name, file->written, last);
    int64_t& count = receivedCounts[name];
    count += bytes;
    if (current % progressPeriod == 0 || last) {
        progress(count, name);
        count = 0;
    }
    if (!last)
        return;

    receivedCounts.remove(name);
    finishing.push_back({name, file->target, file->temp});
    receiving.erase(name); // closes the file
    incoming.remove(name);
    startWaitingDownloads();
    // While another download is still to come, this one's hash goes on beside it.
    settleFinishing(incoming.isEmpty());
}

void FileTransferHandler::finishDownload(const Finishing& download) {
    const QString& name = download.name;
    const QString& temp = download.temp;
    const QString& target = download.target;
    bool renamed = false;
    if (!hashes.finish(name)) {
        Basalt::Trace::warning("FileTransferHandler::finishDownload # Failed to read back %s",
                               temp.toUtf8().constData());
    } else if (targetPath(name) != target) {
        Basalt::Trace::warning("FileTransferHandler::finishDownload # '%s' would now land "
                               "elsewhere; not renamed",
                               name.toUtf8().constData());
    } else if (assetBase.downloads().announcedMd5(name) ==
               assetBase.downloads().receivedMd5(name)) {
        Basalt::FileWriter writing(target);
        // One step that replaces the old file: no moment without it, whenever the pull
        // is killed (QFile::rename does not replace, and remove-then-rename leaves a gap).
        renamed = ::rename(QFile::encodeName(temp).constData(),
                           QFile::encodeName(target).constData()) == 0;
        if (!renamed)
            Basalt::Trace::warning("Failed to rename '%s' to '%s'", temp.toUtf8().constData(),
                                   target.toUtf8().constData());
    } else {
        Basalt::Trace::warning("md5 mismatch for '%s'", temp.toUtf8().constData());
    }
    if (renamed) {
        QFile::remove(temp); // nothing is left there after a rename
        assetBase.endDownload(name, true);
        downloadFinished(name, true);
    } else {
        failDownload(name, true);
    }
}

void FileTransferHandler::failDownload(const QString& name, bool mayTouchFiles) {
    // Parts still being hashed must not reach a later download of the same name.
    hashes.cancel(name);
    receiving.erase(name);
    const bool wasIncoming = incoming.remove(name);
    if (mayTouchFiles) {
        const QString target = targetPath(name);
        if (!target.isEmpty())
            QFile::remove(PathPolicy::tempPathFor(target));
    }
    receivedCounts.remove(name);
    Basalt::Trace::warning("File Download for '%s' failed", name.toUtf8().constData());
    if (assetBase.endDownload(name, false))
        downloadFinished(name, false);
    if (wasIncoming)
        startWaitingDownloads();
}

// ---- uploading ----

bool FileTransferHandler::sendFileInfo(const QString& name) {
    const QString path = servablePath(name, "sendFileInfo");
    if (path.isEmpty())
        return false;
    const QString sum = assetBase.index().md5(name);
    if (sum.isEmpty()) {
        Basalt::Trace::warning("FileTransferHandler::sendFileInfo # Cannot read '%s'",
                               name.toUtf8().constData());
        return false;
    }
    const int64_t size = QFileInfo(path).size();
    link().writeBufferData(
        FileCommands::fileInfoLine(size, name, FileCommands::announcedParts(size), sum),
        QByteArray());
    return true;
}

void FileTransferHandler::startFilePartsUploadTask(const QString& name) {
    const QString path = servablePath(name, "startFilePartsUploadTask");
    if (!path.isEmpty())
        uploader.enqueue(name, path);
}

} // namespace Dovel
