// An auto-reset event, as the workers are woken: set() releases exactly one wait, and a set()
// with nobody waiting is kept until the next wait. Several set() calls before a wait count once,
// so a worker woken for two frames in a row runs once, on the newer one. Thread: any.
#pragma once

#include <chrono>
#include <condition_variable>
#include <mutex>

namespace lumetra {

class AutoResetEvent {
  public:
    void set() {
        {
            std::lock_guard lock(mutex_);
            signalled_ = true;
        }
        cv_.notify_one();
    }

    // Blocks until the event is set, then clears it.
    void wait() {
        std::unique_lock lock(mutex_);
        cv_.wait(lock, [this] { return signalled_; });
        signalled_ = false;
    }

    // True when the event was set, false when the time ran out; either way it ends clear.
    template <typename Rep, typename Period>
    bool waitFor(std::chrono::duration<Rep, Period> timeout) {
        std::unique_lock lock(mutex_);
        const bool set = cv_.wait_for(lock, timeout, [this] { return signalled_; });
        signalled_ = false;
        return set;
    }

    // Forgets a set() that nobody has waited for.
    void reset() {
        std::lock_guard lock(mutex_);
        signalled_ = false;
    }

  private:
    std::mutex mutex_;
    std::condition_variable cv_;
    bool signalled_ = false;
};

}  // namespace lumetra
