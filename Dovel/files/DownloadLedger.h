// The downloads under way into one folder, from every connection that writes into it:
// per file name the announced size, parts and MD5, the parts received, the running MD5
// of the bytes so far, and the connection that owns it. Its size is charged against
// Limits::MaxDownloadListBytes, so that peers cannot grow it without bound. It also
// sweeps away the temporary files that downloads of an earlier run left behind.
//
// Thread-safe: every operation takes the list's lock (`mutex`); each download's running
// MD5 has a lock of its own, taken after the list's is released, so that a part being
// hashed does not hold up the other operations. Under its lock the ledger does file I/O
// (removing temporary files, the leftover sweep) and logs, but calls no other Dovel object.
#pragma once

#include "Basalt/Mutex.h"

#include <QByteArray>
#include <QCryptographicHash>
#include <QDateTime>
#include <QString>

#include <cstdint>
#include <map>
#include <memory>

namespace Dovel {

// Tells the connections that own downloads apart; never reused within a process.
using ConnectionId = uint64_t;

class DownloadLedger {
public:
    // `root`: the canonical folder the downloads are written into.
    explicit DownloadLedger(const QString& root);
    DownloadLedger(const DownloadLedger&) = delete;
    DownloadLedger& operator=(const DownloadLedger&) = delete;

    // A new id for a connection; any thread.
    static ConnectionId newConnectionId();

    // False when the name is being downloaded already or the list is full (logged).
    bool add(const QString& name, int64_t size, int64_t parts, const QString& md5,
             ConnectionId owner);
    bool isDownloading(const QString& name) const;
    int64_t currentParts(const QString& name) const;
    int64_t totalParts(const QString& name) const;
    bool increasePartCount(const QString& name);
    // Feeds the running MD5; may run on another thread than the rest of the download,
    // one caller at a time per name.
    void addHashData(const QString& name, const QByteArray& bytes);
    // The announced checksum as 32 lowercase hexadecimal digits.
    QString announcedMd5(const QString& name) const;
    // The checksum of the bytes received so far, as 32 lowercase hexadecimal digits.
    QString receivedMd5(const QString& name) const;
    QDateTime startTime(const QString& name) const;
    int count() const;
    // The announced size and checksum of a download; false when the name is not listed.
    bool describe(const QString& name, int64_t& size, QString& md5) const;
    // Ends the download of `name`, if listed; returns how many downloads are left.
    int remove(const QString& name);
    // Drops the downloads of one connection and their temporary files; true when any
    // was dropped.
    bool clear(ConnectionId owner);
    // Removes the temporary files below the root of downloads that no longer run (a
    // pull that was killed leaves them behind); those of listed downloads stay. Returns
    // how many.
    int removeLeftoverParts();

private:
    // The MD5 of a download's bytes so far, fed outside the list's lock.
    struct RunningMd5 {
        Basalt::Mutex mutex;
        QCryptographicHash hash{QCryptographicHash::Md5}; // guarded by `mutex`
    };
    struct Download {
        QDateTime startTime;
        QByteArray md5; // the announced checksum, 16 raw bytes
        int64_t size = 0;
        int64_t parts = 0;
        ConnectionId owner = 0;
        int64_t received = 0; // parts
        std::shared_ptr<RunningMd5> hash;
        int64_t charge = 0; // counted against Limits::MaxDownloadListBytes
    };

    // The running MD5 of `name`, or null.
    std::shared_ptr<RunningMd5> runningMd5(const QString& name) const;

    const QString root;
    mutable Basalt::Mutex mutex;
    std::map<QString, Download> downloads; // guarded by mutex
    int64_t chargedBytes = 0;              // the entries' charges; guarded by mutex
};

} // namespace Dovel
