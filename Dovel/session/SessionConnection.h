// The protocol of a connection that carries one binary session at a time: when the
// connection's login succeeds it starts a fresh BundleController over the configured
// RemoteNode, with a Dovel1Connection to the connection as the outgoing side; its parse()
// hands "dovel2" lines to that session; when the connection ends the session is closed
// and dropped, together with any of its batches still waiting in the writer, so that a
// reconnected client starts the next session from scratch. The connection owns it
// (ConnectionThread::create; owners reach it with ConnectionThread::handlerOf).
//
// The controllers are manual and updated by the configured SessionDriver, or, without
// a driver, automatic and run by the host's update loop (Tessel::UpdateLoop).
// Threads: the hooks run on the connection's thread; state(), stats(), controller() and
// connection() on any thread.
#pragma once

#include "Dovel/session/SessionStats.h"
#include "Dovel/sync/PeerWriteRules.h"
#include "Dovel/transport/ConnectionThread.h"

#include "Basalt/BinaryData.h"
#include "Basalt/Mutex.h"

#include <QByteArray>

#include <atomic>
#include <functional>
#include <memory>

namespace Dovel {

class BundleController;
class RemoteNode;
class SessionDriver;

struct SessionConfig {
    RemoteNode* node = nullptr;      // the shared tree; outlives the connection
    SessionDriver* driver = nullptr; // null: automatic controllers
    bool master = false;
    bool createMissingAttributes = true;
    bool mirrorOnly = false; // see SessionClient::Options
    // Server side: a light client (QueryClient) gets a query session instead of the tree,
    // and may remove what the tree holds only with queryMayRemove.
    bool answerQueries = true;
    bool queryMayRemove = false;
    // Incoming one-way events; empty: the node's local event listeners get them.
    std::function<void(const QByteArray&, Basalt::BinaryData&)> oneWayEventHandler;
    // Where the sessions count; a server shares one among its connections.
    std::shared_ptr<SessionStats> stats;
    // What the peer may change; everything by default. A session's first refusal is
    // logged with the peer's address; all are counted (SessionStats::changesRefused).
    PeerWriteRules writeRules;
};

class SessionConnection : public ConnectionHandler {
public:
    // `link` is the connection that owns this protocol, or a test's fake link.
    SessionConnection(ConnectionLink& link, SessionConfig config);
    ~SessionConnection() override;

    // The connection that owns this session's protocol; for owners, which make it with
    // ConnectionThread::create (a fake link has none).
    ConnectionThread& connection() const;

    SessionState state() const { return state_.load(); }
    const SessionStats& stats() const { return *config.stats; }
    // The running session, or null between sessions.
    std::shared_ptr<BundleController> controller() const;

protected:
    bool parse(const QString& line) override;
    void connecting() override;
    void opened() override;
    void loginFailed() override;
    void connected() override;
    void disconnected() override;
    void connectionFailed() override;
    void retryProgress(double secondsLeft) override;

private:
    class Output;
    void endSession();

    SessionConfig config;
    std::atomic<SessionState> state_{SessionState::Idle};
    mutable Basalt::Mutex sessionMutex; // guards session and output
    std::shared_ptr<BundleController> session;
    std::shared_ptr<Output> output;
};

} // namespace Dovel
