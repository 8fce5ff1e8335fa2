#include "ReplicaProcess.h"

#include <QCoreApplication>
#include <QEventLoop>
#include <QTimer>

#include <cstdio>

namespace QtroBench {

ReplicaProcess::ReplicaProcess() {
    process.setProcessChannelMode(QProcess::ForwardedErrorChannel);
    connect(&process, &QProcess::readyReadStandardOutput, this,
            [this] { printed += process.readAllStandardOutput(); });
    connect(&process, QOverload<int, QProcess::ExitStatus>::of(&QProcess::finished), this, [this] {
        if (!waiting)
            emit ended(QStringLiteral("replica %1").arg(exitText()));
    });
}

ReplicaProcess::~ReplicaProcess() {
    if (process.state() != QProcess::NotRunning) {
        process.kill();
        process.waitForFinished(5000);
    }
}

bool ReplicaProcess::start(const BenchOptions& options, const QString& hostUrl) {
    process.start(QCoreApplication::applicationFilePath(), options.replicaArguments(hostUrl));
    if (!process.waitForStarted(10000)) {
        std::fprintf(stderr, "qtro-bench: the replica did not start (%s)\n",
                     qPrintable(process.errorString()));
        return false;
    }
    return true;
}

bool ReplicaProcess::waitForExit(int ms) {
    waiting = true;
    // The event loop keeps running while we wait: the host still has to flush what the
    // source sent last, the replica's final signal among it.
    if (process.state() != QProcess::NotRunning) {
        QEventLoop loop;
        QTimer::singleShot(ms, &loop, &QEventLoop::quit);
        connect(&process, QOverload<int, QProcess::ExitStatus>::of(&QProcess::finished), &loop,
                &QEventLoop::quit);
        loop.exec();
    }
    if (process.state() != QProcess::NotRunning) {
        std::fprintf(stderr, "qtro-bench: the replica did not end within %d s\n", ms / 1000);
        return false;
    }
    printed += process.readAllStandardOutput();
    if (process.exitStatus() != QProcess::NormalExit || process.exitCode() != 0) {
        std::fprintf(stderr, "qtro-bench: replica %s\n", qPrintable(exitText()));
        return false;
    }
    return true;
}

QString ReplicaProcess::exitText() const {
    if (process.exitStatus() != QProcess::NormalExit)
        return QStringLiteral("crashed");
    return QStringLiteral("ended with status %1").arg(process.exitCode());
}

} // namespace QtroBench
