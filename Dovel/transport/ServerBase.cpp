#include "Dovel/transport/ServerBase.h"

#include "Dovel/transport/ConnectionThread.h"

#include "Basalt/BGThread.h"
#include "Basalt/Stopwatch.h"
#include "Basalt/Trace.h"

#include <sys/socket.h>

#include <algorithm>
#include <cstring>

namespace Dovel {

namespace {

constexpr double ListenRetrySeconds = 5.0;
constexpr unsigned int AcceptWaitMs = 50000;
// The pause after a failed accept (out of descriptors), doubling while it fails.
constexpr int MinAcceptPauseMs = 20;
constexpr int MaxAcceptPauseMs = 1000;
// The system's usual queue of connections not yet accepted: many clients that
// connect at once wait in it instead of being refused.
constexpr int ListenBacklog = SOMAXCONN;

} // namespace

ServerBase::ServerBase() : Basalt::Thread(QStringLiteral("ServerBase")) {}

ServerBase::~ServerBase() {
    shutdown();
}

void ServerBase::run(const QString& host, int port) {
    Basalt::Guard guard(listenMutex);
    if (isRunning()) {
        if (running.load())
            return;
        // Stopped, but the thread is still leaving its loop: let it end first.
        listenMutex.unlock();
        waitEnd(-1);
        listenMutex.lock();
        if (isRunning())
            return;
    }
    running.store(true);
    listening = false;
    failedAttempts = 0;
    host_ = host;
    port_.store(port);
    Basalt::Thread::run();
}

bool ServerBase::waitListening(int ms) {
    const Basalt::Stopwatch start;
    Basalt::Guard guard(listenMutex);
    while (!listening && running.load() && failedAttempts == 0) {
        const double left = ms / 1000.0 - start.elapsedSeconds();
        if (left <= 0.0)
            break;
        listenCondition.wait(listenMutex, static_cast<unsigned long>(left * 1000.0) + 1);
    }
    return listening;
}

void ServerBase::setLoginKey(const QByteArray& key) {
    Basalt::Guard guard(listenMutex);
    loginKey = key;
}

QString ServerBase::host() const {
    Basalt::Guard guard(listenMutex);
    return host_;
}

bool ServerBase::isListening() const {
    Basalt::Guard guard(listenMutex);
    return listening;
}

QList<std::shared_ptr<ConnectionThread>> ServerBase::instances() const {
    // An element-wise copy: an implicitly shared one would let a later detach on the
    // caller's thread race with the accept loop and the removal tasks.
    QList<std::shared_ptr<ConnectionThread>> copy;
    Basalt::Guard guard(instancesMutex);
    copy.reserve(instances_.size());
    for (const std::shared_ptr<ConnectionThread>& connection : instances_)
        copy.append(connection);
    return copy;
}

void ServerBase::stop(bool closeConnections) {
    running.store(false);
    {
        Basalt::Guard guard(listenMutex);
        listenCondition.wakeAll(listenMutex);
    }
    serverSocket.close();
    if (closeConnections)
        for (const std::shared_ptr<ConnectionThread>& connection : instances())
            connection->stop();
}

void ServerBase::shutdown() {
    stop(true);
    if (!isCurrentThread())
        waitEnd(-1);
    closeConnections();
    // Removal tasks call back into this object; none may outlive it.
    Basalt::Guard guard(instancesMutex);
    while (!removalTasks.isEmpty())
        removalDone.wait(instancesMutex, 1000);
}

void ServerBase::closeConnections() {
    if (running.load())
        return;
    QList<std::shared_ptr<ConnectionThread>> taken;
    {
        Basalt::Guard guard(instancesMutex);
        taken.swap(instances_);
    }
    for (const std::shared_ptr<ConnectionThread>& connection : taken)
        connection->stop();
    for (const std::shared_ptr<ConnectionThread>& connection : taken)
        connection->waitEnd(-1);
}

void ServerBase::removeInstance(std::shared_ptr<ConnectionThread> connection) {
    if (!connection)
        return;
    std::shared_ptr<Basalt::BGThread> background = Basalt::BGThread::instance();
    auto task =
        std::make_shared<Basalt::FunctionTask>([this, connection](Basalt::Task& self) mutable {
            retire(connection, self);
            connection.reset(); // a last reference ends here, on the worker
        });
    {
        Basalt::Guard guard(instancesMutex);
        removalTasks.append(task);
    }
    if (background)
        background->add(task);
    else
        retire(connection, *task); // the process is exiting: no pool left to wait on
}

void ServerBase::retire(const std::shared_ptr<ConnectionThread>& connection, Basalt::Task& task) {
    connection->waitEnd(-1);
    {
        Basalt::Guard guard(instancesMutex);
        const int index = instances_.indexOf(connection);
        if (index >= 0) {
            // Order is not kept: the last element moves into the gap.
            instances_[index] = instances_.last();
            instances_.removeLast();
        }
    }
    removedInstance(connection);
    std::shared_ptr<Basalt::Task> finished;
    Basalt::Guard guard(instancesMutex);
    for (int i = 0; i < removalTasks.size(); ++i) {
        if (removalTasks[i].get() == &task) {
            finished = removalTasks.takeAt(i); // released after the lock
            break;
        }
    }
    removalDone.wakeAll(instancesMutex);
}

void ServerBase::removedInstance(std::shared_ptr<ConnectionThread>) {}

void ServerBase::connected(std::shared_ptr<ConnectionThread>) {}

void ServerBase::disconnected(std::shared_ptr<ConnectionThread>) {}

void ServerBase::childLoop() {
    if (listen())
        accept();
    serverSocket.close();
    Basalt::Guard guard(listenMutex);
    listening = false;
    listenCondition.wakeAll(listenMutex);
}

bool ServerBase::listen() {
    while (running.load()) {
        QByteArray address;
        {
            Basalt::Guard guard(listenMutex);
            address = host_.toUtf8();
        }
        const Basalt::Stopwatch start;
        if (serverSocket.open(address.constData(), port_.load(), ListenBacklog) == 0) {
            port_.store(serverSocket.port());
            Basalt::Guard guard(listenMutex);
            if (!running.load())
                return false; // stopped while opening: stop() closed nothing yet
            listening = true;
            listenCondition.wakeAll(listenMutex);
            Basalt::Trace::info("Listening %s:%d", address.constData(), port_.load());
            return true;
        }

        Basalt::Guard guard(listenMutex);
        lastListenError.store(serverSocket.openError());
        ++failedAttempts;
        listenCondition.wakeAll(listenMutex);
        for (;;) {
            const double remaining = ListenRetrySeconds - start.elapsedSeconds();
            if (!running.load() || remaining <= 0.0)
                break;
            listenCondition.wait(listenMutex, static_cast<unsigned long>(remaining * 1000.0) + 1);
        }
    }
    return false;
}

bool ServerBase::pauseAccepting(int error, int& pauseMs) {
    // The connection stays pending, so the next wait would return at once: without a
    // pause the loop would spin a core until a descriptor frees.
    if (pauseMs == 0)
        Basalt::Trace::warning("ServerBase::accept # Cannot accept on port %d (%s); new "
                               "connections wait, the open ones are served",
                               port_.load(), std::strerror(error));
    pauseMs = std::clamp(pauseMs * 2, MinAcceptPauseMs, MaxAcceptPauseMs);
    Basalt::Guard guard(listenMutex);
    if (running.load())
        listenCondition.wait(listenMutex, static_cast<unsigned long>(pauseMs));
    return running.load();
}

void ServerBase::accept() {
    int pauseMs = 0; // while accept() fails for want of resources
    while (running.load()) {
        if (!serverSocket.isPendingConnection(AcceptWaitMs))
            continue;
        int error = 0;
        Basalt::TCPSocket* socket = serverSocket.accept(&error);
        if (!socket) {
            if (error != 0 && !pauseAccepting(error, pauseMs))
                break;
            continue;
        }
        if (pauseMs != 0) {
            Basalt::Trace::warning("ServerBase::accept # Accepting on port %d again", port_.load());
            pauseMs = 0;
        }
        const QString address = socket->peerAddress();
        const Admission::Ticket ticket = admission_.admit(address, socket->peerPort());
        if (ticket.evicted)
            ticket.evicted->stop();
        if (!ticket.admitted) {
            delete socket;
            continue;
        }
        // A login holds a thread: one closed to make room ends before the next starts.
        admission_.waitForLoginRoom(2000);
        std::shared_ptr<ConnectionThread> connection = createConnection(socket);
        if (!connection) {
            delete socket;
            continue;
        }
        {
            Basalt::Guard guard(listenMutex);
            connection->setLoginKey(loginKey);
        }
        connection->setLoginDelay(ticket.loginDelaySeconds);
        admission_.track(connection, address);
        const ConnectionThread* const tracked = connection.get();
        // Counted before the peer hears the verdict, so that its next connection finds
        // it among the clients or among the failed logins.
        connection->setLoginObserver([this, tracked](bool accepted) {
            if (accepted)
                admission_.loggedIn(tracked);
            else
                admission_.loginFailed(tracked);
        });
        // The callbacks hold the connection weakly: it owns them, so a strong reference
        // would keep it alive for ever.
        const std::weak_ptr<ConnectionThread> weak = connection;
        ConnectionThread::Listener listener;
        listener.connected = [this, weak] {
            if (std::shared_ptr<ConnectionThread> c = weak.lock())
                connected(c);
        };
        listener.disconnected = [this, weak] {
            if (std::shared_ptr<ConnectionThread> c = weak.lock()) {
                admission_.ended(c.get());
                disconnected(c);
                removeInstance(c);
            }
        };
        // A connection whose handshake failed never connects: retire it all the same.
        listener.handshakeFailed = [this, weak] {
            if (std::shared_ptr<ConnectionThread> c = weak.lock()) {
                admission_.ended(c.get());
                removeInstance(c);
            }
        };
        connection->setListener(std::move(listener));
        Basalt::Guard guard(instancesMutex);
        connection->run();
        instances_.append(connection);
    }
}

} // namespace Dovel
