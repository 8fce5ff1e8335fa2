#include "Dovel/session/SessionServer.h"

namespace Dovel {

SessionServer::SessionServer(RemoteNode& node, SessionDriver* driver)
    : SessionServer(node, driver, Options()) {}

SessionServer::SessionServer(RemoteNode& node, SessionDriver* driver, Options options)
    : stats_(std::make_shared<SessionStats>()), timeoutSeconds(options.timeoutSeconds) {
    config.node = &node;
    config.driver = driver;
    config.master = true;
    config.createMissingAttributes = options.createMissingAttributes;
    config.oneWayEventHandler = std::move(options.oneWayEventHandler);
    config.stats = stats_;
    config.answerQueries = options.answerQueries;
    config.queryMayRemove = options.queryMayRemove;
    if (options.readOnly)
        config.writeRules = PeerWriteRules::readOnly(options.writable);
    setLoginKey(options.loginKey);
    setAdmissionRules(options.admission);
}

SessionServer::~SessionServer() {
    shutdown();
}

bool SessionServer::listen(int port, const QString& host, int waitMs) {
    run(host, port);
    return waitListening(waitMs);
}

int SessionServer::clientCount() const {
    int count = 0;
    for (const auto& session : sessions())
        if (session->state() == SessionState::Connected)
            ++count;
    return count;
}

QList<std::shared_ptr<SessionConnection>> SessionServer::sessions() const {
    QList<std::shared_ptr<SessionConnection>> out;
    for (const auto& connection : instances())
        out.append(ConnectionThread::handlerOf<SessionConnection>(connection));
    return out;
}

std::shared_ptr<ConnectionThread> SessionServer::createConnection(Basalt::TCPSocket* socket) {
    auto connection = ConnectionThread::create<SessionConnection>(socket, true, config);
    connection->setTimeoutSeconds(timeoutSeconds);
    return connection;
}

} // namespace Dovel
