#include "Dovel/session/SessionClient.h"

namespace Dovel {

namespace {
SessionConfig clientConfig(RemoteNode& node, SessionDriver* driver,
                           SessionClient::Options options) {
    SessionConfig config;
    config.node = &node;
    config.driver = driver;
    config.master = false;
    config.createMissingAttributes = options.createMissingAttributes;
    config.mirrorOnly = options.mirrorOnly;
    config.oneWayEventHandler = std::move(options.oneWayEventHandler);
    config.stats = std::make_shared<SessionStats>();
    return config;
}
} // namespace

SessionClient::SessionClient(RemoteNode& node, SessionDriver* driver)
    : SessionClient(node, driver, Options()) {}

SessionClient::SessionClient(RemoteNode& node, SessionDriver* driver, Options options)
    : session_(ConnectionThread::handlerOf<SessionConnection>(
          ConnectionThread::create<SessionConnection>(nullptr, false,
                                                      clientConfig(node, driver, options)))) {
    connection().setLoginKey(options.loginKey);
    connection().setTimeoutSeconds(options.timeoutSeconds);
}

SessionClient::~SessionClient() {
    connection().shutdown();
}

void SessionClient::connectToHost(const QString& host, int port) {
    connection().connectToHost(host, port);
}

void SessionClient::stop() {
    connection().shutdown();
}

} // namespace Dovel
