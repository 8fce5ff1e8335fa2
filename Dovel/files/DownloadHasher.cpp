#include "Dovel/files/DownloadHasher.h"

#include <QFile>

#include <algorithm>

#include <cerrno>
#include <fcntl.h>
#include <unistd.h>

namespace Dovel {

DownloadHasher::DownloadHasher(int threads, Feed feed, int64_t maxLagBytes)
    : threadCount(std::max(threads, 1)), feed(std::move(feed)),
      maxLagBytes(std::max<int64_t>(maxLagBytes, 0)) {}

DownloadHasher::~DownloadHasher() {
    {
        std::lock_guard<std::mutex> guard(mutex);
        stopping = true;
        work.notify_all();
    }
    for (std::thread& thread : threads)
        thread.join();
    for (const JobPtr& job : jobs)
        if (job->fd >= 0)
            ::close(job->fd);
}

DownloadHasher::JobPtr DownloadHasher::find(const QString& name) const {
    for (const JobPtr& job : jobs)
        if (job->name == name)
            return job;
    return nullptr;
}

void DownloadHasher::begin(const QString& name, const QString& path) {
    if (threads.empty())
        for (int i = 0; i < threadCount; ++i)
            threads.emplace_back([this] { run(); });
    std::unique_lock<std::mutex> lock(mutex);
    if (const JobPtr earlier = find(name))
        drop(earlier, lock);
    auto job = std::make_shared<Job>();
    job->name = name;
    job->path = path;
    jobs.push_back(std::move(job));
}

void DownloadHasher::written(const QString& name, int64_t size, bool whole) {
    std::unique_lock<std::mutex> lock(mutex);
    const JobPtr job = find(name);
    if (!job || job->done)
        return;
    lag += std::max<int64_t>(size, job->fed) - std::max(job->size, job->fed);
    job->size = size;
    job->whole = whole;
    work.notify_all();
    progress.wait(lock, [&] { return lag <= maxLagBytes || stopping; });
}

bool DownloadHasher::isDone(const QString& name) const {
    std::lock_guard<std::mutex> guard(mutex);
    const JobPtr job = find(name);
    return !job || job->done;
}

bool DownloadHasher::finish(const QString& name) {
    std::unique_lock<std::mutex> lock(mutex);
    const JobPtr job = find(name);
    if (!job)
        return false;
    progress.wait(lock, [&] { return job->done; });
    jobs.erase(std::find(jobs.begin(), jobs.end(), job));
    return !job->failed;
}

void DownloadHasher::cancel(const QString& name) {
    std::unique_lock<std::mutex> lock(mutex);
    if (const JobPtr job = find(name))
        drop(job, lock);
}

void DownloadHasher::cancelAll() {
    std::unique_lock<std::mutex> lock(mutex);
    while (!jobs.empty())
        drop(jobs.front(), lock);
}

int DownloadHasher::count() const {
    std::lock_guard<std::mutex> guard(mutex);
    return int(jobs.size());
}

void DownloadHasher::drop(const JobPtr& job, std::unique_lock<std::mutex>& lock) {
    job->dropped = true;
    progress.wait(lock, [&] { return !job->taken; });
    if (!job->done)
        settle(*job, true);
    const auto it = std::find(jobs.begin(), jobs.end(), job);
    if (it != jobs.end())
        jobs.erase(it);
}

void DownloadHasher::settle(Job& job, bool failed) {
    if (job.fd >= 0) {
        ::close(job.fd);
        job.fd = -1;
    }
    lag -= std::max<int64_t>(job.size - job.fed, 0);
    job.failed = failed;
    job.done = true;
    progress.notify_all();
}

void DownloadHasher::run() {
    QByteArray buffer;
    std::unique_lock<std::mutex> lock(mutex);
    for (;;) {
        JobPtr job;
        work.wait(lock, [&] {
            if (stopping)
                return true;
            for (const JobPtr& candidate : jobs)
                if (!candidate->taken && !candidate->done && !candidate->dropped &&
                    (candidate->size > candidate->fed || candidate->whole)) {
                    job = candidate;
                    return true;
                }
            return false;
        });
        if (stopping)
            return;
        job->taken = true;
        feedWritten(*job, buffer, lock);
        job->taken = false;
        progress.notify_all();
    }
}

void DownloadHasher::feedWritten(Job& job, QByteArray& buffer, std::unique_lock<std::mutex>& lock) {
    while (!stopping && !job.dropped) {
        if (job.fed >= job.size) {
            if (job.whole)
                settle(job, false);
            return; // else more is still to be written: another turn takes it then
        }
        const int64_t at = job.fed;
        const int64_t take = std::min(job.size - at, ChunkBytes);
        const QByteArray path = QFile::encodeName(job.path);
        lock.unlock();
        // Positional reads: each turn may run on another thread.
        if (job.fd < 0)
            job.fd = ::open(path.constData(), O_RDONLY | O_CLOEXEC);
        buffer.resize(int(take));
        int64_t got = 0;
        while (job.fd >= 0 && got < take) {
            const ssize_t n = ::pread(job.fd, buffer.data() + got, size_t(take - got), at + got);
            if (n < 0 && errno == EINTR)
                continue;
            if (n <= 0)
                break;
            got += n;
        }
        const bool ok = got == take;
        if (ok)
            feed(job.name, buffer);
        lock.lock();
        if (!ok) {
            settle(job, true);
            return;
        }
        job.fed += take;
        lag -= take;
        progress.notify_all();
    }
}

} // namespace Dovel
