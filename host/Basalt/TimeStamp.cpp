#include "Basalt/TimeStamp.h"

#include <atomic>
#include <chrono>
#include <istream>
#include <ostream>

namespace Basalt {

namespace {

std::atomic<int64_t> testShift{0};

int64_t nowMicroseconds() {
    using namespace std::chrono;
    return duration_cast<microseconds>(system_clock::now().time_since_epoch()).count() +
           testShift.load(std::memory_order_relaxed);
}

} // namespace

void TimeStamp::shiftClockForTesting(int64_t microseconds) {
    testShift.fetch_add(microseconds);
}

TimeStamp TimeStamp::currentTime() {
    return TimeStamp(nowMicroseconds());
}

double TimeStamp::sinceSecondsD() const {
    return double(nowMicroseconds() - us) / 1e6;
}

std::ostream& operator<<(std::ostream& out, const TimeStamp& stamp) {
    return out << stamp.value();
}

std::istream& operator>>(std::istream& in, TimeStamp& stamp) {
    long long value = 0;
    if (in >> value)
        stamp.setValue(int64_t(value));
    return in;
}

} // namespace Basalt
