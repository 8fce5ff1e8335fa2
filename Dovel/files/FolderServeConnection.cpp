#include "Dovel/files/FolderServeConnection.h"

#include "Dovel/files/AssetBase.h"

#include <QMap>

namespace Dovel {

FolderServeConnection::FolderServeConnection(Basalt::TCPSocket* socket, AssetBase& asset)
    : FileTransferHandler(socket, true, asset) {}

FolderServeConnection::~FolderServeConnection() {
    shutdown();
}

void FolderServeConnection::connected() {
    FileTransferHandler::connected();
    // Built per connection, so that the peer sees the folder as it is now; cached
    // checksums keep this to a walk of the folder.
    const AssetBase::FileList list = asset().buildFileList(nullptr);
    QMap<QString, QString> chunk;
    for (auto it = list.constBegin(); it != list.constEnd(); ++it) {
        chunk.insert(chunk.constEnd(), it.key(),
                     QString::number(it->size) + QLatin1Char(' ') + it->md5);
        if (chunk.size() == ListChunk) {
            writeMapBuffer(QStringLiteral("filelist"), chunk);
            chunk.clear();
        }
    }
    if (!chunk.isEmpty())
        writeMapBuffer(QStringLiteral("filelist"), chunk);
    writeBuffer(QStringLiteral("filelistend %1\n").arg(list.size()), QByteArray());
}

bool FolderServeConnection::parse(const QString& line) {
    if (line == QLatin1String("sendfilesync")) {
        writeBuffer(QStringLiteral("filesync\n"), QByteArray());
        return true;
    }
    return FileTransferHandler::parse(line);
}

} // namespace Dovel
