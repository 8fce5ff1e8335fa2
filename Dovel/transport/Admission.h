// Who a server lets in, and how many: the networks it accepts connections from, its
// caps on logged-in clients (in all and per address), the logins under way, and a
// back-off for addresses whose logins fail. The server asks it about every accepted
// socket before anything is sent, and tells it how each connection's login ended.
//
// A login under way holds a thread; at most Limits::MaxPendingLogins of them wait at
// once. A new one beyond that closes the oldest login of the address with the most
// under way: idle connections cannot lock out real clients, which log in within a
// round trip, and a flood from one address presses on its own logins first. Each
// failed login
// (a wrong key or user) makes the next logins from its address wait longer before
// their greeting, one after the other: twice as long per failure, up to
// MaxLoginDelaySeconds; a successful login from the address, or a long quiet spell,
// forgets them. Lines about a peer are logged at most once a second per address, and
// the next one says how many were left out.
//
// Thread-safe: the accept loop and the connections' threads call it; one mutex.
#pragma once

#include "Dovel/transport/NetworkList.h"

#include <QHash>
#include <QString>

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>
#include <unordered_map>
#include <unordered_set>

namespace Dovel {

class ConnectionThread;

struct AdmissionRules {
    // Empty: every address.
    NetworkList allowed;
    // Logged-in connections in all, and from one address.
    int maxClients = 256;
    int maxClientsPerAddress = 64;
};

class Admission {
public:
    static constexpr double FirstLoginDelaySeconds = 0.5;
    static constexpr double MaxLoginDelaySeconds = 16.0;
    // Failures older than this are forgotten.
    static constexpr double ForgetFailuresSeconds = 600.0;

    struct Ticket {
        bool admitted = false;
        // How long the connection waits before its greeting.
        double loginDelaySeconds = 0.0;
        // A login under way that must close to make room (the caller stops it).
        std::shared_ptr<ConnectionThread> evicted;
    };

    void setRules(const AdmissionRules& rules);
    AdmissionRules rules() const;

    // A socket from address:port was accepted. When it is not admitted (logged), the
    // caller closes it without a word.
    Ticket admit(const QString& address, int port);
    // Waits (at most `ms`) until a thread for one more login fits beside those under
    // way and those closed to make room that have not ended yet. Call after admit().
    void waitForLoginRoom(int ms);
    // The admitted connection has been made; its login is under way.
    void track(const std::shared_ptr<ConnectionThread>& connection, const QString& address);
    void loggedIn(const ConnectionThread* connection);
    // The connection's login was refused: the peer's user or key was wrong. Each makes
    // the next logins from its address wait longer.
    void loginFailed(const ConnectionThread* connection);
    // The connection has ended; any number of times.
    void ended(const ConnectionThread* connection);

    int loggedInCount() const;
    int pendingCount() const;

private:
    using Clock = std::chrono::steady_clock;
    struct Peer {
        int pending = 0;
        int loggedIn = 0;
        int failures = 0;
        Clock::time_point lastFailure;
        Clock::time_point nextLogin; // when the next delayed greeting may go out
        Clock::time_point lastLine;
        int linesLeftOut = 0;
    };
    struct Tracked {
        std::weak_ptr<ConnectionThread> connection;
        QString address;
        uint64_t order = 0;
        bool loggedIn = false;
    };

    // Logs one line about `address` unless one was logged within the last second.
    void logAbout(Peer& peer, const char* format, const QString& address, int port,
                  const QString& detail);
    std::shared_ptr<ConnectionThread> evictOnePending();
    void forget(const ConnectionThread* connection);
    void sweep();

    mutable std::mutex mutex;
    std::condition_variable loginEnded;
    // Logins closed to make room whose threads have not ended yet.
    std::unordered_set<const ConnectionThread*> closing;
    AdmissionRules rules_;
    QHash<QString, Peer> peers;
    std::unordered_map<const ConnectionThread*, Tracked> tracked;
    uint64_t accepted = 0;
    int pending = 0;
    int loggedIn_ = 0;
};

} // namespace Dovel
