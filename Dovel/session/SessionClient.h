// A client that mirrors a server's tree into a local RemoteNode: it connects, creates
// the attributes the server announces that the tree lacks, keeps both trees in step,
// and after a failure reconnects and starts a fresh session, which announces both
// trees again in full.
//
// Usage (with a SessionDriver as the tree thread):
//     Dovel::SessionDriver driver;
//     Dovel::SessionClient client(mirror, &driver);
//     client.connectToHost("127.0.0.1", 5000);
// Thread-safe; the node belongs to the driver's thread (or, without a driver, to the
// thread that runs Tessel::UpdateLoop).
#pragma once

#include "Dovel/session/SessionConnection.h"
#include "Dovel/session/SessionStats.h"

#include <QString>

#include <memory>

namespace Dovel {

class SessionClient {
public:
    struct Options {
        bool createMissingAttributes = true;
        // An observer's client: it only mirrors. It sends the server nothing but the
        // protocol's handshake (no announcement, change, removal or event of its own:
        // local changes to the node are not sent), and at every new session its copy
        // becomes the server's tree: what the server no longer announces is removed
        // (what the sync flags keep local stays), and an attribute whose type changed is
        // made again.
        bool mirrorOnly = false;
        // Incoming one-way events; empty: the node's event listeners.
        std::function<void(const QByteArray&, Basalt::BinaryData&)> oneWayEventHandler;
        // The login key the server expects; empty: the default key.
        QByteArray loginKey;
        // A server that greets no faster, or that neither reads nor sends (nor answers
        // pings) for longer, is left and connected again.
        double timeoutSeconds = 10.0;
    };

    // `driver` null: the sessions run from the host's update loop.
    SessionClient(RemoteNode& node, SessionDriver* driver);
    SessionClient(RemoteNode& node, SessionDriver* driver, Options options);
    // Stops and waits for the connection's threads.
    ~SessionClient();
    SessionClient(const SessionClient&) = delete;
    SessionClient& operator=(const SessionClient&) = delete;

    // Connects, and keeps reconnecting after every failure until stop().
    void connectToHost(const QString& host, int port);
    // Ends the connection and the retries; waits for them.
    void stop();

    SessionState state() const { return session_->state(); }
    bool isConnected() const { return state() == SessionState::Connected; }
    const SessionStats& stats() const { return session_->stats(); }
    ConnectionThread& connection() { return session_->connection(); }
    SessionConnection& session() { return *session_; }

private:
    // Shares the ownership of the connection, which owns the session's protocol.
    std::shared_ptr<SessionConnection> session_;
};

} // namespace Dovel
