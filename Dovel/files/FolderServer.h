// Serves one folder to any number of pulling peers: a listening server whose
// connections speak FolderServeConnection, all sharing one AssetBase of the folder and
// one ServedList, the file list they send.
// Thread contract as ServerBase; the destructor stops and joins everything before the
// asset folder goes.
#pragma once

#include "Dovel/Limits.h"
#include "Dovel/files/AssetBase.h"
#include "Dovel/files/ServedList.h"
#include "Dovel/transport/ServerBase.h"

#include <atomic>
#include <cstdint>
#include <memory>

namespace Dovel {

class FolderServer : public ServerBase {
public:
    explicit FolderServer(const QString& folder);
    ~FolderServer() override;

    AssetBase& asset() { return *asset_; }
    // The unread bytes past which a connection made from now on ends
    // (see FolderServeConnection); tests lower it.
    void setUnreadReplyCeiling(int64_t bytes) { unreadReplyCeiling = bytes; }

protected:
    std::shared_ptr<ConnectionThread> createConnection(Basalt::TCPSocket* socket) override;

private:
    std::unique_ptr<AssetBase> asset_;
    std::unique_ptr<ServedList> list; // shared by the connections
    std::atomic<int64_t> unreadReplyCeiling{Limits::MaxUnreadReplyBytes};
};

} // namespace Dovel
