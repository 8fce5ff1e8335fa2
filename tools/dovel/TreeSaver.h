// Keeps the tree that `dovel serve --save` shares written to its file: at most every
// interval while it changes, and once more at the end. Each save is atomic (a
// temporary file beside the target, flushed to disk, renamed over it, and the folder
// flushed), so a crash or SIGKILL leaves the last complete save. A save that fails says
// why on standard error, once per run of failures, and is tried again at the next
// interval; the changes stay in memory meanwhile.
//
// Threads: the operations are called from one thread (the command's main thread); the
// tree is read on the driver's thread.
#pragma once

#include "TreeJson.h"

#include "Dovel/session/SessionDriver.h"
#include "Dovel/sync/RemoteNode.h"

#include <QString>

#include <atomic>
#include <memory>

namespace DovelTool {

class TreeSaver {
public:
    TreeSaver(Dovel::RemoteNode& root, Dovel::SessionDriver& driver, QString file);
    ~TreeSaver();
    TreeSaver(const TreeSaver&) = delete;
    TreeSaver& operator=(const TreeSaver&) = delete;

    // Saves when the tree changed since the last save that succeeded (or none was made
    // yet). False when the save failed.
    bool saveIfChanged();
    // The last failure's text ("cannot save the tree to FILE: REASON"), empty after a
    // success.
    QString lastError() const { return error; }

private:
    bool write(const QByteArray& document);

    Dovel::RemoteNode& root;
    Dovel::SessionDriver& driver;
    const QString file;
    TreeJson json;
    // Set on the tree thread by every change, cleared here before each save.
    std::shared_ptr<std::atomic<bool>> changed = std::make_shared<std::atomic<bool>>(true);
    long listenerId = -1;
    QString error;
};

} // namespace DovelTool
