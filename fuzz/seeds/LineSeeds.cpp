// Seeds of the line target (fuzz/fuzz_line.cpp): a mode byte (see LinePeer.h), then what
// the peer writes. Maps come from the connection's own code: a binary block for 1.9.1
// and later, lines for older peers.
#include "Seeds.h"

#include "Dovel/transport/ConnectionThread.h"

#include <QMap>

namespace {

enum Mode : char {
    ServerSide = 0,
    ClientSide = 1,
    LogIn = 2,
    V190 = 0 << 2,
    V191 = 1 << 2,
    V261 = 2 << 2,
    V204Pellux = 3 << 2,
    NoPing = 16,
};

QByteArray seed(int mode, const QByteArray& stream) {
    return QByteArray(1, char(mode)) + stream;
}

// The map as a connection sends it to a peer of the given version.
QByteArray mapFor(int major, int minor, int patch, const QMap<QString, QString>& map) {
    Dovel::ConnectionThread connection(nullptr, false);
    connection.setRemoteVersion(major, minor, patch, QString());
    return connection.buildMapBuffer(QStringLiteral("map"), map);
}

} // namespace

FuzzSeeds::Seeds FuzzSeeds::line() {
    const QMap<QString, QString> sample{{QStringLiteral("app"), QStringLiteral("x")},
                                        {QStringLiteral("v"), QStringLiteral("2.6")},
                                        {QString::fromUtf8("\xc3\xa9"), QString()}};
    const QByteArray challenge(64, '\x11');
    const QByteArray digest(16, '\0');
    const QByteArray binary = mapFor(2, 6, 1, sample);
    return {
        {"server_raw_wrong_login", seed(ServerSide, "Heliotrope 2.6.1\npavro\n" + digest)},
        {"server_raw_old_client", seed(ServerSide, "pavro\n" + digest)},
        {"server_raw_bad_greeting", seed(ServerSide, "Heliotrope 3.1.0\npavro\n")},
        {"server_login_binary",
         seed(ServerSide | LogIn | V261, "ping\nping hello there\npong\npong initialized\n" +
                                             binary + "data 5\nhelloskip 3\nabcunknown\r\n\r\n")},
        {"server_login_text",
         seed(ServerSide | LogIn | V190, mapFor(1, 9, 0, sample) + "bad line\n")},
        {"server_login_truncated_block",
         seed(ServerSide | LogIn | V204Pellux,
              mapFor(2, 0, 4, {}) + binary.left(binary.size() - 3))},
        {"client_raw", seed(ClientSide, "Heliotrope 2.6.1\n" + challenge + "ok\nping x\n")},
        {"client_raw_refused",
         seed(ClientSide, "Heliotrope 1.9.0\n" + challenge + "Wrong username or password\n")},
        {"client_login_binary",
         seed(ClientSide | LogIn | V191, mapFor(1, 9, 1, sample) + "pong initialized\n")},
        {"client_login_no_ping", seed(ClientSide | LogIn | V261 | NoPing, "ping\ndata 3\nxyz")},
    };
}
