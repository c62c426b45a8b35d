// A background thread for the slow goodbyes of a camera that stopped answering: stopping its
// acquisition, freeing its stream and closing its connection each wait for network time-outs
// (seconds), which no caller of the ABI should sit through. Jobs run one at a time, in order.
// Thread: post() and drain() from any thread but the reaper's own.
#pragma once

#include <condition_variable>
#include <deque>
#include <functional>
#include <mutex>
#include <thread>

namespace orvix::aravis {

class Reaper {
  public:
    Reaper() = default;
    ~Reaper();  // runs what is left, then joins
    Reaper(const Reaper&) = delete;
    Reaper& operator=(const Reaper&) = delete;

    void post(std::function<void()> job);
    // Returns once every job posted so far has run.
    void drain();

  private:
    void run();

    std::mutex mutex_;
    std::condition_variable cv_;
    std::deque<std::function<void()>> jobs_;
    bool busy_ = false;
    bool quit_ = false;
    std::thread thread_;
};

}  // namespace orvix::aravis
