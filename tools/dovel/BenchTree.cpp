#include "BenchTree.h"

#include "CommandLine.h"

#include <QElapsedTimer>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <ctime>
#include <thread>

namespace DovelTool {

BenchServer::BenchServer()
    : tree(nullptr, QByteArrayLiteral("bench")),
      session(std::make_unique<Dovel::SessionServer>(tree, &treeThread)) {}

BenchServer::~BenchServer() {
    session.reset();
}

bool BenchServer::listen() {
    return session->listen(0, QStringLiteral("127.0.0.1"));
}

int BenchServer::port() const {
    return session->port();
}

bool joinServer(MirrorClient& mirror, const BenchOptions& options, int ms) {
    mirror.connectToHost(options.peerHost, options.peerPort);
    if (mirror.waitInitialState(ms))
        return true;
    CommandLine::note(QStringLiteral("bench peer: no session (%1)").arg(mirror.failureReason()));
    return false;
}

bool waitUntil(const std::function<bool()>& condition, int ms) {
    QElapsedTimer timer;
    timer.start();
    while (!condition()) {
        if (timer.elapsed() >= ms)
            return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return true;
}

int64_t monotonicNs() {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return int64_t(now.tv_sec) * 1000000000 + now.tv_nsec;
}

double percentile(std::vector<double>& samples, double fraction) {
    if (samples.empty())
        return 0;
    std::sort(samples.begin(), samples.end());
    const auto index = size_t(std::lround(fraction * double(samples.size() - 1)));
    return samples[std::min(index, samples.size() - 1)];
}

} // namespace DovelTool
