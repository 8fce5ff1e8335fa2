// A server that shares one RemoteNode with every client that connects. Each client gets
// its own session over the same node, as master (this side keeps its values when both
// start with different ones) and creating the attributes a client announces that the
// tree lacks. A change a client makes thus reaches the server's tree and, from there,
// every other client.
//
// Usage (with a SessionDriver as the tree thread):
//     Dovel::SessionDriver driver;
//     Dovel::SessionServer server(root, &driver);
//     server.listen(5000);
// Thread-safe; the node belongs to the driver's thread (or, without a driver, to the
// thread that runs Tessel::UpdateLoop).
#pragma once

#include "Dovel/session/SessionConnection.h"
#include "Dovel/session/SessionStats.h"
#include "Dovel/transport/ServerBase.h"

#include <QList>
#include <QString>
#include <QStringList>

#include <memory>

namespace Dovel {

class SessionServer : public ServerBase {
public:
    struct Options {
        bool createMissingAttributes = true;
        // Incoming one-way events of every client; empty: the node's event listeners.
        std::function<void(const QByteArray&, Basalt::BinaryData&)> oneWayEventHandler;
        // Clients mirror the tree but may change only the paths (and raise only the
        // events) that match `writable` (`*` one component, `**` any depth); every
        // other change, addition, removal and event of theirs is refused and their copy
        // put back to the server's.
        bool readOnly = false;
        QStringList writable;
        // The login key of the clients; empty: the default key.
        QByteArray loginKey;
        // A client that logs in no faster, or that neither reads nor sends (nor answers
        // pings) for longer, is disconnected.
        double timeoutSeconds = 10.0;
        // Who may connect, and how many.
        AdmissionRules admission;
        // Light clients (QueryClient, the tool's get, ls, set and rm) read and change
        // paths without taking the tree; off: they are served as ordinary clients and
        // take a full copy.
        bool answerQueries = true;
        // Whether they may remove attributes and nodes. A removal deletes what the tree
        // holds, so turn it on only when the whole tree is heap-owned by its nodes (no
        // attribute is a member of another object, none is pointed to elsewhere), as
        // in `dovel serve`. Ordinary peers never remove what this side made.
        bool queryMayRemove = false;
    };

    // `driver` null: the sessions run from the host's update loop.
    SessionServer(RemoteNode& node, SessionDriver* driver);
    SessionServer(RemoteNode& node, SessionDriver* driver, Options options);
    ~SessionServer() override;

    // Starts listening (port 0: any free port, see port()) and waits up to `waitMs` until
    // it listens. False when it does not.
    // Listens on the loopback unless another address is given: "0.0.0.0" takes clients
    // from every network, which with the default key means anyone who can reach the port.
    bool listen(int port = DefaultPort, const QString& host = QStringLiteral("127.0.0.1"),
                int waitMs = 5000);

    // Clients whose session runs now.
    int clientCount() const;
    // The sessions of the live connections (connected or still in their handshake); each
    // pointer shares its connection's ownership (SessionConnection::connection()).
    QList<std::shared_ptr<SessionConnection>> sessions() const;
    // The counters of all sessions the server has run.
    const SessionStats& stats() const { return *stats_; }

protected:
    std::shared_ptr<ConnectionThread> createConnection(Basalt::TCPSocket* socket) override;

private:
    SessionConfig config;
    std::shared_ptr<SessionStats> stats_;
    double timeoutSeconds;
};

} // namespace Dovel
