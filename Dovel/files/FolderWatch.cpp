#include "Dovel/files/FolderWatch.h"

#include <QFile>

#include <sys/inotify.h>
#include <unistd.h>

namespace Dovel {

FolderWatch::~FolderWatch() {
    close();
}

void FolderWatch::close() {
    if (fd >= 0)
        ::close(fd);
    fd = -1;
}

bool FolderWatch::watch(const QStringList& folders) {
    close();
    seen = false;
    reliable = false;
    fd = ::inotify_init1(IN_NONBLOCK | IN_CLOEXEC);
    if (fd < 0)
        return false;
    constexpr uint32_t Events = IN_CREATE | IN_DELETE | IN_MODIFY | IN_MOVED_FROM | IN_MOVED_TO |
                                IN_CLOSE_WRITE | IN_ATTRIB | IN_DELETE_SELF | IN_MOVE_SELF |
                                IN_ONLYDIR;
    for (const QString& folder : folders)
        if (::inotify_add_watch(fd, QFile::encodeName(folder).constData(), Events) < 0) {
            close(); // past the system's watches: the owner looks for itself
            return false;
        }
    reliable = true;
    return true;
}

bool FolderWatch::changed() {
    if (!reliable)
        return true;
    char buffer[4096];
    while (::read(fd, buffer, sizeof buffer) > 0)
        seen = true;
    return seen;
}

} // namespace Dovel
