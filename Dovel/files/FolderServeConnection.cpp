#include "Dovel/files/FolderServeConnection.h"

#include "Dovel/files/AssetBase.h"
#include "Dovel/files/ServedList.h"

#include "Basalt/Trace.h"

namespace Dovel {

FolderServeConnection::FolderServeConnection(ConnectionLink& link, AssetBase& asset,
                                             ServedList& list, int64_t unreadReplyCeiling)
    : FileTransferHandler(link, asset), list(list), unreadReplyCeiling(unreadReplyCeiling) {}

FolderServeConnection::~FolderServeConnection() = default;

void FolderServeConnection::connected() {
    FileTransferHandler::connected();
    // The same bytes as every other peer that logged in lately: a burst of logins costs
    // one walk of the folder and one copy of the list.
    link().writeBuffer(list.current(link().remoteVersion(1, 9, 1)), QByteArray());
}

int64_t FolderServeConnection::waitingBytes() {
    return link().bufferedDataSize() + link().bufferedItemCount() * Limits::WaitingItemBytes;
}

bool FolderServeConnection::overCeiling() {
    const int64_t waiting = waitingBytes();
    if (waiting <= unreadReplyCeiling)
        return false;
    Basalt::Trace::warning("FolderServeConnection::parse # %lld bytes wait for %s:%d, which "
                           "goes on asking without reading; disconnecting",
                           static_cast<long long>(waiting), link().hostName().toUtf8().constData(),
                           link().port());
    link().stop();
    return true;
}

bool FolderServeConnection::wantsIdle() {
    return FileTransferHandler::wantsIdle() || waitingBytes() > unreadReplyCeiling;
}

void FolderServeConnection::idle() {
    FileTransferHandler::idle();
    overCeiling();
}

bool FolderServeConnection::parse(const QString& line) {
    if (overCeiling())
        return true;
    // Serving only: a peer may not put files into the folder.
    if (line.startsWith(QLatin1String("fileinfo ")) ||
        line.startsWith(QLatin1String("filepart "))) {
        Basalt::Trace::warning("FolderServeConnection::parse # %s:%d tried to upload ('%s'); "
                               "a served folder takes no files, disconnecting",
                               link().hostName().toUtf8().constData(), link().port(),
                               line.section(QLatin1Char(' '), 0, 0).toUtf8().constData());
        link().abortConnection();
        return true;
    }
    if (line == QLatin1String("sendfilesync")) {
        link().writeBuffer(QStringLiteral("filesync\n"), QByteArray());
        return true;
    }
    return FileTransferHandler::parse(line);
}

} // namespace Dovel
