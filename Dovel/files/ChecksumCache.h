// Where a folder's checksums outlive the process, so that an unchanged folder is listed
// again without rereading its files. ChecksumCache is what FolderIndex needs of a store;
// SettingsChecksumCache is the store of every folder ever listed: the QSettings of
// "Brevant"/"Cache", array "FileList/" + root, read and written through
// ChecksumCacheFile where it can and QSettings otherwise.
//
// Threads: one caller at a time per object (FolderIndex calls load() from its constructor
// and store() under its `mutex`); the settings store itself may be shared with other
// objects and processes.
#pragma once

#include "Dovel/files/FileList.h"

#include <QString>

namespace Dovel {

class ChecksumCache {
public:
    virtual ~ChecksumCache() = default;
    // The stored list of the folder at the canonical `root` (entries that are not
    // carriable names with a 32-digit checksum left out), and in `exact` whether the
    // store holds exactly those entries.
    virtual FileList load(const QString& root, bool& exact) = 0;
    // Replaces the stored list of `root` by `list`.
    virtual void store(const QString& root, const FileList& list) = 0;
};

class SettingsChecksumCache : public ChecksumCache {
public:
    SettingsChecksumCache();
    FileList load(const QString& root, bool& exact) override;
    void store(const QString& root, const FileList& list) override;

private:
    static QString arrayName(const QString& root);

    const QString settingsFile; // found once, without parsing it
};

} // namespace Dovel
