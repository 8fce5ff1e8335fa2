// The serving end of a folder mirror: a server-side file-transfer connection that,
// once the peer has logged in, sends the folder's file list and then answers the
// peer's requests for descriptions and parts.
//
// The list goes out as maps of at most ListChunk entries and about ListChunkBytes, each
// "filelist N" followed by the map block (name -> "SIZE MD5"), and ends with the line
// "filelistend TOTAL". The peer may then send "sendfilesync"; it is answered "filesync"
// after every answer to the requests that came before it, so the peer knows which
// requests got no answer. The connection only serves: a peer that announces a file
// ("fileinfo") or sends one ("filepart") is disconnected.
//
// Threads as FileTransferHandler; the asset folder must outlive the connection.
#pragma once

#include "Dovel/Limits.h"
#include "Dovel/files/AssetBase.h"
#include "Dovel/files/FileTransferHandler.h"

#include <QMap>
#include <QString>

#include <cstdint>
#include <functional>

namespace Dovel {

class FolderServeConnection : public FileTransferHandler {
public:
    static constexpr int ListChunk = 4096;
    // Half the map block a puller takes: a chunk of long names (up to
    // Limits::MaxFileNameBytes each) stays readable.
    static constexpr int ListChunkBytes = Limits::MaxMapBlockBytes / 2;

    // Cuts the list into the maps it is sent as, in name order, and hands each to `send`.
    static void forEachListChunk(const AssetBase::FileList& list,
                                 const std::function<void(const QMap<QString, QString>&)>& send);

    // `unreadReplyCeiling`: bytes that may wait for the peer when it sends another line;
    // beyond them it asks without reading what it asked for, and is disconnected
    // (logged). Only tests lower it.
    FolderServeConnection(Basalt::TCPSocket* socket, AssetBase& asset,
                          int64_t unreadReplyCeiling = Limits::MaxUnreadReplyBytes);
    ~FolderServeConnection() override;

protected:
    bool parse(const QString& line) override;
    void connected() override;

private:
    const int64_t unreadReplyCeiling;
};

} // namespace Dovel
