#include "Clock.h"

namespace orvix::sim {

Nanos SteadyClock::now() const {
    return std::chrono::duration_cast<Nanos>(std::chrono::steady_clock::now().time_since_epoch());
}

void SteadyClock::waitUntil(std::unique_lock<std::mutex>& lock, std::condition_variable& cv,
                            Nanos deadline) const {
    if (deadline == Nanos::max()) {
        cv.wait(lock);
        return;
    }
    cv.wait_until(lock,
                  std::chrono::steady_clock::time_point(
                      std::chrono::duration_cast<std::chrono::steady_clock::duration>(deadline)));
}

void ManualClock::waitUntil(std::unique_lock<std::mutex>& lock, std::condition_variable& cv,
                            Nanos deadline) const {
    if (now() >= deadline) {
        return;
    }
    cv.wait(lock);
}

void VirtualClock::waitUntil(std::unique_lock<std::mutex>& lock, std::condition_variable& cv,
                             Nanos deadline) const {
    if (deadline == Nanos::max()) {
        cv.wait(lock);
        return;
    }
    int64_t now = now_.load(std::memory_order_acquire);
    while (now < deadline.count() &&
           !now_.compare_exchange_weak(now, deadline.count(), std::memory_order_acq_rel)) {
    }
}

}  // namespace orvix::sim
