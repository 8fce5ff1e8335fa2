// The login that opens every connection, on either side. The server greets with its
// version line and 64 random challenge bytes; the client answers with its own version
// line (only to servers from 1.9.1, which older ones would take for the user name), the
// user name and a 16-byte proof: the MD5 over the challenge's first half, the shared key
// and the challenge's second half. The server says "ok" or refuses. The proof keeps the
// key off the wire but encrypts nothing.
//
// It reads and writes through the connection's functions (Link); how long the peer may
// take is the connection's to bound.
//
// Threads: one handshake on one thread (the connection's own); not thread-safe.
#pragma once

#include "Dovel/transport/PeerFailure.h"

#include <QByteArray>
#include <QString>

#include <functional>

namespace Dovel {

class LoginHandshake {
public:
    struct Version {
        int major = 0;
        int minor = 0;
        int patch = 0;
        QString suffix;
        bool atLeast(int major, int minor, int patch) const;
    };

    // What the handshake works through. `line` and `readData` read the connection and
    // end it at once when they cannot give their value (an empty result), so that
    // nothing more goes out after a failed read; `write` sends raw bytes and is false
    // once the connection broke; `peerVersion` hears the peer's version as soon as it is
    // known; `hungUp` says whether the peer closed its end (to tell a server that would
    // not have us from one that is no server of ours).
    struct Link {
        std::function<QString()> line;
        std::function<QByteArray(int)> readData;
        std::function<bool(const QByteArray&)> write;
        std::function<void(const Version&)> peerVersion;
        std::function<bool()> hungUp;
    };

    explicit LoginHandshake(Link link) : link(std::move(link)) {}

    // The server's side. `verdict` hears whether the peer logged in (with its user name)
    // or gave a wrong user name or proof, before the peer is told; it is not called when
    // the peer stalled or went away. True when the peer logged in.
    bool serve(const QByteArray& key,
               const std::function<void(bool accepted, const QString& user)>& verdict);
    // The client's side; `suffix` (when not empty) follows the version line after a "-".
    // False with `why` set when the failure has a reason of its own.
    bool logIn(const QByteArray& key, const QString& suffix, PeerFailure& why);

    // "Heliotrope " and this build's version.
    static QString greeting();
    static bool parseGreeting(const QString& line, Version& out);
    // The proof for `challenge` (64 bytes) under `key`.
    static QByteArray digest(const QByteArray& challenge, const QByteArray& key);

private:
    bool puts(const QString& text);
    // Tells the verdict and then the peer that its login is refused; returns false.
    bool refuse(const std::function<void(bool, const QString&)>& verdict, const QString& user);

    Link link;
};

} // namespace Dovel
