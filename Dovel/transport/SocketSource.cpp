#include "Dovel/transport/SocketSource.h"

#include "Dovel/transport/ConnectionThread.h"

#include "Basalt/TCPSocket.h"
#include "Basalt/Trace.h"

namespace Dovel {

int SocketSource::read(char* dst, int size, bool all) {
    Basalt::TCPSocket* s = connection.socket();
    if (!s || !awaitLoginInput())
        return -1;
    // During a login each read waits no longer than the login may take.
    const int n = s->read(dst, size, all && !loginBounded());
    if (n > 0)
        connection.updateLastPacketTimestamp();
    return n;
}

QString SocketSource::peerName() const {
    return QStringLiteral("%1:%2").arg(connection.hostName()).arg(connection.port());
}

bool SocketSource::wasStopped() const {
    return connection.isStopping();
}

void SocketSource::startLogin(double seconds) {
    loginTimedOut = false;
    loginDeadline = std::chrono::steady_clock::now() +
                    std::chrono::duration_cast<std::chrono::steady_clock::duration>(
                        std::chrono::duration<double>(seconds));
}

bool SocketSource::awaitLoginInput() {
    if (!loginBounded())
        return true;
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
                          loginDeadline - std::chrono::steady_clock::now())
                          .count();
    Basalt::TCPSocket* s = connection.socket();
    if (s && left > 0 && s->isPendingInput(static_cast<unsigned int>(left)))
        return true;
    if (!loginTimedOut && !connection.isStopping()) {
        loginTimedOut = true;
        Basalt::Trace::warning("SocketSource::read # No login from %s within %g s, closing",
                               peerName().toUtf8().constData(), connection.timeoutSeconds());
    }
    return false;
}

} // namespace Dovel
