// What a connection knows of its peer: the address it reaches (or was reached from),
// the version the peer announced, the suffix this side announces, the key of the login
// and the user name the peer logged in with, and why the last attempt to reach it failed.
//
// Threads: thread-safe; one mutex guards it all.
#pragma once

#include "Dovel/transport/PeerFailure.h"

#include "Basalt/Mutex.h"

#include <QByteArray>
#include <QString>

namespace Dovel {

class PeerState {
public:
    explicit PeerState(const QByteArray& loginKey) : loginKey_(loginKey) {}

    void setAddress(const QString& host, int port);
    QString hostName() const;
    int port() const;

    void setRemoteVersion(int major, int minor, int patch, const QString& suffix);
    // "major.minor.patch", and "-suffix" when there is one.
    QString remoteVersion() const;
    QString remoteVersionSuffix() const;
    // True when the peer's version is at least major.minor.patch.
    bool remoteVersion(int major, int minor, int patch) const;
    bool isDovel15Supported() const;

    void setVersionSuffix(const QString& suffix);
    QString versionSuffix() const;
    void setLoginKey(const QByteArray& key);
    QByteArray loginKey() const;
    void setUserName(const QString& name);
    QString userName() const;

    void noteFailure(const PeerFailure& failure);
    PeerFailure lastFailure() const;

private:
    mutable Basalt::Mutex mutex;
    QString host;
    int port_ = 5000;
    int remoteMajor = 0;
    int remoteMinor = 0;
    int remotePatch = 0;
    QString remoteSuffix;
    QString ownSuffix;
    QString user;
    QByteArray loginKey_;
    PeerFailure failure;
};

} // namespace Dovel
