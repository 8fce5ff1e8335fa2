#include "Dovel/sync/PeerWriteRules.h"

#include "Dovel/sync/RemoteNode.h"

namespace Dovel {

PeerWriteRules PeerWriteRules::readOnly(const QStringList& writable) {
    PeerWriteRules rules;
    rules.everything = false;
    for (const QString& pattern : writable)
        rules.patterns.append(QRegularExpression(RemoteNode::makeRegExp(pattern).pattern()));
    return rules;
}

bool PeerWriteRules::mayWrite(const QByteArray& path) const {
    if (everything)
        return true;
    const QString text = QString::fromUtf8(path);
    for (const QRegularExpression& pattern : patterns)
        if (pattern.match(text).hasMatch())
            return true;
    return false;
}

} // namespace Dovel
