// Time as the core sees it. Code that paces or times out takes a Clock, so that tests drive a
// manual one and never sleep for real.
#pragma once

#include <chrono>
#include <mutex>

namespace lumetra {

class Clock {
  public:
    using time_point = std::chrono::steady_clock::time_point;
    using duration = std::chrono::steady_clock::duration;

    virtual ~Clock() = default;
    // Thread: any.
    virtual time_point now() const = 0;
    virtual void sleepFor(duration d) = 0;
};

class SteadyClock final : public Clock {
  public:
    time_point now() const override { return std::chrono::steady_clock::now(); }
    void sleepFor(duration d) override;
};

// A clock that moves only when told. sleepFor() moves it by the slept time at once, so a thread
// that paces itself runs through virtual time without waiting.
class ManualClock final : public Clock {
  public:
    time_point now() const override;
    void sleepFor(duration d) override;
    void advance(duration d);

  private:
    mutable std::mutex mutex_;
    time_point now_{std::chrono::hours(1)};
};

// The process-wide steady clock, for code that is not given one.
Clock& SystemClock();

inline double ElapsedMs(Clock::time_point from, Clock::time_point to) {
    return std::chrono::duration<double, std::milli>(to - from).count();
}

}  // namespace lumetra
