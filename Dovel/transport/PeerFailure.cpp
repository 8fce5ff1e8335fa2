#include "Dovel/transport/PeerFailure.h"

#include "Basalt/SocketError.h"

namespace Dovel {

QString PeerFailure::text() const {
    switch (kind) {
    case None:
        return QStringLiteral("no failure");
    case Connect:
        return Basalt::socketErrorText(error);
    case NotDovel:
        return detail.isEmpty()
                   ? QStringLiteral("no greeting came: not a Dovel server, or one that "
                                    "delays it after failed logins from this address")
                   : QStringLiteral("not a Dovel server (it greeted '%1')").arg(detail);
    case LoginRefused:
        return QStringLiteral("the login key was refused (see --key-file)");
    case LoginCut:
        return QStringLiteral("the server ended the login");
    case FolderServer:
        return QStringLiteral("a folder server, not a tree server (use `dovel files pull`)");
    case TreeServer:
        return QStringLiteral("a tree server, not a folder server (use `dovel dump` or "
                              "`dovel watch`)");
    }
    return QString();
}

bool PeerFailure::isFolderListing(const QString& line) {
    return line.startsWith(QLatin1String("filelist ")) ||
           line.startsWith(QLatin1String("filelistend "));
}

} // namespace Dovel
