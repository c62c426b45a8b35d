// A wake-up signal that releases one wait and then resets itself, as the workers' events did.
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

    // True when the event was set; false when the time ran out. Either way it ends reset.
    template <typename Rep, typename Period>
    bool waitFor(std::chrono::duration<Rep, Period> timeout) {
        std::unique_lock lock(mutex_);
        const bool set = cv_.wait_for(lock, timeout, [this] { return signalled_; });
        signalled_ = false;
        return set;
    }

  private:
    std::mutex mutex_;
    std::condition_variable cv_;
    bool signalled_ = false;
};

}  // namespace lumetra
