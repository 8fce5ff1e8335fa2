#include "Dovel/files/FileListThread.h"

#include "Basalt/Trace.h"

#include <exception>

namespace Dovel {

FileListThread::FileListThread(AssetBase& asset, ProgressSender* progress)
    : Basalt::Thread(QStringLiteral("FileListThread")), asset(asset), progress(progress) {}

FileListThread::FileListThread(AssetBase& asset, uint64_t generation, Done done)
    : Basalt::Thread(QStringLiteral("FileListThread")), asset(asset), sinceGeneration(true),
      generation(generation), done(std::move(done)) {}

FileListThread::~FileListThread() {
    waitEnd(-1);
}

AssetBase::FileList FileListThread::result() const {
    Basalt::Guard guard(mutex);
    return list;
}

void FileListThread::childLoop() {
    AssetBase::FileList built;
    QString error;
    try {
        built = sinceGeneration ? asset.fileListBuiltSince(generation, progress)
                                : asset.buildFileList(progress);
    } catch (const std::exception& e) {
        Basalt::Trace::error("FileListThread::childLoop # Listing '%s' failed: %s",
                             asset.root().toUtf8().constData(), e.what());
        error = QStringLiteral("the local folder could not be listed");
    }
    {
        Basalt::Guard guard(mutex);
        list = built;
    }
    // Last: the callback may end the owner of this object.
    if (done)
        done(built, error);
}

} // namespace Dovel
