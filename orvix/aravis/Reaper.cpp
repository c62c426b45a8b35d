#include "Reaper.h"

namespace orvix::aravis {

Reaper::~Reaper() {
    {
        std::lock_guard lock(mutex_);
        quit_ = true;
    }
    cv_.notify_all();
    if (thread_.joinable()) {
        thread_.join();
    }
}

void Reaper::post(std::function<void()> job) {
    {
        std::lock_guard lock(mutex_);
        jobs_.push_back(std::move(job));
        if (!thread_.joinable()) {
            thread_ = std::thread([this] { run(); });
        }
    }
    cv_.notify_all();
}

void Reaper::drain() {
    std::unique_lock lock(mutex_);
    cv_.wait(lock, [&] { return jobs_.empty() && !busy_; });
}

void Reaper::run() {
    std::unique_lock lock(mutex_);
    while (true) {
        cv_.wait(lock, [&] { return quit_ || !jobs_.empty(); });
        if (jobs_.empty()) {
            return;  // quit with nothing left
        }
        std::function<void()> job = std::move(jobs_.front());
        jobs_.pop_front();
        busy_ = true;
        lock.unlock();
        job();
        job = nullptr;  // what it held goes before it counts as done
        lock.lock();
        busy_ = false;
        cv_.notify_all();
    }
}

}  // namespace orvix::aravis
