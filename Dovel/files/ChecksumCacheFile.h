// Reads and rewrites one folder's checksum array directly in the INI file in which
// QSettings keeps the checksum cache of every folder ever listed. QSettings parses and
// rewrites the whole file to touch one array, which for a few large folders costs far
// more than listing a folder; this touches only the lines of the one array, in the form
// QSettings writes and reads them. Where it cannot be sure of that form (escaped or
// quoted values, names outside printable ASCII) it declines, and the caller uses QSettings.
//
// Stateless; any thread. Writes take the lock file that QSettings takes for the same file
// and replace the file atomically, so they interleave safely with QSettings in this and
// other processes.
#pragma once

#include "Dovel/files/FileList.h"

#include <QString>

namespace Dovel {

class ChecksumCacheFile {
public:
    // The file of the checksum cache (QSettings of "Brevant"/"Cache"), found without
    // parsing it.
    static QString settingsFile();
    // Fills `list` from the array `arrayName` (entries that are not carriable names with a
    // 32-digit checksum are left out) and `count` with the array's stored size. True with
    // no entries when the file or the array does not exist; false when the array is
    // written in a form this reader does not take.
    static bool read(const QString& settingsFile, const QString& arrayName, FileList& list,
                     int& count);
    // Replaces the array `arrayName`, and everything stored below it as QSettings::remove
    // would, by `list`. False, with the file untouched, when a value would need escaping
    // or the file cannot be locked or written.
    static bool write(const QString& settingsFile, const QString& arrayName, const FileList& list);
};

} // namespace Dovel
