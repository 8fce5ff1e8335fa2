// A set of IPv4 networks, as a server's list of addresses it accepts connections
// from: each written in CIDR form ("10.0.0.0/8") or as one address ("192.168.1.7",
// the same as /32). An empty list stands for every address.
//
// A value type: cheap to copy, read from any thread once built.
#pragma once

#include <QString>
#include <QVector>

#include <cstdint>

namespace Dovel {

class NetworkList {
public:
    // Parses "CIDR[,CIDR...]" (blanks around the commas are allowed); false with
    // `error` naming the part that is not a network.
    static bool parse(const QString& text, NetworkList& out, QString& error);

    bool isEmpty() const { return networks.isEmpty(); }
    // Whether the dotted IPv4 `address` lies in one of the networks; an empty list
    // holds every address, a text that is not an address is in no network.
    bool contains(const QString& address) const;
    // The networks in CIDR form, comma-separated.
    QString toString() const;

    // Whether `host` names this machine's loopback: "localhost", 127.0.0.0/8 or "::1".
    static bool isLoopback(const QString& host);

private:
    struct Network {
        uint32_t base = 0;
        int prefix = 32;
    };
    QVector<Network> networks;
};

} // namespace Dovel
