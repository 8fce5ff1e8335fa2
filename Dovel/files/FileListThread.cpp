#include "Dovel/files/FileListThread.h"

#include "Basalt/Trace.h"

#include <exception>

namespace Dovel {

FileListThread::FileListThread(FolderIndex& index, ProgressSender* progress)
    : Basalt::Thread(QStringLiteral("FileListThread")), index(index), progress(progress) {}

FileListThread::FileListThread(FolderIndex& index, uint64_t generation, Done done)
    : Basalt::Thread(QStringLiteral("FileListThread")), index(index), sinceGeneration(true),
      generation(generation), done(std::move(done)) {}

FileListThread::~FileListThread() {
    waitEnd(-1);
}

FileList FileListThread::result() const {
    Basalt::Guard guard(mutex);
    return list;
}

void FileListThread::childLoop() {
    FileList built;
    QString error;
    try {
        built = sinceGeneration ? index.builtSince(generation, progress) : index.build(progress);
    } catch (const std::exception& e) {
        Basalt::Trace::error("FileListThread::childLoop # Listing '%s' failed: %s",
                             index.root().toUtf8().constData(), e.what());
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
