#include "Dovel/files/DownloadLedger.h"

#include "Dovel/Limits.h"
#include "Dovel/files/PathPolicy.h"

#include "Basalt/Trace.h"

#include <QFile>

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>

#include <atomic>
#include <cstring>

namespace Dovel {

namespace {

// Calls `found(name)` for every regular file below root + dir whose name ends in the
// temporary suffix, by name relative to the root. Links are not followed, so nothing
// outside the folder is touched; the entry type from readdir() spares a stat per file.
template <typename Found>
void forEachTempFile(const QString& root, const QString& dir, const Found& found) {
    DIR* const folder = ::opendir(QFile::encodeName(root + dir).constData());
    if (!folder)
        return;
    static const QByteArray suffix = PathPolicy::TempSuffix.toLatin1();
    while (const dirent* item = ::readdir(folder)) {
        const char* const raw = item->d_name;
        if (raw[0] == '.' && (raw[1] == '\0' || (raw[1] == '.' && raw[2] == '\0')))
            continue;
        unsigned char type = item->d_type;
        if (type == DT_UNKNOWN) {
            struct stat status;
            if (::fstatat(::dirfd(folder), raw, &status, AT_SYMLINK_NOFOLLOW) != 0)
                continue;
            type = S_ISDIR(status.st_mode) ? DT_DIR : S_ISREG(status.st_mode) ? DT_REG : DT_LNK;
        }
        if (type == DT_DIR) {
            forEachTempFile(root, dir + QLatin1Char('/') + QFile::decodeName(raw), found);
        } else if (type == DT_REG) {
            const size_t length = strlen(raw);
            if (length >= size_t(suffix.size()) &&
                memcmp(raw + length - size_t(suffix.size()), suffix.constData(),
                       size_t(suffix.size())) == 0)
                found(dir + QLatin1Char('/') + QFile::decodeName(raw));
        }
    }
    ::closedir(folder);
}

} // namespace

DownloadLedger::DownloadLedger(const QString& root) : root(root) {}

ConnectionId DownloadLedger::newConnectionId() {
    static std::atomic<ConnectionId> last{0};
    return ++last;
}

bool DownloadLedger::add(const QString& name, int64_t size, int64_t parts, const QString& md5,
                         ConnectionId owner) {
    Basalt::Guard guard(mutex);
    if (downloads.count(name))
        return false;
    const int64_t charge = Limits::DownloadEntryBytes + name.toUtf8().size();
    if (chargedBytes + charge > Limits::MaxDownloadListBytes) {
        Basalt::Trace::warning("DownloadLedger::add # The download list of %s is "
                               "full; '%s' is not fetched",
                               root.toUtf8().constData(), name.toUtf8().constData());
        return false;
    }
    chargedBytes += charge;
    Download& entry = downloads[name];
    entry.charge = charge;
    entry.startTime = QDateTime::currentDateTime();
    entry.md5 = QByteArray::fromHex(md5.toLatin1());
    entry.size = size;
    entry.parts = parts;
    entry.owner = owner;
    entry.hash = std::make_shared<RunningMd5>();
    return true;
}

bool DownloadLedger::isDownloading(const QString& name) const {
    Basalt::Guard guard(mutex);
    return downloads.count(name) != 0;
}

int64_t DownloadLedger::currentParts(const QString& name) const {
    Basalt::Guard guard(mutex);
    const auto it = downloads.find(name);
    return it == downloads.end() ? 0 : it->second.received;
}

int64_t DownloadLedger::totalParts(const QString& name) const {
    Basalt::Guard guard(mutex);
    const auto it = downloads.find(name);
    return it == downloads.end() ? 0 : it->second.parts;
}

bool DownloadLedger::increasePartCount(const QString& name) {
    Basalt::Guard guard(mutex);
    const auto it = downloads.find(name);
    if (it == downloads.end())
        return false;
    ++it->second.received;
    return true;
}

std::shared_ptr<DownloadLedger::RunningMd5> DownloadLedger::runningMd5(const QString& name) const {
    Basalt::Guard guard(mutex);
    const auto it = downloads.find(name);
    return it == downloads.end() ? nullptr : it->second.hash;
}

void DownloadLedger::addHashData(const QString& name, const QByteArray& bytes) {
    const std::shared_ptr<RunningMd5> running = runningMd5(name);
    if (!running)
        return;
    Basalt::Guard guard(running->mutex);
    running->hash.addData(bytes);
}

QString DownloadLedger::announcedMd5(const QString& name) const {
    Basalt::Guard guard(mutex);
    const auto it = downloads.find(name);
    return it == downloads.end() ? QString() : QString::fromLatin1(it->second.md5.toHex());
}

QString DownloadLedger::receivedMd5(const QString& name) const {
    const std::shared_ptr<RunningMd5> running = runningMd5(name);
    if (!running)
        return QString();
    Basalt::Guard guard(running->mutex);
    return QString::fromLatin1(running->hash.result().toHex());
}

QDateTime DownloadLedger::startTime(const QString& name) const {
    Basalt::Guard guard(mutex);
    const auto it = downloads.find(name);
    return it == downloads.end() ? QDateTime() : it->second.startTime;
}

int DownloadLedger::count() const {
    Basalt::Guard guard(mutex);
    return static_cast<int>(downloads.size());
}

bool DownloadLedger::describe(const QString& name, int64_t& size, QString& md5) const {
    Basalt::Guard guard(mutex);
    const auto it = downloads.find(name);
    if (it == downloads.end())
        return false;
    size = it->second.size;
    md5 = QString::fromLatin1(it->second.md5.toHex());
    return true;
}

int DownloadLedger::remove(const QString& name) {
    Basalt::Guard guard(mutex);
    const auto it = downloads.find(name);
    if (it != downloads.end()) {
        chargedBytes -= it->second.charge;
        downloads.erase(it);
    }
    return static_cast<int>(downloads.size());
}

int DownloadLedger::removeLeftoverParts() {
    int removed = 0;
    Basalt::Guard guard(mutex);
    forEachTempFile(root, QString(), [&](const QString& name) {
        for (const auto& download : downloads)
            if (PathPolicy::tempPathFor(root + download.first) == root + name)
                return;
        if (QFile::remove(root + name))
            ++removed;
    });
    if (removed > 0)
        Basalt::Trace::info(
            "DownloadLedger::removeLeftoverParts # Removed %d unfinished download%s "
            "of an earlier run",
            removed, removed == 1 ? "" : "s");
    return removed;
}

bool DownloadLedger::clear(ConnectionId owner) {
    bool dropped = false;
    Basalt::Guard guard(mutex);
    for (auto it = downloads.begin(); it != downloads.end();) {
        if (it->second.owner != owner) {
            ++it;
            continue;
        }
        if (it->second.received > 0)
            QFile::remove(PathPolicy::tempPathFor(root + it->first));
        chargedBytes -= it->second.charge;
        it = downloads.erase(it);
        dropped = true;
    }
    return dropped;
}

} // namespace Dovel
