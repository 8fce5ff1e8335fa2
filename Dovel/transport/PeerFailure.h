// Why the last attempt to reach a peer failed, kept by a connection so that a tool can
// tell its user in one line: the socket's error, a greeting that is not ours, a refused
// login, or a server of the other kind (a folder server where a tree was asked for, and
// the reverse). A cheap value type.
#pragma once

#include <QString>

namespace Dovel {

struct PeerFailure {
    enum Kind {
        None,
        Connect,      // the socket did not open: `error` says why (Basalt/SocketError.h)
        NotDovel,     // the greeting is not ours: `detail` holds its first bytes
        LoginRefused, // the key was refused
        LoginCut,     // the peer went quiet or away during the login
        FolderServer, // logged in, and the peer serves a folder, not a tree
        TreeServer,   // logged in, and the peer serves a tree, not a folder
    };
    Kind kind = None;
    int error = 0;
    QString detail;

    bool isSet() const { return kind != None; }
    // A few words for after "HOST:PORT: ", as "connection refused" or "not a Dovel
    // server (it greeted 'SSH-2.0-OpenSSH_9.2')".
    QString text() const;

    // Whether a line that a logged-in server sends a tree client shows a folder server:
    // it lists its files first ("filelistend" alone for an empty folder).
    static bool isFolderListing(const QString& line);
};

} // namespace Dovel
