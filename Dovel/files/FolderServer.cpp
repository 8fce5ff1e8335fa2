#include "Dovel/files/FolderServer.h"

#include "Dovel/files/FolderServeConnection.h"
#include "Dovel/transport/ConnectionThread.h"

namespace Dovel {

FolderServer::FolderServer(const QString& folder)
    : asset_(std::make_unique<AssetBase>(folder)),
      list(std::make_unique<ServedList>(asset_->index())) {}

FolderServer::~FolderServer() {
    shutdown();
}

std::shared_ptr<ConnectionThread> FolderServer::createConnection(Basalt::TCPSocket* socket) {
    return ConnectionThread::create<FolderServeConnection>(socket, true, *asset_, *list,
                                                           unreadReplyCeiling.load());
}

} // namespace Dovel
