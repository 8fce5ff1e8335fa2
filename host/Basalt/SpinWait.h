// Lets a thread that hands work to and from other threads bridge short idle gaps without
// parking: waking a parked thread costs 15-25 us on a virtual machine whose idle cores
// halt, more than a loopback round trip. Before parking, the thread polls its wake
// condition for a window that follows its idle gaps: twice the last gap that ended in a
// park, at most MaxSpinNs; none after a longer gap, so a thread that idles for long
// stretches parks at once. A window that grows on short parks lets threads that wait on
// each other (and so see each other's wake-up cost in their gaps) find the fast regime.
//
// Not thread-safe: each waiting thread owns one.
#pragma once

#include <algorithm>
#include <chrono>
#include <cstdint>

namespace Basalt {

class SpinWait {
public:
    static constexpr int64_t MaxSpinNs = 200000;
    static constexpr int64_t FirstSpinNs = 25000;

    // Call as the thread runs out of work. Polls `ready` (giving the core to any other
    // runnable thread between polls) for the current window; true when `ready` held,
    // false when the caller should park. Either way the gap starts here.
    template <class Ready> bool spin(Ready&& ready) {
        idleSince = now();
        if (window == 0)
            return false;
        const int64_t until = idleSince + window;
        do {
            if (ready())
                return true;
            relax();
        } while (now() < until);
        return ready();
    }

    // Call when the thread has work again after spin() returned false and it parked.
    void woke() {
        const int64_t gap = now() - idleSince;
        window = gap > MaxSpinNs ? 0 : std::min(MaxSpinNs, std::max(2 * gap, FirstSpinNs));
    }

private:
    static int64_t now() {
        return std::chrono::duration_cast<std::chrono::nanoseconds>(
                   std::chrono::steady_clock::now().time_since_epoch())
            .count();
    }
    // Yields the core between polls, so that a spinning thread delays no other.
    static void relax();

    int64_t idleSince = 0;
    int64_t window = FirstSpinNs;
};

} // namespace Basalt
