// Time source for everything that paces or times out. The steady clock follows real time; the
// manual clock stands still until its owner advances it, so tests produce exact sequences.
// Thread: now() from any thread; advance()/set() from any thread, but the caller must wake the
// waiters itself (it holds the waiter's mutex and notifies its condition variable).
#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <mutex>

namespace orvix::sim {

using Nanos = std::chrono::nanoseconds;

class Clock {
  public:
    virtual ~Clock() = default;
    virtual Nanos now() const = 0;
    // Blocks on cv (lock held on entry and on return) until notified or, for a clock that runs by
    // itself, until deadline. Spurious returns are allowed: callers re-check their state.
    virtual void waitUntil(std::unique_lock<std::mutex>& lock, std::condition_variable& cv,
                           Nanos deadline) const = 0;
    virtual bool isManual() const = 0;
};

class SteadyClock final : public Clock {
  public:
    Nanos now() const override;
    void waitUntil(std::unique_lock<std::mutex>& lock, std::condition_variable& cv,
                   Nanos deadline) const override;
    bool isManual() const override { return false; }
};

class ManualClock final : public Clock {
  public:
    explicit ManualClock(Nanos start = Nanos{0}) : now_(start.count()) {}
    Nanos now() const override { return Nanos{now_.load(std::memory_order_acquire)}; }
    // Time only moves through advance()/set(), whose caller notifies: wait for that.
    void waitUntil(std::unique_lock<std::mutex>& lock, std::condition_variable& cv,
                   Nanos deadline) const override;
    bool isManual() const override { return true; }

    void advance(Nanos step) { now_.fetch_add(step.count(), std::memory_order_acq_rel); }
    void set(Nanos t) { now_.store(t.count(), std::memory_order_release); }

  private:
    std::atomic<int64_t> now_;
};

// Time that jumps: a wait for a deadline moves the clock there at once, so the board delivers
// its frames, edges and faults back to back, each exactly at its due time and none late. A wait
// without a deadline waits for a notification, as the steady clock's does.
class VirtualClock final : public Clock {
  public:
    Nanos now() const override { return Nanos{now_.load(std::memory_order_acquire)}; }
    void waitUntil(std::unique_lock<std::mutex>& lock, std::condition_variable& cv,
                   Nanos deadline) const override;
    bool isManual() const override { return false; }

  private:
    mutable std::atomic<int64_t> now_{0};
};

}  // namespace orvix::sim
