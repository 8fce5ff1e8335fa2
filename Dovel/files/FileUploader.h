// The sending side of a file-transfer connection: the queue of files the peer asked the
// parts of, and the task on the background pool that reads them and hands their
// "filepart" lines and bytes to the connection's writer. It pauses while
// MaxBufferedUpload bytes are still unsent and goes on when the writer has drained half
// of them, and it reuses the part buffers the writer has let go of.
//
// Threads: enqueue() runs on the connection's thread; sendFileParts() on the background
// pool, one run at a time. The queue, its charge and the task are guarded by `mutex`;
// the file being sent and the buffers belong to the task's runs. The handler owns the
// uploader; the task holds the link weakly, and the destructor cancels it.
#pragma once

#include "Basalt/Mutex.h"
#include "Basalt/Task.h"

#include <QByteArray>
#include <QFile>
#include <QList>
#include <QPair>
#include <QString>

#include <cstdint>
#include <deque>
#include <memory>

namespace Dovel {

class ConnectionLink;

class FileUploader {
public:
    // An upload pauses while this much is waiting in the writer.
    static constexpr int64_t MaxBufferedUpload = 32 << 20;

    enum class SendStatus {
        MoreLater, // something is left; run again once the writer has drained
        Busy,      // the queue is locked elsewhere for a moment; run again shortly
        Done,      // the queue is empty and no file is open
    };

    // Parts of `partSize` bytes go out through `connection`.
    FileUploader(ConnectionLink& connection, int64_t partSize);
    ~FileUploader();
    FileUploader(const FileUploader&) = delete;
    FileUploader& operator=(const FileUploader&) = delete;

    // Queues the file `name`, checked to resolve to `path`, and starts the task when none
    // runs; a name beyond Limits::MaxUploadQueueBytes is dropped (logged).
    void enqueue(const QString& name, const QString& path);
    // Sends parts of the queued files until the writer is full; called by the task.
    SendStatus sendFileParts();

private:
    bool openUpload();
    SendStatus sendOpenFile();
    // A buffer of one part for the next read: the oldest one handed to the writer once
    // the writer is done with it, else a new one. Reusing them keeps an upload from
    // allocating (and the allocator from returning and faulting in) a part per part.
    QByteArray uploadBuffer();
    void dropUploads();
    static int64_t chargeOf(const QString& name, const QString& path);

    ConnectionLink& connection;
    const int64_t partSize;

    Basalt::Mutex mutex;
    std::shared_ptr<Basalt::Task> task; // guarded by mutex
    // Names waiting to be sent, with the paths they were checked to resolve to, and
    // their charge against Limits::MaxUploadQueueBytes.
    QList<QPair<QString, QString>> queue; // guarded by mutex
    int64_t queueBytes = 0;               // guarded by mutex
    // The upload being sent: only the task's runs touch them.
    QString currentUpload;
    QFile uploadFile;
    // Parts handed to the writer, oldest first, for uploadBuffer(); at most twice
    // MaxBufferedUpload of them are tracked.
    std::deque<QByteArray> uploadBuffers;
};

} // namespace Dovel
