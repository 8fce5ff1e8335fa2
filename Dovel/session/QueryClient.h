// A light client of a tree server: reads, lists, writes and removes paths through the
// query module (Dovel/sync/QueryWire.h) without taking a copy of the tree, so that a
// tool's `get` or `set` on a tree of millions of attributes costs what it asks for. It
// tells the server what it is by its version line; a server that does not answer queries
// says "Module not found", and every request then returns Unsupported: the caller falls
// back to an ordinary client.
//
// One connection, no retries, no tree thread. The client owns the connection and does
// its connecting, login settings and closing; the protocol's end is a handler that
// speaks through the ConnectionLink only: it reads and dispatches the answers on the
// connection's thread and hands each to the request waiting for it.
//
// Usage:
//     Dovel::QueryClient client;
//     if (!client.open("127.0.0.1", 5000, 10000)) ... client.failureReason() ...
//     Dovel::Query::Reply reply;
//     if (client.read({"scene/speed"}, reply, 10000) == Dovel::QueryClient::Answered) ...
//
// Threads: the operations are called from one thread at a time (never the connection's).
// The destructor closes the connection, joining its threads before the handler goes.
#pragma once

#include "Dovel/sync/QueryWire.h"
#include "Dovel/transport/PeerFailure.h"

#include <QByteArray>
#include <QList>
#include <QString>

#include <functional>
#include <memory>
#include <vector>

namespace Dovel {

class ConnectionThread;

class QueryClient {
public:
    enum Outcome {
        Answered,    // `reply` holds the server's answer (whose status may be a refusal)
        Unsupported, // the server does not answer queries
        Failed,      // no answer: the connection ended or the time ran out (failureReason)
    };

    // `loginKey` empty: the default key. `timeoutSeconds`: a server that greets no
    // faster, or goes silent for longer, is left.
    explicit QueryClient(const QByteArray& loginKey = QByteArray(), double timeoutSeconds = 10.0);
    ~QueryClient();
    QueryClient(const QueryClient&) = delete;
    QueryClient& operator=(const QueryClient&) = delete;

    // Connects and logs in, for at most `ms`. False when that failed (failureReason).
    bool open(const QString& host, int port, int ms);
    // Ends the connection; waits for its threads.
    void close();

    // The attributes at `paths` with their values: an attribute itself, every attribute
    // under a node, or the value that stands on the way of a longer path; nothing for a
    // path that is not there.
    Outcome read(const QList<QByteArray>& paths, Query::Reply& reply, int ms);
    // The paths and type codes of the attributes that match `pattern` (`*` one name, `**`
    // any depth; empty: all), without values.
    Outcome list(const QByteArray& pattern, Query::Reply& reply, int ms);
    // Writes the entries' values, creating missing paths when the server does; all or
    // nothing. Answered with status Ok once the server's tree holds them.
    Outcome write(const std::vector<Query::Entry>& entries, Query::Reply& reply, int ms);
    // Removes attributes and whole nodes, all or nothing.
    Outcome remove(const QList<QByteArray>& paths, Query::Reply& reply, int ms);

    // Why open() or the last request failed, for after "HOST:PORT: ".
    QString failureReason() const;
    // What made open() fail, when the connection said (a refused login...).
    PeerFailure::Kind failureKind() const { return failedBy; }

private:
    class Link;
    Outcome ask(uint32_t operation, const std::function<void(BundleWriterCore&)>& arguments,
                Query::Reply& reply, int ms);

    // The connection, with its login settings; it owns the protocol's end, `link`, and
    // joins its threads (close) before the link goes.
    std::shared_ptr<ConnectionThread> connection;
    Link* link; // the connection's
    QString failure;
    PeerFailure::Kind failedBy = PeerFailure::None;
};

} // namespace Dovel
