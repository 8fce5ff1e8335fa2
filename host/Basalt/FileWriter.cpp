#include "Basalt/FileWriter.h"

#include <QDir>
#include <QFileInfo>
#include <QSet>

#include <condition_variable>
#include <mutex>

namespace Basalt {

namespace {

// The paths held by a FileWriter in this process. Never destroyed: a writer may end
// during static destruction.
struct HeldPaths {
    std::mutex mutex;
    std::condition_variable released;
    QSet<QString> held;
};

HeldPaths& heldPaths() {
    static HeldPaths* paths = new HeldPaths;
    return *paths;
}

// One key per file, however the caller spelled its path.
QString keyOf(const QString& path) {
    return QDir::cleanPath(QFileInfo(path).absoluteFilePath());
}

} // namespace

FileWriter::FileWriter(const QString& path) : path(keyOf(path)) {
    HeldPaths& paths = heldPaths();
    std::unique_lock<std::mutex> lock(paths.mutex);
    paths.released.wait(lock, [&] { return !paths.held.contains(this->path); });
    paths.held.insert(this->path);
}

FileWriter::~FileWriter() {
    HeldPaths& paths = heldPaths();
    std::lock_guard<std::mutex> lock(paths.mutex);
    paths.held.remove(path);
    paths.released.notify_all();
}

} // namespace Basalt
