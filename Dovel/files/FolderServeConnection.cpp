#include "Dovel/files/FolderServeConnection.h"

#include "Dovel/files/AssetBase.h"

#include "Basalt/Trace.h"

#include <QMap>

namespace Dovel {

FolderServeConnection::FolderServeConnection(Basalt::TCPSocket* socket, AssetBase& asset,
                                             int64_t unreadReplyCeiling)
    : FileTransferHandler(socket, true, asset), unreadReplyCeiling(unreadReplyCeiling) {}

FolderServeConnection::~FolderServeConnection() {
    shutdown();
}

void FolderServeConnection::connected() {
    FileTransferHandler::connected();
    // Built per connection, so that the peer sees the folder as it is now; cached
    // checksums keep this to a walk of the folder.
    const AssetBase::FileList list = asset().buildFileList(nullptr);
    forEachListChunk(list, [this](const QMap<QString, QString>& chunk) {
        writeMapBuffer(QStringLiteral("filelist"), chunk);
    });
    writeBuffer(QStringLiteral("filelistend %1\n").arg(list.size()), QByteArray());
}

void FolderServeConnection::forEachListChunk(
    const AssetBase::FileList& list,
    const std::function<void(const QMap<QString, QString>&)>& send) {
    QMap<QString, QString> chunk;
    int64_t chunkBytes = 0;
    const auto flush = [&] {
        send(chunk);
        chunk.clear();
        chunkBytes = 0;
    };
    for (auto it = list.constBegin(); it != list.constEnd(); ++it) {
        const QString value = QString::number(it->size) + QLatin1Char(' ') + it->md5;
        // At most three UTF-8 bytes per UTF-16 unit, and each string's tag and length.
        const int64_t entryBytes = 3 * int64_t(it.key().size() + value.size()) + 16;
        if (!chunk.isEmpty() && chunkBytes + entryBytes > ListChunkBytes)
            flush();
        chunk.insert(chunk.constEnd(), it.key(), value);
        chunkBytes += entryBytes;
        if (chunk.size() == ListChunk)
            flush();
    }
    if (!chunk.isEmpty())
        send(chunk);
}

bool FolderServeConnection::parse(const QString& line) {
    const int64_t waiting = bufferedDataSize();
    if (waiting > unreadReplyCeiling) {
        Basalt::Trace::warning("FolderServeConnection::parse # %lld bytes wait for %s:%d, which "
                               "goes on asking without reading; disconnecting",
                               static_cast<long long>(waiting), hostName().toUtf8().constData(),
                               port());
        stop();
        return true;
    }
    // Serving only: a peer may not put files into the folder.
    if (line.startsWith(QLatin1String("fileinfo ")) ||
        line.startsWith(QLatin1String("filepart "))) {
        Basalt::Trace::warning("FolderServeConnection::parse # %s:%d tried to upload ('%s'); "
                               "a served folder takes no files, disconnecting",
                               hostName().toUtf8().constData(), port(),
                               line.section(QLatin1Char(' '), 0, 0).toUtf8().constData());
        abortConnection();
        return true;
    }
    if (line == QLatin1String("sendfilesync")) {
        writeBuffer(QStringLiteral("filesync\n"), QByteArray());
        return true;
    }
    return FileTransferHandler::parse(line);
}

} // namespace Dovel
