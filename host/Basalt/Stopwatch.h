// Time elapsed since a start, on the monotonic clock: what intervals (time-outs, pings,
// retry pauses) are measured with, since the wall clock (TimeStamp) may be stepped
// back or forth by an administrator or a time daemon while they run.
//
// A value type; a shared one is read and restarted under its owner's lock, or kept in
// an std::atomic<int64_t> through nanoseconds().
#pragma once

#include <chrono>
#include <cstdint>

namespace Basalt {

class Stopwatch {
public:
    // Started now.
    Stopwatch() : start(now()) {}
    explicit Stopwatch(int64_t startNanoseconds) : start(startNanoseconds) {}

    static int64_t now() {
        return std::chrono::duration_cast<std::chrono::nanoseconds>(
                   std::chrono::steady_clock::now().time_since_epoch())
            .count();
    }

    void restart() { start = now(); }
    double elapsedSeconds() const { return double(now() - start) / 1e9; }
    int64_t nanoseconds() const { return start; }

private:
    int64_t start;
};

} // namespace Basalt
