// The library's persistent settings: "dovel.ini" (INI format) in the user data folder
// of "Brevant", opened inside the group "pellux" (true) or "config" (false) for the
// object's life, so that every user of the library shares one file and group.
// A QSettings: reentrant, one object per thread.
#pragma once

#include <QSettings>
#include <QString>

namespace Dovel {

class DovelSettings : public QSettings {
public:
    explicit DovelSettings(bool pellux);
    ~DovelSettings() override;

    // The settings file's path.
    static QString filePath();

    // QSettings::sync(), tried once more under a FileWriter guard after an access error
    // (another writer of the file may have held it).
    void sync();
};

} // namespace Dovel
