// A local mirror of a server's tree for the client commands (dump, set, watch): a
// RemoteNode on its own tree thread (a SessionDriver), kept in step with the server by
// a SessionClient that reconnects after every failure.
//
// Usage:
//     MirrorClient mirror;
//     mirror.connectToHost(host, port);
//     if (!mirror.waitInitialState(10000)) ... mirror.failureReason() ...
//     mirror.driver().call([&] { ... read or change mirror.node() ... });
//
// Threads: the operations are called from one thread (the command's main thread); the
// node belongs to the driver's thread, so it is read and changed only inside
// driver().call() or driver().post().
#pragma once

#include "Dovel/session/SessionClient.h"
#include "Dovel/session/SessionDriver.h"
#include "Dovel/sync/RemoteNode.h"

#include <QString>

#include <cstdint>
#include <memory>

namespace DovelTool {

class MirrorClient {
public:
    // `loginKey` empty: the default key. An `observer` only mirrors: it never writes to
    // the server, and each new session makes its copy the server's tree
    // (SessionClient::Options::mirrorOnly); dump and watch are observers, set is not.
    explicit MirrorClient(const QByteArray& loginKey = QByteArray(), bool observer = false);
    // Stops the client first, then the tree thread, then drops the node.
    ~MirrorClient();
    MirrorClient(const MirrorClient&) = delete;
    MirrorClient& operator=(const MirrorClient&) = delete;

    void connectToHost(const QString& host, int port);
    void stop();

    // Waits until the first batch of bundles that the server sent in a session (its
    // handshake and the values of its whole tree) has been applied to the node, for at
    // most `ms` milliseconds. False on time-out, and at once when hasFailed().
    bool waitInitialState(int ms);
    // True when no tree came and trying again would meet the same end: the first
    // attempt failed (refused, not a Dovel server, a folder server, the key refused...)
    // or the first session ended before any of its tree arrived.
    bool hasFailed() const;
    // Waits until every batch that the node's changes have caused so far has been
    // written to the socket, for at most `ms` milliseconds. Call it after changing the
    // node through driver(): `sentBefore` is batchesSent() read on the tree thread
    // before the change. True at once when the change sends nothing (it wrote the
    // values the tree held). False on time-out or when the connection ended first.
    bool waitWritten(uint64_t sentBefore, int ms);
    // Batches that the sessions have sent so far.
    uint64_t batchesSent() const;

    // Why no session is running, for an error line after "HOST:PORT: ": the last
    // failure (Dovel::PeerFailure::text), else "no answer".
    QString failureReason() const;

    Dovel::RemoteNode& node() { return mirror; }
    Dovel::SessionDriver& driver() { return treeThread; }
    Dovel::SessionClient& client() { return *session; }

private:
    Dovel::RemoteNode mirror; // declared first: it outlives the thread and the client
    Dovel::SessionDriver treeThread;
    std::unique_ptr<Dovel::SessionClient> session;
};

} // namespace DovelTool
