// Tells whether anything in a set of folders changed (an entry added, removed, renamed,
// written or its attributes changed) since they were watched, through the system's file
// notifications. Folders too many for the system to watch make it say "changed" every
// time, so that its user falls back to looking.
//
// Not thread-safe: one owner uses it, under its own lock.
#pragma once

#include <QStringList>

namespace Dovel {

class FolderWatch {
public:
    FolderWatch() = default;
    ~FolderWatch();
    FolderWatch(const FolderWatch&) = delete;
    FolderWatch& operator=(const FolderWatch&) = delete;

    // Watches exactly `folders` (absolute paths) from now on; false when they could not
    // all be watched.
    bool watch(const QStringList& folders);
    // Whether anything changed since watch() (or watching failed).
    bool changed();

private:
    void close();

    int fd = -1;
    bool reliable = false;
    bool seen = false;
};

} // namespace Dovel
