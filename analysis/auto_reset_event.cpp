#include "analysis/auto_reset_event.h"

namespace lumetra {

void AutoResetEvent::set() {
    {
        std::lock_guard lock(mutex_);
        signalled_ = true;
    }
    cv_.notify_one();
}

void AutoResetEvent::wait() {
    std::unique_lock lock(mutex_);
    cv_.wait(lock, [this] { return signalled_; });
    signalled_ = false;
}

void AutoResetEvent::reset() {
    std::lock_guard lock(mutex_);
    signalled_ = false;
}

}  // namespace lumetra
