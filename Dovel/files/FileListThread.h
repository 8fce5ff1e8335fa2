// Builds the file list of an AssetBase on a thread of its own, so that hashing a large
// folder does not hold up the caller. The asset folder and the progress sender must
// outlive the thread; the destructor waits for its end. result() is thread-safe.
#pragma once

#include "Dovel/files/AssetBase.h"

#include "Basalt/Mutex.h"
#include "Basalt/Thread.h"

namespace Dovel {

class ProgressSender;

class FileListThread : public Basalt::Thread {
public:
    explicit FileListThread(AssetBase& asset, ProgressSender* progress = nullptr);
    ~FileListThread() override;

    // The list of the last finished build (empty before).
    AssetBase::FileList result() const;

protected:
    void childLoop() override;

private:
    AssetBase& asset;
    ProgressSender* const progress;
    mutable Basalt::Mutex mutex;
    AssetBase::FileList list; // guarded by mutex
};

} // namespace Dovel
