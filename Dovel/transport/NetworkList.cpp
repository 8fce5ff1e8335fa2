#include "Dovel/transport/NetworkList.h"

#include <QStringList>

#include <arpa/inet.h>

namespace Dovel {

namespace {

bool parseAddress(const QString& text, uint32_t& out) {
    in_addr address;
    if (inet_pton(AF_INET, text.toLatin1().constData(), &address) != 1)
        return false;
    out = ntohl(address.s_addr);
    return true;
}

uint32_t maskOf(int prefix) {
    return prefix == 0 ? 0u : ~uint32_t(0) << (32 - prefix);
}

} // namespace

bool NetworkList::parse(const QString& text, NetworkList& out, QString& error) {
    NetworkList parsed;
    for (const QString& raw : text.split(QLatin1Char(','))) {
        const QString part = raw.trimmed();
        const int slash = part.indexOf(QLatin1Char('/'));
        Network network;
        bool ok = parseAddress(slash < 0 ? part : part.left(slash), network.base);
        if (ok && slash >= 0) {
            const QString prefix = part.mid(slash + 1);
            network.prefix = prefix.toInt(&ok);
            ok = ok && !prefix.isEmpty() && prefix.at(0).isDigit() && network.prefix >= 0 &&
                 network.prefix <= 32;
        }
        if (!ok) {
            error = QStringLiteral("'%1' is not an IPv4 network (as 10.0.0.0/8 or 192.168.1.7)")
                        .arg(part);
            return false;
        }
        network.base &= maskOf(network.prefix);
        parsed.networks.append(network);
    }
    out = parsed;
    return true;
}

bool NetworkList::contains(const QString& address) const {
    if (networks.isEmpty())
        return true;
    uint32_t value = 0;
    if (!parseAddress(address, value))
        return false;
    for (const Network& network : networks)
        if ((value & maskOf(network.prefix)) == network.base)
            return true;
    return false;
}

QString NetworkList::toString() const {
    QStringList parts;
    for (const Network& network : networks) {
        in_addr address;
        address.s_addr = htonl(network.base);
        char text[INET_ADDRSTRLEN] = {};
        inet_ntop(AF_INET, &address, text, sizeof text);
        parts.append(QStringLiteral("%1/%2").arg(QLatin1String(text)).arg(network.prefix));
    }
    return parts.join(QLatin1Char(','));
}

bool NetworkList::isLoopback(const QString& host) {
    uint32_t value = 0;
    if (parseAddress(host, value))
        return (value >> 24) == 127;
    return host == QLatin1String("localhost") || host == QLatin1String("::1");
}

} // namespace Dovel
