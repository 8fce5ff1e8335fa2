// Builds the file list of a FolderIndex on a thread of its own, so that hashing a large
// folder does not hold up the caller: a pull lists its folder while it logs in. The
// index and the progress sender must outlive the thread; the destructor waits for
// its end (unless it runs on the thread itself, from the completion callback: the
// callback is the last thing the thread does with this object). result() is
// thread-safe.
#pragma once

#include "Dovel/files/FolderIndex.h"

#include "Basalt/Mutex.h"
#include "Basalt/Thread.h"

#include <QString>

#include <cstdint>
#include <functional>

namespace Dovel {

class ProgressSender;

class FileListThread : public Basalt::Thread {
public:
    // Called on the listing thread with the list, or with an empty list and why the
    // folder could not be listed.
    using Done = std::function<void(const FileList& list, const QString& error)>;

    // A new build of the list (FolderIndex::build).
    explicit FileListThread(FolderIndex& index, ProgressSender* progress = nullptr);
    // The list of a build begun after `generation` (FolderIndex::builtSince), then
    // `done`.
    FileListThread(FolderIndex& index, uint64_t generation, Done done);
    ~FileListThread() override;

    // The list of the last finished build (empty before).
    FileList result() const;

protected:
    void childLoop() override;

private:
    FolderIndex& index;
    ProgressSender* const progress = nullptr;
    const bool sinceGeneration = false;
    const uint64_t generation = 0;
    const Done done;
    mutable Basalt::Mutex mutex;
    FileList list; // guarded by mutex
};

} // namespace Dovel
