#include "WorkloadLoop.h"

#include <QTimer>

#include <cstdio>

namespace QtroBench {

WorkloadLoop::WorkloadLoop(const QString& what) : what(what) {}

bool WorkloadLoop::run(double seconds) {
    if (ended)
        return succeeded; // decided before the loop ran
    QTimer deadline;
    deadline.setSingleShot(true);
    deadline.setTimerType(Qt::CoarseTimer);
    connect(&deadline, &QTimer::timeout, this,
            [this, seconds] { fail(QStringLiteral("timed out after %1 s").arg(seconds)); });
    deadline.start(int(seconds * 1000));
    return loop.exec() == 0;
}

void WorkloadLoop::finish() {
    if (ended)
        return;
    ended = true;
    succeeded = true;
    loop.exit(0);
}

void WorkloadLoop::fail(const QString& reason) {
    if (ended)
        return;
    ended = true;
    std::fprintf(stderr, "qtro-bench: %s %s\n", qPrintable(what), qPrintable(reason));
    loop.exit(1);
}

} // namespace QtroBench
