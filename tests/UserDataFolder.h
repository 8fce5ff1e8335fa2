// Points the user data folder (XDG_DATA_HOME) at a fresh temporary directory for the
// life of the object, and restores what was there before.
#pragma once

#include <QByteArray>
#include <QString>
#include <QTemporaryDir>
#include <QtGlobal>

class UserDataFolder {
public:
    UserDataFolder()
        : previous(qgetenv("XDG_DATA_HOME")), wasSet(qEnvironmentVariableIsSet("XDG_DATA_HOME")) {
        qputenv("XDG_DATA_HOME", dir.path().toUtf8());
    }
    ~UserDataFolder() {
        if (wasSet)
            qputenv("XDG_DATA_HOME", previous);
        else
            qunsetenv("XDG_DATA_HOME");
    }
    UserDataFolder(const UserDataFolder&) = delete;
    UserDataFolder& operator=(const UserDataFolder&) = delete;

    QString path() const { return dir.path(); }
    bool isValid() const { return dir.isValid(); }

private:
    QTemporaryDir dir;
    QByteArray previous;
    bool wasSet;
};
