#include "Dovel/files/DownloadHasher.h"

#include <QFile>

#include <algorithm>

namespace Dovel {

DownloadHasher::DownloadHasher(int threads, Feed feed)
    : threadCount(std::max(threads, 1)), feed(std::move(feed)) {}

DownloadHasher::~DownloadHasher() {
    {
        std::lock_guard<std::mutex> guard(mutex);
        stopping = true;
        work.notify_all();
    }
    for (std::thread& thread : threads)
        thread.join();
}

std::shared_ptr<DownloadHasher::Job> DownloadHasher::find(const QString& name) const {
    for (const std::shared_ptr<Job>& job : jobs)
        if (job->name == name)
            return job;
    return nullptr;
}

void DownloadHasher::begin(const QString& name, const QString& path) {
    if (threads.empty())
        for (int i = 0; i < threadCount; ++i)
            threads.emplace_back([this] { run(); });
    std::unique_lock<std::mutex> lock(mutex);
    if (const std::shared_ptr<Job> earlier = find(name))
        drop(earlier, lock);
    auto job = std::make_shared<Job>();
    job->name = name;
    job->path = path;
    jobs.push_back(std::move(job));
    work.notify_all();
}

void DownloadHasher::written(const QString& name, int64_t size, bool whole) {
    std::lock_guard<std::mutex> guard(mutex);
    const std::shared_ptr<Job> job = find(name);
    if (!job)
        return;
    job->size = size;
    job->whole = whole;
    // A thread waiting for these bytes is woken; one that is reading will look again.
    if (job->waiting)
        work.notify_all();
}

bool DownloadHasher::isDone(const QString& name) const {
    std::lock_guard<std::mutex> guard(mutex);
    const std::shared_ptr<Job> job = find(name);
    return job && job->done;
}

bool DownloadHasher::finish(const QString& name) {
    std::unique_lock<std::mutex> lock(mutex);
    const std::shared_ptr<Job> job = find(name);
    if (!job)
        return false;
    progress.wait(lock, [&] { return job->done; });
    jobs.erase(std::find(jobs.begin(), jobs.end(), job));
    return !job->failed;
}

void DownloadHasher::cancel(const QString& name) {
    std::unique_lock<std::mutex> lock(mutex);
    if (const std::shared_ptr<Job> job = find(name))
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

void DownloadHasher::drop(const std::shared_ptr<Job>& job, std::unique_lock<std::mutex>& lock) {
    job->dropped = true;
    work.notify_all();
    progress.wait(lock, [&] { return !job->taken; });
    const auto it = std::find(jobs.begin(), jobs.end(), job);
    if (it != jobs.end())
        jobs.erase(it);
}

void DownloadHasher::run() {
    QByteArray buffer;
    std::unique_lock<std::mutex> lock(mutex);
    for (;;) {
        std::shared_ptr<Job> job;
        work.wait(lock, [&] {
            if (stopping)
                return true;
            for (const std::shared_ptr<Job>& candidate : jobs)
                if (!candidate->taken && !candidate->done && !candidate->dropped) {
                    job = candidate;
                    return true;
                }
            return false;
        });
        if (stopping)
            return;
        job->taken = true;
        hash(*job, buffer, lock);
        job->taken = false;
        progress.notify_all();
    }
}

void DownloadHasher::hash(Job& job, QByteArray& buffer, std::unique_lock<std::mutex>& lock) {
    const QString path = job.path;
    lock.unlock();
    // Unbuffered: the bytes asked for are ones the connection has written, whatever was
    // at the end of the file when it was opened.
    QFile file(path);
    bool ok = file.open(QIODevice::ReadOnly | QIODevice::Unbuffered);
    lock.lock();
    int64_t fed = 0;
    while (ok) {
        job.waiting = true;
        work.wait(lock, [&] { return stopping || job.dropped || job.size > fed || job.whole; });
        job.waiting = false;
        if (stopping || job.dropped)
            return;
        if (job.size <= fed)
            break; // whole
        const int64_t take = std::min(job.size - fed, ChunkBytes);
        lock.unlock();
        buffer.resize(int(take));
        int64_t got = 0;
        while (got < take) {
            const int64_t n = file.read(buffer.data() + got, take - got);
            if (n <= 0)
                break;
            got += n;
        }
        ok = got == take;
        if (ok)
            feed(job.name, buffer);
        fed += got;
        lock.lock();
    }
    job.failed = !ok;
    job.done = true;
}

} // namespace Dovel
