#include "Dovel/files/FolderServer.h"

#include "Dovel/files/FolderServeConnection.h"

namespace Dovel {

FolderServer::FolderServer(const QString& folder) : asset_(std::make_unique<AssetBase>(folder)) {}

FolderServer::~FolderServer() {
    shutdown();
}

std::shared_ptr<ConnectionThread> FolderServer::createConnection(Basalt::TCPSocket* socket) {
    return std::make_shared<FolderServeConnection>(socket, *asset_, unreadReplyCeiling.load());
}

} // namespace Dovel
