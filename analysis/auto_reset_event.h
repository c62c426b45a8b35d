// An auto-reset event: set() releases exactly one wait(), and a set() with nobody waiting is kept
// until the next wait(). Several set() calls before a wait() count once, so a worker woken for
// two frames in a row runs once, on the newer one.
#pragma once

#include <condition_variable>
#include <mutex>

namespace lumetra {

class AutoResetEvent {
  public:
    void set();
    // Blocks until the event is set, then clears it.
    void wait();
    // Forgets a set() that nobody has waited for.
    void reset();

  private:
    std::mutex mutex_;
    std::condition_variable cv_;
    bool signalled_ = false;
};

}  // namespace lumetra
