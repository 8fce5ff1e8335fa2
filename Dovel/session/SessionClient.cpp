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
    : connection_(std::make_shared<SessionConnection>(nullptr, false,
                                                      clientConfig(node, driver, options))) {
    connection_->setLoginKey(options.loginKey);
    connection_->setTimeoutSeconds(options.timeoutSeconds);
}

SessionClient::~SessionClient() {
    connection_->shutdown();
}

void SessionClient::connectToHost(const QString& host, int port) {
    connection_->connectToHost(host, port);
}

void SessionClient::stop() {
    connection_->shutdown();
}

} // namespace Dovel
