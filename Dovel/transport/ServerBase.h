// A listening TCP server: accepts peers on its own thread, turns each accepted socket
// into a running ConnectionThread made by the subclass, keeps the list of live
// connections and retires ended ones on the background task thread, so that joining a
// connection's thread never blocks the accept loop. Who gets in is its Admission's to
// say (allowed networks, caps, logins under way, back-off after failed logins); every
// connection logs in with the server's key within its time-out.
//
// Threads: the accept loop runs on the server's thread; connected, disconnected and
// removeInstance run on the connections' threads, removedInstance on a background
// worker; the owner calls run, stop, instances and the accessors. They meet at
// `instancesMutex`. A subclass's destructor calls shutdown() first, so that no hook
// runs on a half-destroyed object.
#pragma once

#include "Dovel/transport/Admission.h"

#include "Basalt/Condition.h"
#include "Basalt/Mutex.h"
#include "Basalt/TCPServerSocket.h"
#include "Basalt/TCPSocket.h"
#include "Basalt/Task.h"
#include "Basalt/Thread.h"

#include <QList>
#include <QString>

#include <atomic>
#include <memory>

namespace Dovel {

class ConnectionThread;

class ServerBase : public Basalt::Thread {
public:
    static constexpr int DefaultPort = 5000;

    ServerBase();
    ~ServerBase() override;

    // Starts listening on host:port (port 0: any free port, see port()). Does nothing
    // while the server's thread runs.
    void run(const QString& host, int port);
    // Waits up to `ms` milliseconds until the server listens; false on time-out, when it
    // was stopped, and once an attempt since run() failed (the server still tries again
    // every few seconds until stopped; listenError() says why it failed).
    bool waitListening(int ms);
    // Why the last attempt to listen failed (Basalt/SocketError.h); 0 when none did.
    int listenError() const { return lastListenError.load(); }
    // The key of the logins of connections accepted from now on (see
    // ConnectionThread::setLoginKey); empty: the default key.
    void setLoginKey(const QByteArray& key);
    // Who may connect, and how many; for connections accepted from now on.
    void setAdmissionRules(const AdmissionRules& rules) { admission_.setRules(rules); }
    const Admission& admission() const { return admission_; }

    QString host() const;
    // The port given to run, or the one actually bound once listening.
    int port() const { return port_.load(); }
    bool isListening() const;
    QList<std::shared_ptr<ConnectionThread>> instances() const;

    // Stops accepting (and, with closeConnections true, stops every live connection).
    // Does not wait.
    void stop(bool closeConnections);
    // Stops everything and waits: the accept loop, every live connection, and the
    // removals under way. Idempotent; the destructor calls it.
    void shutdown();

protected:
    // Makes the connection for an accepted socket (which it then owns), or returns null
    // to refuse it (the server then deletes the socket).
    virtual std::shared_ptr<ConnectionThread> createConnection(Basalt::TCPSocket* socket) = 0;
    // A connection has left instances(); called once per connection, on a background
    // worker.
    virtual void removedInstance(std::shared_ptr<ConnectionThread> connection);
    // The connection finished its handshake / ended; called on the connection's thread.
    virtual void connected(std::shared_ptr<ConnectionThread> connection);
    virtual void disconnected(std::shared_ptr<ConnectionThread> connection);

    // Stops and joins every live connection; does nothing while the server runs.
    void closeConnections();
    // Retires an ended connection on the background thread.
    void removeInstance(std::shared_ptr<ConnectionThread> connection);

    void childLoop() override;

private:
    bool listen();
    void accept();
    // After accept() failed with `error`: logs it the first time, waits `pauseMs`
    // (doubled, within bounds) unless stopped. False once stopped.
    bool pauseAccepting(int error, int& pauseMs);
    void retire(const std::shared_ptr<ConnectionThread>& connection, Basalt::Task& task);

    Basalt::TCPServerSocket serverSocket;
    // Guards host_, listening and the pause between listening attempts.
    mutable Basalt::Mutex listenMutex;
    Basalt::Condition listenCondition;
    QString host_;
    std::atomic<int> port_{0};
    std::atomic<bool> running{false};
    bool listening = false;
    int failedAttempts = 0; // since run(); guarded by listenMutex
    std::atomic<int> lastListenError{0};

    QList<std::shared_ptr<ConnectionThread>> instances_;
    // Guards instances_ and removalTasks; removalDone wakes shutdown().
    mutable Basalt::Mutex instancesMutex;
    Basalt::Condition removalDone;
    QByteArray loginKey; // guarded by listenMutex
    Admission admission_;
    QList<std::shared_ptr<Basalt::Task>> removalTasks;
};

} // namespace Dovel
