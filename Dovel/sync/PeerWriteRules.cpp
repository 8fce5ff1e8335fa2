#include "Dovel/sync/PeerWriteRules.h"

namespace Dovel {

PeerWriteRules PeerWriteRules::readOnly(const QStringList& writable) {
    PeerWriteRules rules;
    rules.everything = false;
    for (const QString& pattern : writable)
        rules.patterns.emplace_back(pattern.toUtf8());
    return rules;
}

bool PeerWriteRules::mayWrite(const QByteArray& path) const {
    if (everything)
        return true;
    for (const PathPattern& pattern : patterns)
        if (pattern.matches(path))
            return true;
    return false;
}

} // namespace Dovel
