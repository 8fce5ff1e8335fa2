// latency: the server sets "latency/ping" to the trip's number, the client copies it
// into "latency/pong", and the server times the trip when the copy comes back; one trip
// at a time. Then, between the same two processes, a raw TCP ping-pong of one byte each
// way (TCP_NODELAY on both ends) gives the floor that the trips are compared with.
//
// The server listens for the ping-pong before the client connects and leaves the port in
// "latency/tcpPort"; it writes "latency/done" = 1 after the last trip, which sends the
// client to the raw socket.
#include "BenchProcess.h"
#include "BenchReport.h"
#include "BenchTree.h"
#include "BenchWorkloads.h"
#include "CommandLine.h"
#include "MirrorClient.h"

#include "Tessel/Node.h"

#include <QElapsedTimer>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <thread>

namespace DovelTool {

namespace {

constexpr int WarmUpTrips = 1000;
constexpr auto Layer = Tessel::Attribute::LayerRemote;
constexpr int SetupMs = 60000;
constexpr int ByteTimeoutMs = 10000;

// A socket descriptor closed when it goes.
class Socket {
public:
    explicit Socket(int fd = -1) : fd(fd) {}
    ~Socket() {
        if (fd >= 0)
            ::close(fd);
    }
    Socket(const Socket&) = delete;
    Socket& operator=(const Socket&) = delete;
    int get() const { return fd; }

private:
    int fd;
};

void noDelay(int fd) {
    const int on = 1;
    setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
}

bool sendByte(int fd) {
    const char byte = 'p';
    return ::send(fd, &byte, 1, MSG_NOSIGNAL) == 1;
}

bool receiveByte(int fd) {
    pollfd wait{fd, POLLIN, 0};
    if (::poll(&wait, 1, ByteTimeoutMs) != 1)
        return false;
    char byte = 0;
    return ::recv(fd, &byte, 1, 0) == 1;
}

// A listening socket on 127.0.0.1 and an ephemeral port.
int listenLoopback(int& port) {
    const int fd = ::socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address;
    if (fd < 0 || ::bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 ||
        ::listen(fd, 1) != 0 ||
        ::getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length) != 0) {
        if (fd >= 0)
            ::close(fd);
        return -1;
    }
    port = ntohs(address.sin_port);
    return fd;
}

// The server's side, on its tree thread once built.
struct Trips {
    Tessel::AttributeT<int32_t>* ping = nullptr;
    Tessel::AttributeT<int32_t>* pong = nullptr;
    Tessel::AttributeT<int32_t>* done = nullptr;
    int total = 0;
    int trip = 0;
    int64_t sentNs = 0;
    std::vector<double> micros;
    std::atomic<bool> ready{false}; // the client answered the initial ping (0)
    std::atomic<bool> finished{false};

