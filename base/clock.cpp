#include "base/clock.h"

#include <thread>

namespace lumetra {

void SteadyClock::sleepFor(duration d) {
    std::this_thread::sleep_for(d);
}

Clock::time_point ManualClock::now() const {
    std::lock_guard lock(mutex_);
    return now_;
}

void ManualClock::sleepFor(duration d) {
    advance(d);
    // Let other threads run, as a real sleep would.
    std::this_thread::yield();
}

void ManualClock::advance(duration d) {
    std::lock_guard lock(mutex_);
    now_ += d;
}

Clock& SystemClock() {
    static SteadyClock clock;
    return clock;
}

}  // namespace lumetra
