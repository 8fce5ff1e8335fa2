#include "Dovel/files/FileListThread.h"

namespace Dovel {

FileListThread::FileListThread(AssetBase& asset, ProgressSender* progress)
    : Basalt::Thread(QStringLiteral("FileListThread")), asset(asset), progress(progress) {}

FileListThread::~FileListThread() {
    waitEnd(-1);
}

AssetBase::FileList FileListThread::result() const {
    Basalt::Guard guard(mutex);
    return list;
}

void FileListThread::childLoop() {
    AssetBase::FileList built = asset.buildFileList(progress);
    Basalt::Guard guard(mutex);
    list.swap(built);
}

} // namespace Dovel