    void send() {
        ++trip;
        sentNs = monotonicNs();
        ping->setValue(trip, Layer);
    }
    // The client's copy came back: time it and start the next trip from here, so that
    // it leaves in the same pass.
    void returned() {
        if (trip == 0 && pong->value() == 0)
            ready.store(true);
        if (trip == 0 || pong->value() != trip || finished.load())
            return;
        if (trip > WarmUpTrips)
            micros.push_back(double(monotonicNs() - sentNs) / 1000.0);
        if (trip < total) {
            send();
        } else {
            done->setValue(1, Layer);
            finished.store(true);
        }
    }
};

int runServer(const BenchOptions& options, BenchReport& report) {
    int tcpPort = 0;
    Socket listener(listenLoopback(tcpPort));
    if (listener.get() < 0)
        return CommandLine::fail(CommandLine::Failure,
                                 QStringLiteral("bench latency: cannot listen for the ping-pong"));
    Trips trips; // declared first: the tree's listeners point into it
    trips.total = WarmUpTrips + options.trips;
    BenchServer bench;
    bench.driver().call([&] {
        auto* node = new Tessel::Node(&bench.root(), "latency");
        trips.ping = new Tessel::AttributeT<int32_t>(node, "ping", 0);
        trips.pong = new Tessel::AttributeT<int32_t>(node, "pong", -1);
        trips.done = new Tessel::AttributeT<int32_t>(node, "done", 0);
        new Tessel::AttributeT<int32_t>(node, "tcpPort", tcpPort);
        trips.pong->addListener([&trips] { trips.returned(); }, Tessel::Attribute::RoleChange);
    });
    if (!bench.listen())
        return CommandLine::fail(CommandLine::Failure, QStringLiteral("bench: cannot listen"));
    BenchPeers peers(options, bench.port());
    if (!peers.start(1))
        return CommandLine::Failure;
    const auto ready = [&] { return trips.ready.load(); };
    if (!waitUntil([&] { return ready() || peers.running() == 0; }, SetupMs) || !ready()) {
        std::vector<BenchPeers::Result> ignored;
        peers.finish(ignored, 1000);
        return CommandLine::fail(CommandLine::Failure,
                                 QStringLiteral("bench latency: the client did not get ready"));
    }
    bench.driver().post([&trips] { trips.send(); });
    if (!waitUntil([&] { return trips.finished.load() || peers.running() == 0; }, SetupMs) ||
        !trips.finished.load()) {
        std::vector<BenchPeers::Result> ignored;
        peers.finish(ignored, 1000);
        return CommandLine::fail(CommandLine::Failure,
                                 QStringLiteral("bench latency: a trip was lost"));
    }

    // The raw ping-pong: accept the client, then the same number of trips.
    pollfd wait{listener.get(), POLLIN, 0};
    Socket raw(::poll(&wait, 1, SetupMs) == 1 ? ::accept(listener.get(), nullptr, nullptr) : -1);
    std::vector<double> tcpMicros;
    bool rawOk = raw.get() >= 0;
    if (rawOk) {
        noDelay(raw.get());
        for (int i = 0; i < trips.total && rawOk; ++i) {
            const int64_t start = monotonicNs();
            rawOk = sendByte(raw.get()) && receiveByte(raw.get());
            if (i >= WarmUpTrips)
                tcpMicros.push_back(double(monotonicNs() - start) / 1000.0);
        }
    }
    ::shutdown(raw.get(), SHUT_RDWR);
    std::vector<BenchPeers::Result> results;
    const bool ok = peers.finish(results, SetupMs) && rawOk;

    std::vector<double> micros;
    bench.driver().call([&] { micros = trips.micros; });
    const QString workload = options.workload;
    const double p50 = percentile(micros, 0.50);
    const double tcpP50 = percentile(tcpMicros, 0.50);
    report.add(workload, "rtt_p50_us", p50, "us");
    report.add(workload, "rtt_p99_us", percentile(micros, 0.99), "us");
    report.add(workload, "rtt_max_us", micros.empty() ? 0 : micros.back(), "us");
    report.add(workload, "tcp_rtt_p50_us", tcpP50, "us");
    report.add(workload, "trips", double(micros.size()), "trips");
    report.target(workload, "target_rtt_p50", "round trip p50 <= 2 x raw TCP ping-pong",
                  ok && p50 <= 2 * tcpP50);
    if (!rawOk)
        CommandLine::note(QStringLiteral("bench latency: the raw ping-pong failed"));
    return ok ? CommandLine::Success : CommandLine::Failure;
}

int runPeer(const BenchOptions& options) {
    std::atomic<bool> done{false};
    MirrorClient mirror;
    if (!joinServer(mirror, options, SetupMs))
        return CommandLine::Failure;
    int tcpPort = 0;
    bool found = false;
    mirror.driver().call([&] {
        Tessel::Node& root = mirror.node();
        auto* ping = typedAt<int32_t>(root, "latency/ping");
        auto* pong = typedAt<int32_t>(root, "latency/pong");
        auto* finished = typedAt<int32_t>(root, "latency/done");
        auto* port = typedAt<int32_t>(root, "latency/tcpPort");
        found = ping && pong && finished && port;
        if (!found)
            return;
        tcpPort = port->value();
        ping->addListener([ping, pong] { pong->setValue(ping->value(), Layer); },
                          Tessel::Attribute::RoleChange);
        finished->addListener([&done] { done.store(true); }, Tessel::Attribute::RoleChange);
        pong->setValue(0, Layer); // ready
    });
    if (!found)
        return CommandLine::fail(CommandLine::Failure,
                                 QStringLiteral("bench peer: the server's tree lacks attributes"));
    if (!waitUntil([&] { return done.load() || !mirror.client().isConnected(); }, SetupMs * 5) ||
        !done.load())
        return CommandLine::fail(CommandLine::Failure,
                                 QStringLiteral("bench peer: the server never ended the trips"));
    mirror.stop();

    Socket raw(::socket(AF_INET, SOCK_STREAM, 0));
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = htons(uint16_t(tcpPort));
    if (raw.get() < 0 ||
        ::connect(raw.get(), reinterpret_cast<sockaddr*>(&address), sizeof address) != 0)
        return CommandLine::fail(CommandLine::Failure,
                                 QStringLiteral("bench peer: cannot reach the ping-pong"));
    noDelay(raw.get());
    // Echo until the server closes.
    while (receiveByte(raw.get()))
        if (!sendByte(raw.get()))
            break;
    return CommandLine::Success;
}

} // namespace

int runLatencyBench(const BenchOptions& options, BenchReport& report) {
    return options.isPeer() ? runPeer(options) : runServer(options, report);
}

} // namespace DovelTool
