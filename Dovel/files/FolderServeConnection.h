// The serving end of a folder mirror: the file-transfer protocol of a server-side
// connection that,
// once the peer has logged in, sends the folder's file list (the ServedList it shares
// with the server's other connections) and then answers the peer's requests for
// descriptions and parts. The peer may send "sendfilesync"; it is answered "filesync"
// after every answer to the requests that came before it, so the peer knows which
// requests got no answer. The connection only serves: a peer that announces a file
// ("fileinfo") or sends one ("filepart") is disconnected.
//
// Threads as FileTransferHandler; the asset folder and the list must outlive the
// handler.
#pragma once

#include "Dovel/Limits.h"
#include "Dovel/files/FileTransferHandler.h"

#include <QString>

#include <cstdint>

namespace Dovel {

class AssetBase;
class ServedList;

class FolderServeConnection : public FileTransferHandler {
public:
    // `unreadReplyCeiling`: bytes that may wait for the peer; beyond them it is taken not
    // to read what it asked for (or what it was sent at its login), and is disconnected
    // (logged). Only tests lower it.
    FolderServeConnection(ConnectionLink& link, AssetBase& asset, ServedList& list,
                          int64_t unreadReplyCeiling = Limits::MaxUnreadReplyBytes);
    ~FolderServeConnection() override;

protected:
    bool parse(const QString& line) override;
    void connected() override;
    // While more than the ceiling waits, the peer is watched for it also when it is
    // silent.
    bool wantsIdle() override;
    void idle() override;

private:
    // What waits for the peer: the bytes and what each waiting item costs besides.
    int64_t waitingBytes();
    // Disconnects (logged) when more than the ceiling waits for the peer; true then.
    bool overCeiling();

    ServedList& list;
    const int64_t unreadReplyCeiling;
};

} // namespace Dovel
