// A point in time: a signed 64-bit count of microseconds since the Unix epoch (UTC).
// A value type; not shared between threads without a lock. The wall clock may be
// stepped: measure intervals with Stopwatch.
//
// Text form (stream operators, attribute text): the decimal count of microseconds,
// e.g. "1763855000123456". Reading accepts exactly that.
#pragma once

#include <cstdint>
#include <iosfwd>

namespace Basalt {

class TimeStamp {
public:
    TimeStamp() = default;
    explicit TimeStamp(int64_t microseconds) : us(microseconds) {}
    ~TimeStamp() = default;

    static TimeStamp currentTime();
    // For tests: moves what currentTime() reports by `microseconds`, as a system clock
    // stepped by an administrator would. Thread-safe.
    static void shiftClockForTesting(int64_t microseconds);

    // Seconds elapsed from this stamp to now (negative for a stamp in the future).
    double sinceSecondsD() const;
    int64_t value() const { return us; }
    void setValue(int64_t microseconds) { us = microseconds; }

    bool operator==(const TimeStamp& o) const { return us == o.us; }
    bool operator!=(const TimeStamp& o) const { return us != o.us; }
    bool operator<(const TimeStamp& o) const { return us < o.us; }

private:
    int64_t us = 0;
};

std::ostream& operator<<(std::ostream& out, const TimeStamp& stamp);
std::istream& operator>>(std::istream& in, TimeStamp& stamp);

} // namespace Basalt
