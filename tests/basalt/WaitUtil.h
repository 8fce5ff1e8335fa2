// Deadline waits for the Basalt tests: poll a condition instead of sleeping a fixed
// time, and tell when another thread is parked in a blocking call.
#pragma once

#include <QByteArray>
#include <QFile>

#include <sys/syscall.h>
#include <unistd.h>

#include <chrono>
#include <thread>

namespace BasaltTest {

// Polls `done` until it holds or `ms` milliseconds passed; true when it held.
template <typename Predicate> bool waitUntil(Predicate done, int ms = 5000) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(ms);
    while (!done()) {
        if (std::chrono::steady_clock::now() >= deadline)
            return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return true;
}

inline pid_t currentTid() {
    return pid_t(::syscall(SYS_gettid));
}

// True once the thread `tid` of this process sleeps in the kernel (a blocking call).
inline bool waitUntilBlocked(pid_t tid, int ms = 5000) {
    const QString path = QString("/proc/self/task/%1/stat").arg(tid);
    return waitUntil(
        [&] {
            QFile file(path);
            if (!file.open(QIODevice::ReadOnly))
                return false;
            const QByteArray stat = file.readAll();
            // "tid (name) S ...": the state follows the last ')'.
            const int close = stat.lastIndexOf(')');
            return close > 0 && close + 2 < stat.size() && stat[close + 2] == 'S';
        },
        ms);
}

} // namespace BasaltTest
