// Computes the MD5 of downloads on threads of its own, reading back what the connection
// wrote to their temporary files (from the page cache, normally). The connection's
// thread only reads the socket and writes; a file's hash goes on while the next file
// arrives, so that two files hash at once on two cores. A thread takes a download only
// while written bytes wait for it, so that downloads still arriving never keep a whole
// one waiting, and the connection is held back (in written()) while more than
// `maxLagBytes` written bytes wait in all, so that the hashes never lag far behind.
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
    // Written bytes that may wait for their hash before written() waits.
    static constexpr int64_t DefaultMaxLagBytes = 256 << 20;

    DownloadHasher(int threads, Feed feed, int64_t maxLagBytes = DefaultMaxLagBytes);
    ~DownloadHasher();
    DownloadHasher(const DownloadHasher&) = delete;
    DownloadHasher& operator=(const DownloadHasher&) = delete;

    // A download of `name` whose bytes are written to the existing file at `path` from
    // its start. Cancels an earlier one of the same name.
    void begin(const QString& name, const QString& path);
    // The first `size` bytes of the file are written; `whole` when that is all of it.
    // Waits while more than maxLagBytes written bytes wait for their hash.
    void written(const QString& name, int64_t size, bool whole);
    // True once the whole file has been fed, or reading it back failed; true too for a
    // name that is not hashed (nothing to wait for: finish() returns false for it).
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
        int64_t fed = 0;      // bytes fed so far
        int fd = -1;          // the file read back; only the job's taker touches it
        bool taken = false;   // a thread is feeding it
        bool done = false;    // fed whole, or failed
        bool failed = false;  // reading back failed
        bool dropped = false; // cancelled: no thread takes it, the taker lets go
    };
    using JobPtr = std::shared_ptr<Job>;

    void run();
    // Feeds what is written of the taken job; called and returns with `lock` held.
    void feedWritten(Job& job, QByteArray& buffer, std::unique_lock<std::mutex>& lock);
    JobPtr find(const QString& name) const;
    // Marks the job dropped, waits until no thread holds it, and forgets it.
    void drop(const JobPtr& job, std::unique_lock<std::mutex>& lock);
    // Marks the job done and closes its file; what it had not fed no longer counts as lag.
    void settle(Job& job, bool failed);

    const int threadCount;
    const Feed feed;
    const int64_t maxLagBytes;
    std::vector<std::thread> threads;

    mutable std::mutex mutex;
    std::condition_variable work;     // for the threads: bytes to feed, or stopping
    std::condition_variable progress; // for the owner: bytes fed, a job done or let go
    // Guarded by `mutex`: the downloads in the order they began, and the written bytes
    // of those not done that are not fed yet.
    std::deque<JobPtr> jobs;
    int64_t lag = 0;
    bool stopping = false;
};

} // namespace Dovel
