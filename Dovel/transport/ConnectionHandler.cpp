#include "Dovel/transport/ConnectionHandler.h"

namespace Dovel {

// Every hook does nothing unless a protocol gives it something to do.

bool ConnectionHandler::parse(const QString&) {
    return false;
}

void ConnectionHandler::pong(const QByteArray&) {}

void ConnectionHandler::connecting() {}

void ConnectionHandler::opened() {}

void ConnectionHandler::loginFailed() {}

void ConnectionHandler::connectionFailed() {}

void ConnectionHandler::connected() {}

void ConnectionHandler::disconnected() {}

void ConnectionHandler::attemptEnded() {}

bool ConnectionHandler::wantsIdle() {
    return false;
}

void ConnectionHandler::idle() {}

void ConnectionHandler::retryProgress(double) {}

} // namespace Dovel
