#include "BenchProcess.h"

#include "BenchReport.h"
#include "CommandLine.h"

#include <QCoreApplication>
#include <QElapsedTimer>

#include <malloc.h>
#include <sys/resource.h>

#include <cstdio>

namespace DovelTool {

BenchPeers::BenchPeers(const BenchOptions& options, int port) : options(options), port(port) {}

BenchPeers::~BenchPeers() {
    for (auto& process : processes)
        if (process->state() != QProcess::NotRunning) {
            process->kill();
            process->waitForFinished(5000);
        }
}

bool BenchPeers::start(int count) {
    for (int i = 0; i < count; ++i) {
        auto process = std::make_unique<QProcess>();
        // DOVEL_BENCH_WRAP_PEER="heaptrack" (or "perf record -g", "valgrind ...") runs
        // each peer under that command, to see where a client's time and memory go.
        QStringList wrap = QProcess::splitCommand(qEnvironmentVariable("DOVEL_BENCH_WRAP_PEER"));
        if (wrap.isEmpty()) {
            process->setProgram(QCoreApplication::applicationFilePath());
            process->setArguments(options.peerArguments(port, int(processes.size())));
        } else {
            process->setProgram(wrap.takeFirst());
            process->setArguments(wrap << QCoreApplication::applicationFilePath()
                                       << options.peerArguments(port, int(processes.size())));
        }
        process->start();
        if (!process->waitForStarted(10000)) {
            CommandLine::note(QStringLiteral("bench: a peer process did not start (%1)")
                                  .arg(process->errorString()));
            return false;
        }
        processes.push_back(std::move(process));
    }
    return true;
}

void BenchPeers::release() {
    for (auto& process : processes) {
        process->write("go\n");
        process->waitForBytesWritten(10000);
    }
}

int BenchPeers::running() const {
    int count = 0;
    for (const auto& process : processes)
        count += process->state() != QProcess::NotRunning;
    return count;
}

bool BenchPeers::finish(std::vector<Result>& results, int ms) {
    QElapsedTimer timer;
    timer.start();
    std::vector<QByteArray> out(processes.size());
    std::vector<QByteArray> err(processes.size());
    // Every pipe is drained while any peer runs, so that no peer blocks on a full one.
    const auto drain = [&] {
        for (size_t i = 0; i < processes.size(); ++i) {
            out[i] += processes[i]->readAllStandardOutput();
            err[i] += processes[i]->readAllStandardError();
        }
    };
    while (running() > 0 && timer.elapsed() < ms) {
        // A process without an event loop reads a child's pipes only while it waits
        // on that child.
        for (auto& process : processes)
            if (process->state() != QProcess::NotRunning)
                process->waitForFinished(10);
        drain();
    }
    drain();
    bool ok = true;
    for (size_t i = 0; i < processes.size(); ++i) {
        QProcess& process = *processes[i];
        if (process.state() != QProcess::NotRunning) {
            process.kill();
            process.waitForFinished(5000);
            CommandLine::note(QStringLiteral("bench: a peer ran over its time and was killed"));
            ok = false;
        } else if (process.exitStatus() != QProcess::NormalExit || process.exitCode() != 0) {
            CommandLine::note(QStringLiteral("bench: a peer failed (exit %1)")
                                  .arg(process.exitStatus() == QProcess::NormalExit
                                           ? QString::number(process.exitCode())
                                           : QStringLiteral("crash")));
            ok = false;
        }
        if (!err[i].isEmpty())
            std::fputs(err[i].constData(), stderr);
        Result result;
        result.figures.readJsonLines(out[i]);
        result.output = out[i];
        results.push_back(std::move(result));
    }
    processes.clear();
    return ok;
}

void waitForRelease() {
    char line[16];
    if (!std::fgets(line, sizeof line, stdin))
        return; // no server behind the pipe any more: the connection attempt will say so
}

double cpuSeconds() {
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    return double(usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) +
           double(usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) / 1e6;
}

double peakRssMb() {
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    return double(usage.ru_maxrss) / 1024.0; // ru_maxrss is in KiB on Linux
}

double heapInUseBytes() {
    const struct mallinfo2 info = mallinfo2();
    return double(info.uordblks) + double(info.hblkhd);
}

} // namespace DovelTool
