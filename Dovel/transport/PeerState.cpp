#include "Dovel/transport/PeerState.h"

namespace Dovel {

void PeerState::setAddress(const QString& host, int port) {
    Basalt::Guard guard(mutex);
    this->host = host;
    port_ = port;
}

QString PeerState::hostName() const {
    Basalt::Guard guard(mutex);
    return host;
}

int PeerState::port() const {
    Basalt::Guard guard(mutex);
    return port_;
}

void PeerState::setRemoteVersion(int major, int minor, int patch, const QString& suffix) {
    Basalt::Guard guard(mutex);
    remoteMajor = major;
    remoteMinor = minor;
    remotePatch = patch;
    remoteSuffix = suffix;
}

QString PeerState::remoteVersion() const {
    Basalt::Guard guard(mutex);
    QString text = QStringLiteral("%1.%2.%3").arg(remoteMajor).arg(remoteMinor).arg(remotePatch);
    if (!remoteSuffix.isEmpty())
        text += QLatin1Char('-') + remoteSuffix;
    return text;
}

QString PeerState::remoteVersionSuffix() const {
    Basalt::Guard guard(mutex);
    return remoteSuffix;
}

bool PeerState::remoteVersion(int major, int minor, int patch) const {
    Basalt::Guard guard(mutex);
    if (remoteMajor != major)
        return remoteMajor > major;
    if (remoteMinor != minor)
        return remoteMinor > minor;
    return remotePatch >= patch;
}

bool PeerState::isDovel15Supported() const {
    if (remoteVersion(2, 2, 0))
        return true;
    if (!remoteVersion(2, 0, 4))
        return false;
    Basalt::Guard guard(mutex);
    return remoteSuffix.contains(QLatin1String("pellux"));
}

void PeerState::setVersionSuffix(const QString& suffix) {
    Basalt::Guard guard(mutex);
    ownSuffix = suffix;
}

QString PeerState::versionSuffix() const {
    Basalt::Guard guard(mutex);
    return ownSuffix;
}

void PeerState::setLoginKey(const QByteArray& key) {
    Basalt::Guard guard(mutex);
    loginKey_ = key;
}

QByteArray PeerState::loginKey() const {
    Basalt::Guard guard(mutex);
    return loginKey_;
}

void PeerState::setUserName(const QString& name) {
    Basalt::Guard guard(mutex);
    user = name;
}

QString PeerState::userName() const {
    Basalt::Guard guard(mutex);
    return user;
}

void PeerState::noteFailure(const PeerFailure& what) {
    Basalt::Guard guard(mutex);
    failure = what;
}

PeerFailure PeerState::lastFailure() const {
    Basalt::Guard guard(mutex);
    return failure;
}

} // namespace Dovel
