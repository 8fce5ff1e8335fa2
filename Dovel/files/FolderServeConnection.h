// The serving end of a folder mirror: a server-side file-transfer connection that,
// once the peer has logged in, sends the folder's file list and then answers the
// peer's requests for descriptions and parts.
//
// The list goes out as maps of at most ListChunk entries, each "filelist N" followed by
// the map block (name -> "SIZE MD5"), and ends with the line "filelistend TOTAL". The
// peer may then send "sendfilesync"; it is answered "filesync" after every answer to
// the requests that came before it, so the peer knows which requests got no answer.
//
// Threads as FileTransferHandler; the asset folder must outlive the connection.
#pragma once

#include "Dovel/files/FileTransferHandler.h"

namespace Dovel {

class FolderServeConnection : public FileTransferHandler {
public:
    static constexpr int ListChunk = 4096;

    FolderServeConnection(Basalt::TCPSocket* socket, AssetBase& asset);
    ~FolderServeConnection() override;

protected:
    bool parse(const QString& line) override;
    void connected() override;
};

} // namespace Dovel
