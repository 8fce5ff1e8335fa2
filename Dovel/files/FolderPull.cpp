#include "Dovel/files/FolderPull.h"

#include "Dovel/files/AssetBase.h"
#include "Dovel/files/FileListThread.h"

#include "Basalt/Stopwatch.h"

namespace Dovel {

std::unique_ptr<FolderPull> FolderPull::create(AssetBase& asset, bool deleteExtra) {
    return std::make_unique<FolderPull>(asset, deleteExtra);
}

FolderPull::FolderPull(AssetBase& asset, bool deleteExtra)
    : asset(asset), connection_(ConnectionThread::create<FolderPullHandler>(
                        nullptr, false, asset, deleteExtra, static_cast<Owner&>(*this))),
      handler(static_cast<FolderPullHandler*>(connection_->handler())) {
    connection_->setKeepRetrying(false);
}

FolderPull::~FolderPull() {
    // The handler calls this object from both threads: both end before it does.
    shutdown();
}

void FolderPull::setProgressCallback(std::function<void(const Progress&)> callback) {
    progressCallback = std::move(callback);
}

void FolderPull::start(const QString& host, int port) {
    start(host, port, asset.index().generation());
}

void FolderPull::start(const QString& host, int port, uint64_t generation) {
    if (lister || result().finished)
        return; // one attempt per connection
    // One pull at a time writes into a folder: two would trip over each other's files.
    QString locked;
    if (!asset.lockForWriting(locked)) {
        handler->fail(locked);
        return;
    }
    asset.downloads().removeLeftoverParts(); // of an earlier pull that did not finish
    lister = std::make_unique<FileListThread>(asset.index(), generation,
                                              [this](const FileList& list, const QString& error) {
                                                  if (!error.isEmpty())
                                                      handler->fail(error);
                                                  else
                                                      handler->localListReady(list);
                                              });
    connection_->writerThread()->setSilenceLimitSeconds(
        FolderPullHandler::silenceLimitSeconds(connection_->timeoutSeconds()));
    // Connecting first: a listing that fails at once then stops a connection that is
    // really under way, instead of one that connectToHost would start afterwards.
    connection_->connectToHost(host, port);
    lister->run();
}

void FolderPull::shutdown() {
    connection_->shutdown();
    if (lister)
        lister->waitEnd(-1);
}

bool FolderPull::waitFinished(int ms) {
    const Basalt::Stopwatch start;
    Basalt::Guard guard(resultMutex);
    while (!result_.finished) {
        unsigned long slice = 1000;
        if (ms >= 0) {
            const double left = ms / 1000.0 - start.elapsedSeconds();
            if (left <= 0.0)
                break;
            slice = static_cast<unsigned long>(left * 1000.0) + 1;
        }
        finishedCondition.wait(resultMutex, slice);
    }
    return result_.finished;
}

FolderPull::Result FolderPull::result() const {
    Basalt::Guard guard(resultMutex);
    return result_;
}

void FolderPull::pullProgress(const Progress& progress) {
    if (progressCallback)
        progressCallback(progress);
}

void FolderPull::pullFinished(const Result& result) {
    Basalt::Guard guard(resultMutex);
    result_ = result;
    finishedCondition.wakeAll(resultMutex);
}

} // namespace Dovel
