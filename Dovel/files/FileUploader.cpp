#include "Dovel/files/FileUploader.h"

#include "Dovel/Limits.h"
#include "Dovel/files/FileCommands.h"
#include "Dovel/files/PathPolicy.h"
#include "Dovel/transport/ConnectionHandler.h"

#include "Basalt/BGThread.h"
#include "Basalt/Trace.h"

#include <algorithm>

namespace Dovel {

namespace {

// Pause of an upload that found its queue locked for a moment.
constexpr double UploadRetrySeconds = 0.002;
// An upload waiting for the writer to drain is woken by the writer; this pause only
// backs that up (a connection that ends wakes nothing).
constexpr double DrainBackupSeconds = 1.0;

} // namespace

FileUploader::FileUploader(ConnectionLink& connection, int64_t partSize)
    : connection(connection), partSize(partSize) {}

FileUploader::~FileUploader() {
    Basalt::Guard guard(mutex);
    if (task)
        task->cancel(); // it holds the connection weakly: a later run would find nothing
}

int64_t FileUploader::chargeOf(const QString& name, const QString& path) {
    return Limits::UploadEntryBytes + name.toUtf8().size() + QFile::encodeName(path).size();
}

void FileUploader::enqueue(const QString& name, const QString& path) {
    const int64_t charge = chargeOf(name, path);
    Basalt::Guard guard(mutex);
    if (queueBytes + charge > Limits::MaxUploadQueueBytes) {
        Basalt::Trace::warning("FileUploader::enqueue # Upload queue full, dropping '%s'",
                               name.toUtf8().constData());
        return;
    }
    queueBytes += charge;
    queue.append(qMakePair(name, path));
    if (task)
        return;
    const std::weak_ptr<ConnectionLink> weak = connection.weakLink();
    // Runs only while the connection lives, and the connection owns this uploader.
    FileUploader* const uploader = this;
    task = std::make_shared<Basalt::FunctionTask>(
        [weak, uploader](Basalt::Task& run) {
            const std::shared_ptr<ConnectionLink> self = weak.lock();
            if (!self)
                return;
            switch (uploader->sendFileParts()) {
            case SendStatus::Busy:
                run.scheduleFromNowSecs(UploadRetrySeconds);
                break;
            case SendStatus::MoreLater: {
                // Half the writer's backlog gone: the next parts go.
                run.scheduleFromNowSecs(DrainBackupSeconds);
                std::weak_ptr<Basalt::Task> again = run.shared_from_this();
                if (!self->callWhenDrained(MaxBufferedUpload / 2, [again] {
                        if (const std::shared_ptr<Basalt::Task> wake = again.lock())
                            wake->scheduleFromNowSecs(0.0);
                    }))
                    run.scheduleFromNowSecs(0.0);
                break;
            }
            case SendStatus::Done:
                break;
            }
        },
        1.0f);
    if (std::shared_ptr<Basalt::BGThread> background = Basalt::BGThread::instance())
        background->add(task);
}

FileUploader::SendStatus FileUploader::sendFileParts() {
    for (;;) {
        if (!connection.isConnected()) {
            dropUploads();
            return SendStatus::Done;
        }
        if (connection.bufferedDataSize() >= MaxBufferedUpload)
            return SendStatus::MoreLater;
        if (!uploadFile.isOpen()) {
            if (!mutex.tryLock())
                return SendStatus::Busy;
            if (queue.isEmpty()) {
                uploadBuffers.clear();
                const std::shared_ptr<Basalt::Task> ending = std::move(task);
                task.reset();
                mutex.unlock();
                return SendStatus::Done;
            }
            const QPair<QString, QString> next = queue.takeFirst();
            queueBytes -= chargeOf(next.first, next.second);
            mutex.unlock();
            currentUpload = next.first;
            uploadFile.setFileName(next.second);
            if (!openUpload())
                continue;
        }
        if (sendOpenFile() == SendStatus::MoreLater)
            return SendStatus::MoreLater;
    }
}

bool FileUploader::openUpload() {
    if (uploadFile.open(QIODevice::ReadOnly | QIODevice::Unbuffered)) {
        // The path was checked when the file was asked for; what was opened must still
        // be that file, not one a link swapped in on the way meanwhile leads to.
        if (PathPolicy::openedPath(uploadFile.handle()) == uploadFile.fileName())
            return true;
        Basalt::Trace::warning("FileUploader::openUpload # '%s' no longer leads to the file "
                               "that was checked; not sent",
                               currentUpload.toUtf8().constData());
        uploadFile.close();
        return false;
    }
    Basalt::Trace::warning("FileUploader::openUpload # Failed to open file '%s': %s",
                           currentUpload.toUtf8().constData(),
                           uploadFile.errorString().toUtf8().constData());
    return false;
}

FileUploader::SendStatus FileUploader::sendOpenFile() {
    if (uploadFile.size() == 0) {
        connection.writeBufferData(FileCommands::filePartLine(currentUpload, 0, 1), QByteArray());
        uploadFile.close();
        return SendStatus::Done;
    }
    while (!uploadFile.atEnd()) {
        if (!connection.isConnected() || connection.bufferedDataSize() >= MaxBufferedUpload)
            return SendStatus::MoreLater;
        const int64_t part = uploadFile.pos() / partSize + 1;
        QByteArray bytes = uploadBuffer();
        const int64_t got = uploadFile.read(bytes.data(), partSize);
        bytes.resize(int(std::max<int64_t>(got, 0)));
        if (bytes.isEmpty()) {
            Basalt::Trace::warning("FileUploader::sendOpenFile # Failed to read file '%s': %s",
                                   uploadFile.fileName().toUtf8().constData(),
                                   uploadFile.errorString().toUtf8().constData());
            uploadFile.close();
            return SendStatus::Done;
        }
        connection.writeBuffer(
            QList<QByteArray>{FileCommands::filePartLine(currentUpload, bytes.size(), part), bytes},
            QByteArray());
        uploadBuffers.push_back(std::move(bytes));
        if (int64_t(uploadBuffers.size()) > 2 * MaxBufferedUpload / partSize)
            uploadBuffers.pop_front(); // held elsewhere for long: no longer ours to reuse
    }
    uploadFile.close();
    return SendStatus::Done;
}

QByteArray FileUploader::uploadBuffer() {
    // The writer lets go of parts in the order they were handed to it. The count is
    // read with acquire order: the writer's release of its copy, after its last send of
    // the bytes, must happen before we write into them again (isDetached() reads it
    // relaxed, which orders nothing).
    if (!uploadBuffers.empty() && uploadBuffers.front().data_ptr()->ref.atomic.loadAcquire() == 1) {
        QByteArray reused = std::move(uploadBuffers.front());
        uploadBuffers.pop_front();
        reused.resize(int(partSize));
        return reused;
    }
    return QByteArray(int(partSize), Qt::Uninitialized);
}

void FileUploader::dropUploads() {
    uploadFile.close();
    uploadBuffers.clear();
    std::shared_ptr<Basalt::Task> ending;
    Basalt::Guard guard(mutex);
    queue.clear();
    queueBytes = 0;
    ending = std::move(task);
    task.reset();
}

} // namespace Dovel
