#include "Dovel/session/SessionConnection.h"

#include "Dovel/session/BundleController.h"
#include "Dovel/session/Dovel1Connection.h"
#include "Dovel/session/ProcessDovel2.h"
#include "Dovel/session/SessionDriver.h"
#include "Dovel/sync/QueryWire.h"

#include "Basalt/Trace.h"

namespace Dovel {

// The session's outgoing side: a Dovel1Connection that can be closed, after which a
// late output pass of the ended session sends nothing.
class SessionConnection::Output : public Dovel1Connection {
public:
    using Dovel1Connection::Dovel1Connection;

    void send(const std::vector<Bundle>& bundles) override {
        Basalt::Guard guard(mutex);
        if (open)
            Dovel1Connection::send(bundles);
    }
    // An ended session neither sends nor waits for the writer, which may be serving the
    // next one by then.
    bool holdBack(const std::function<void()>& wake) override {
        Basalt::Guard guard(mutex);
        return open && Dovel1Connection::holdBack(wake);
    }
    void close() {
        Basalt::Guard guard(mutex);
        open = false;
    }

private:
    Basalt::Mutex mutex;
    bool open = true;
};

SessionConnection::SessionConnection(ConnectionLink& link, SessionConfig cfg)
    : ConnectionHandler(link), config(std::move(cfg)) {
    if (!config.stats)
        config.stats = std::make_shared<SessionStats>();
    if (link.isServerSide())
        state_.store(SessionState::Handshaking);
}

SessionConnection::~SessionConnection() {
    endSession();
}

ConnectionThread& SessionConnection::connection() const {
    auto* connection = dynamic_cast<ConnectionThread*>(&link());
    Q_ASSERT(connection);
    return *connection;
}

std::shared_ptr<BundleController> SessionConnection::controller() const {
    Basalt::Guard guard(sessionMutex);
    return session;
}

bool SessionConnection::parse(const QString& line) {
    if (processDovel2(controller(), link(), line))
        return true;
    // A tree client has nothing to do at a folder server.
    if (!link().isServerSide() && PeerFailure::isFolderListing(line)) {
        Basalt::Trace::warning("SessionConnection::parse # %s:%d serves a folder, not a tree; "
                               "disconnecting",
                               link().hostName().toUtf8().constData(), link().port());
        link().notePeerFailure({PeerFailure::FolderServer, 0, QString()});
        link().abortConnection();
        return true;
    }
    return false;
}

void SessionConnection::connecting() {
    state_.store(SessionState::Connecting);
}

void SessionConnection::opened() {
    state_.store(SessionState::Handshaking);
}

void SessionConnection::loginFailed() {
    config.stats->handshakeFailures += 1;
    state_.store(link().isServerSide() || link().isStopping() ? SessionState::Idle
                                                              : SessionState::Retrying);
}

void SessionConnection::connected() {
    if (!config.node)
        return;
    // Batches of an earlier session that never left must not reach the new peer.
    link().removeFromBuffer(Dovel1Connection::WriterKey);
    auto out = std::make_shared<Output>(link().weakLink());
    BundleControllerParams params;
    params.connection = out;
    params.oneWayEventHandler = config.oneWayEventHandler;
    params.isMaster = config.master;
    params.createMissingAttributes = config.createMissingAttributes;
    params.mirrorOnly = config.mirrorOnly;
    params.querySession = link().isServerSide() && config.answerQueries &&
                          link().remoteVersionSuffix() == QLatin1String(Query::ClientSuffix);
    params.queryMayRemove = config.queryMayRemove;
    params.enabled = true;
    params.autoUpdate = config.driver == nullptr;
    if (config.driver)
        params.executor = config.driver->executor();
    params.counters = config.stats;
    params.writeRules = config.writeRules;
    params.peerName = QStringLiteral("%1:%2").arg(link().hostName()).arg(link().port()).toUtf8();
    if (!params.writeRules.allowsEverything()) {
        const std::shared_ptr<SessionStats> stats = config.stats;
        const QByteArray peer = params.peerName;
        auto said = std::make_shared<bool>(false); // the tree thread's only
        params.writeRules.setRefusalHandler([stats, peer, said](const QByteArray& what) {
            stats->changesRefused += 1;
            if (*said)
                return;
            *said = true;
            Basalt::Trace::warning("SessionConnection::refuse # %s may not change '%s' and "
                                   "what it changes here is put back; further refusals in "
                                   "this session are not logged",
                                   peer.constData(), what.constData());
        });
    }
    std::shared_ptr<BundleController> created = BundleController::create(*config.node, params);
    {
        Basalt::Guard guard(sessionMutex);
        session = created;
        output = out;
    }
    if (config.driver)
        config.driver->addController(std::move(created));
    config.stats->sessionsStarted += 1;
    state_.store(SessionState::Connected);
}

void SessionConnection::endSession() {
    std::shared_ptr<BundleController> ended;
    std::shared_ptr<Output> out;
    {
        Basalt::Guard guard(sessionMutex);
        ended.swap(session);
        out.swap(output);
    }
    if (!ended)
        return;
    out->close();
    link().removeFromBuffer(Dovel1Connection::WriterKey);
    config.stats->sessionsEnded += 1;
    if (config.driver)
        config.driver->removeController(std::move(ended));
    // An automatic controller's core is released by the next hook run, on the tree thread.
}

void SessionConnection::disconnected() {
    endSession();
    state_.store(link().isServerSide() || link().isStopping() ? SessionState::Idle
                                                              : SessionState::Retrying);
}

void SessionConnection::connectionFailed() {
    config.stats->connectFailures += 1;
    state_.store(link().isStopping() ? SessionState::Idle : SessionState::Retrying);
}

void SessionConnection::retryProgress(double) {
    if (!link().isStopping())
        state_.store(SessionState::Retrying);
}

} // namespace Dovel
