// One analysis worker thread: it sleeps on an auto-reset event and runs its body once per wake
// while its running flag is set. The body checks running() on every row so that a close stops it
// mid-frame.
#pragma once

#include <atomic>
#include <functional>
#include <thread>

#include "base/auto_reset_event.h"

namespace lumetra {

class Worker {
  public:
    Worker() = default;
    ~Worker() { Stop(); }
    Worker(const Worker&) = delete;
    Worker& operator=(const Worker&) = delete;

    // Starts the thread; the body runs on every wake until the worker is stopped.
    void Start(std::function<void()> body);
    void Wake() { event_.set(); }
    // Clears the running flag and wakes the thread so that it leaves; does not wait. Safe from
    // any thread, the worker's own included.
    void RequestStop();
    // RequestStop, then waits for the thread.
    void Stop();

    bool running() const { return running_.load(std::memory_order_acquire); }
    const std::atomic<bool>& runningFlag() const { return running_; }

  private:
    void Loop();

    AutoResetEvent event_;
    std::atomic<bool> running_{false};
    std::function<void()> body_;
    std::thread thread_;
};

}  // namespace lumetra
