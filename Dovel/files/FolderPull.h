// One pull of a folder from a FolderServer: owns the client connection that speaks the
// pull's protocol (a FolderPullHandler), the thread that lists the local folder while
// the connection logs in and the server lists its folder (so that the two walks overlap
// and the connection's thread keeps answering the server: a folder whose checksums must
// be computed can take minutes), and the result that the handler reports. One attempt,
// no reconnection. It locks its folder: a pull into it from another AssetBase or process
// fails at once (pulls sharing one AssetBase must not overlap).
//
// Threads: start, waitFinished, result and shutdown may be called from any thread but
// the listing thread and the connection's. The progress callback runs on the
// connection's thread or the listing thread, never twice at once; the result is guarded
// by `resultMutex`. Lifetime: the destructor (never from the progress callback) shuts
// the connection down and joins the listing thread before the connection, and with it
// the handler, goes; so nothing calls into a pull being destroyed. The asset folder must
// outlive the pull.
#pragma once

#include "Dovel/files/FolderPullHandler.h"
#include "Dovel/transport/ConnectionThread.h"

#include "Basalt/Condition.h"
#include "Basalt/Mutex.h"

#include <cstdint>
#include <functional>
#include <memory>

namespace Dovel {

class AssetBase;
class FileListThread;

class FolderPull : private FolderPullHandler::Owner {
public:
    using Progress = FolderPullHandler::Progress;
    using Result = FolderPullHandler::Result;

    // With deleteExtra, local files that the server does not list are removed.
    static std::unique_ptr<FolderPull> create(AssetBase& asset, bool deleteExtra);
    FolderPull(AssetBase& asset, bool deleteExtra);
    ~FolderPull() override;
    FolderPull(const FolderPull&) = delete;
    FolderPull& operator=(const FolderPull&) = delete;

    // The client connection, to configure before start() (login key, time-out).
    ConnectionThread& connection() { return *connection_; }

    // Called as files progress, never twice at once; set before start().
    void setProgressCallback(std::function<void(const Progress&)> callback);
    // Connects once to host:port and runs the pull; call once. The local folder is
    // walked meanwhile unless the asset holds a list built since `listGeneration`
    // (FolderIndex::generation(); by default its value now): a caller that has just
    // built the list spares the walk.
    void start(const QString& host, int port);
    void start(const QString& host, int port, uint64_t listGeneration);
    // Waits up to `ms` milliseconds (negative: without limit); true once finished.
    bool waitFinished(int ms);
    // ConnectionThread::shutdown, and then waits for the listing thread too.
    void shutdown();
    Result result() const;

private:
    void pullProgress(const Progress& progress) override;
    void pullFinished(const Result& result) override;

    AssetBase& asset;
    std::function<void(const Progress&)> progressCallback;

    mutable Basalt::Mutex resultMutex;
    Basalt::Condition finishedCondition;
    Result result_; // guarded by resultMutex

    std::shared_ptr<ConnectionThread> connection_; // owns the handler
    FolderPullHandler* handler;                    // the connection's
    // Walks the local folder (or takes the list built since start()'s generation).
    std::unique_ptr<FileListThread> lister;
};

} // namespace Dovel
