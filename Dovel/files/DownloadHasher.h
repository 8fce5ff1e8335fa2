// Computes the MD5 of downloads on threads of its own, reading back what the connection
// wrote to their temporary files (from the page cache, normally). The connection's
// thread only reads the socket and writes; however far it runs ahead of a hash, the lag
// costs no memory, and a file's hash goes on while the next file arrives, so that two
// files hash at once on two cores.
//
// Threads: one owner thread (the connection's) calls every member; `feed` runs on the
// hasher's threads, for each download in the order of its bytes and on one thread at a
// time. Threads start with the first download. The destructor cancels what is left and
// joins.
#pragma once

#include <QByteArray>
#include <QString>

#include <condition_variable>
#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

namespace Dovel {

class DownloadHasher {
public:
    using Feed = std::function<void(const QString& name, const QByteArray& bytes)>;

    // Bytes read back and fed at once.
    static constexpr int64_t ChunkBytes = 1 << 20;

    DownloadHasher(int threads, Feed feed);
    ~DownloadHasher();
    DownloadHasher(const DownloadHasher&) = delete;
    DownloadHasher& operator=(const DownloadHasher&) = delete;

    // A download of `name` whose bytes are written to the existing file at `path` from
    // its start. Cancels an earlier one of the same name.
    void begin(const QString& name, const QString& path);
    // The first `size` bytes of the file are written; `whole` when that is all of it.
    void written(const QString& name, int64_t size, bool whole);
    // True once the whole file has been fed, or reading it back failed; false for a
    // name that is not hashed.
    bool isDone(const QString& name) const;
    // Waits until the whole file is fed, and forgets the download. False when it could
    // not be read back whole (its hash is incomplete) or is not hashed.
    bool finish(const QString& name);
    // Forgets the download, waiting while a thread feeds it: nothing of it is fed after.
    void cancel(const QString& name);
    void cancelAll();
    // Downloads begun and not yet finished or cancelled.
    int count() const;

private:
    struct Job {
        QString name;
        QString path;
        int64_t size = 0;     // bytes written so far
        bool whole = false;   // `size` is final
        bool taken = false;   // a thread is feeding it
        bool waiting = false; // that thread waits for more bytes
        bool done = false;    // fed whole, or failed
        bool failed = false;  // reading back failed
        bool dropped = false; // cancelled: no thread takes it, the taker lets go
    };

    void run();
    // Feeds the taken job until it is whole, dropped or stopping; called with `lock` held.
    void hash(Job& job, QByteArray& buffer, std::unique_lock<std::mutex>& lock);
    std::shared_ptr<Job> find(const QString& name) const;
    // Marks the job dropped, waits until no thread holds it, and forgets it.
    void drop(const std::shared_ptr<Job>& job, std::unique_lock<std::mutex>& lock);

    const int threadCount;
    const Feed feed;
    std::vector<std::thread> threads;

    mutable std::mutex mutex;
    std::condition_variable work;     // for the threads: a job, bytes, or stopping
    std::condition_variable progress; // for the owner: a job done or let go
    // Guarded by `mutex`, in the order the downloads began.
    std::deque<std::shared_ptr<Job>> jobs;
    bool stopping = false;
};

} // namespace Dovel
