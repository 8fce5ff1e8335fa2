#include "Dovel/transport/Admission.h"

#include "Dovel/Limits.h"
#include "Dovel/transport/ConnectionThread.h"

#include "Basalt/Trace.h"

#include <algorithm>
#include <cmath>

namespace Dovel {

namespace {

double secondsBetween(std::chrono::steady_clock::time_point from,
                      std::chrono::steady_clock::time_point to) {
    return std::chrono::duration<double>(to - from).count();
}

// The wait before the next login from an address that failed `failures` times.
double delayAfter(int failures) {
    return std::min(Admission::MaxLoginDelaySeconds,
                    Admission::FirstLoginDelaySeconds * std::pow(2.0, std::min(failures - 1, 30)));
}

} // namespace

void Admission::setRules(const AdmissionRules& rules) {
    std::lock_guard<std::mutex> lock(mutex);
    rules_ = rules;
}

AdmissionRules Admission::rules() const {
    std::lock_guard<std::mutex> lock(mutex);
    return rules_;
}

void Admission::logAbout(Peer& peer, const char* format, const QString& address, int port,
                         const QString& detail) {
    const Clock::time_point now = Clock::now();
    if (peer.lastLine != Clock::time_point() && secondsBetween(peer.lastLine, now) < 1.0) {
        ++peer.linesLeftOut;
        return;
    }
    QString text = detail;
    if (peer.linesLeftOut > 0)
        text += QStringLiteral(" (and %1 more like this from %2 in the last second)")
                    .arg(peer.linesLeftOut)
                    .arg(address);
    peer.lastLine = now;
    peer.linesLeftOut = 0;
    Basalt::Trace::warning(format, address.toUtf8().constData(), port, text.toUtf8().constData());
}

Admission::Ticket Admission::admit(const QString& address, int port) {
    std::lock_guard<std::mutex> lock(mutex);
    if (peers.size() >= Limits::MaxTrackedPeerAddresses)
        sweep();
    Peer& peer = peers[address];
    Ticket ticket;
    const char* const refusing = "Admission::admit # Refusing %s:%d: %s";
    if (!rules_.allowed.contains(address)) {
        logAbout(peer, refusing, address, port,
                 QStringLiteral("not in the allowed networks (%1)").arg(rules_.allowed.toString()));
        return ticket;
    }
    if (loggedIn_ >= rules_.maxClients) {
        logAbout(
            peer, refusing, address, port,
            QStringLiteral("%1 clients are connected, the most this server takes").arg(loggedIn_));
        return ticket;
    }
    if (peer.loggedIn >= rules_.maxClientsPerAddress) {
        logAbout(peer, refusing, address, port,
                 QStringLiteral("%1 clients from that address are connected, the most it may "
                                "have")
                     .arg(peer.loggedIn));
        return ticket;
    }
    if (pending >= Limits::MaxPendingLogins)
        ticket.evicted = evictOnePending();

    const Clock::time_point now = Clock::now();
    if (peer.failures > 0 && secondsBetween(peer.lastFailure, now) > ForgetFailuresSeconds)
        peer.failures = 0;
    if (peer.failures > 0) {
        const Clock::time_point greeting = std::max(now, peer.nextLogin);
        peer.nextLogin = greeting + std::chrono::duration_cast<Clock::duration>(
                                        std::chrono::duration<double>(delayAfter(peer.failures)));
        ticket.loginDelaySeconds = secondsBetween(now, greeting);
    }
    ticket.admitted = true;
    return ticket;
}

std::shared_ptr<ConnectionThread> Admission::evictOnePending() {
    // The oldest login of the address with the most under way goes.
    auto chosen = tracked.end();
    int chosenCrowd = 0;
    for (auto it = tracked.begin(); it != tracked.end(); ++it) {
        const Tracked& entry = it->second;
        if (entry.loggedIn)
            continue;
        const int crowd = peers.value(entry.address).pending;
        if (chosen == tracked.end() || crowd > chosenCrowd ||
            (crowd == chosenCrowd && entry.order < chosen->second.order)) {
            chosen = it;
            chosenCrowd = crowd;
        }
    }
    if (chosen == tracked.end())
        return nullptr;
    std::shared_ptr<ConnectionThread> connection = chosen->second.connection.lock();
    const QString crowded = chosen->second.address;
    Peer& peer = peers[crowded];
    logAbout(
        peer, "Admission::admit # Closing a login from %s:%d: %s", crowded,
        connection ? connection->port() : 0,
        QStringLiteral("%1 logins are under way, the most this server waits for").arg(pending));
    closing.insert(chosen->first);
    forget(chosen->first);
    return connection;
}

void Admission::waitForLoginRoom(int ms) {
    std::unique_lock<std::mutex> lock(mutex);
    loginEnded.wait_for(lock, std::chrono::milliseconds(ms), [this] {
        return pending + int(closing.size()) < Limits::MaxPendingLogins;
    });
}

void Admission::track(const std::shared_ptr<ConnectionThread>& connection, const QString& address) {
    std::lock_guard<std::mutex> lock(mutex);
    Tracked& entry = tracked[connection.get()];
    entry.connection = connection;
    entry.address = address;
    entry.order = ++accepted;
    peers[address].pending += 1;
    ++pending;
}

void Admission::loggedIn(const ConnectionThread* connection) {
    std::lock_guard<std::mutex> lock(mutex);
    auto it = tracked.find(connection);
    if (it == tracked.end() || it->second.loggedIn)
        return;
    it->second.loggedIn = true;
    Peer& peer = peers[it->second.address];
    peer.pending -= 1;
    peer.loggedIn += 1;
    peer.failures = 0;
    --pending;
    ++loggedIn_;
}

void Admission::loginFailed(const ConnectionThread* connection) {
    std::lock_guard<std::mutex> lock(mutex);
    auto it = tracked.find(connection);
    if (it == tracked.end())
        return;
    const QString address = it->second.address;
    forget(connection);
    Peer& peer = peers[address];
    const Clock::time_point now = Clock::now();
    if (peer.failures > 0 && secondsBetween(peer.lastFailure, now) > ForgetFailuresSeconds)
        peer.failures = 0;
    peer.failures += 1;
    peer.lastFailure = now;
    peer.nextLogin = std::max(peer.nextLogin,
                              now + std::chrono::duration_cast<Clock::duration>(
                                        std::chrono::duration<double>(delayAfter(peer.failures))));
    logAbout(peer, "Admission::loginFailed # Failed login from %s:%d: %s", address,
             connection->port(),
             QStringLiteral("%1 in a row; the next login from there waits %2 s")
                 .arg(peer.failures)
                 .arg(delayAfter(peer.failures)));
}

void Admission::ended(const ConnectionThread* connection) {
    std::lock_guard<std::mutex> lock(mutex);
    forget(connection);
    if (closing.erase(connection) > 0)
        loginEnded.notify_all();
}

void Admission::forget(const ConnectionThread* connection) {
    auto it = tracked.find(connection);
    if (it == tracked.end())
        return;
    auto peer = peers.find(it->second.address);
    if (peer != peers.end()) {
        if (it->second.loggedIn)
            peer->loggedIn -= 1;
        else
            peer->pending -= 1;
    }
    if (it->second.loggedIn)
        --loggedIn_;
    else
        --pending;
    tracked.erase(it);
}

void Admission::sweep() {
    // Addresses without connections go, failures and all: a bounded table matters more
    // than the back-off of addresses that have stopped trying.
    for (auto it = peers.begin(); it != peers.end();) {
        if (it->pending == 0 && it->loggedIn == 0)
            it = peers.erase(it);
        else
            ++it;
    }
}

int Admission::loggedInCount() const {
    std::lock_guard<std::mutex> lock(mutex);
    return loggedIn_;
}

int Admission::pendingCount() const {
    std::lock_guard<std::mutex> lock(mutex);
    return pending;
}

} // namespace Dovel
