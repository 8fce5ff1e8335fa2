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
        process->setProgram(QCoreApplication::applicationFilePath());
        process->setArguments(options.peerArguments(port, int(processes.size())));
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

bool BenchPeers::finish(BenchReport& report, int ms) {
    QElapsedTimer timer;
    timer.start();
    bool ok = true;
    for (auto& process : processes) {
        // Peers print little, but read as we wait so that no pipe ever fills.
        QByteArray out;
        QByteArray err;
        while (process->state() != QProcess::NotRunning && timer.elapsed() < ms) {
            process->waitForFinished(100);
            out += process->readAllStandardOutput();
            err += process->readAllStandardError();
        }
        out += process->readAllStandardOutput();
        err += process->readAllStandardError();
        if (process->state() != QProcess::NotRunning) {
            process->kill();
            process->waitForFinished(5000);
            CommandLine::note(QStringLiteral("bench: a peer ran over its time and was killed"));
            ok = false;
        } else if (process->exitStatus() != QProcess::NormalExit || process->exitCode() != 0) {
            CommandLine::note(QStringLiteral("bench: a peer failed (exit %1)")
                                  .arg(process->exitStatus() == QProcess::NormalExit
                                           ? QString::number(process->exitCode())
                                           : QStringLiteral("crash")));
            ok = false;
        }
        if (!err.isEmpty())
            std::fputs(err.constData(), stderr);
        report.readJsonLines(out);
    }
    processes.clear();
    return ok;
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
