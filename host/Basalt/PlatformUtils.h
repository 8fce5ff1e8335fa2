// Platform calls: the per-user data folder and the firewall. Thread-safe.
#pragma once

#include <QString>

namespace Basalt {

class PlatformUtils {
public:
    // The per-user data folder of a module: $XDG_DATA_HOME/<module>, or
    // ~/.local/share/<module> when XDG_DATA_HOME is unset. With create true the
    // folder is made when missing.
    static QString getModuleUserDataPath(const char* module, bool create);
    // Asks the platform to let incoming TCP reach `port`. Linux has no per-program
    // rule to add: it logs at debug level and returns true.
    static bool openFirewallPortTCP(int port, const QString& name);
};

} // namespace Basalt
