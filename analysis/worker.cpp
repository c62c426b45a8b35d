#include "analysis/worker.h"

namespace lumetra {

void Worker::Start(std::function<void()> body) {
    Stop();
    body_ = std::move(body);
    event_.reset();  // the wake that ended a previous thread
    running_.store(true, std::memory_order_release);
    thread_ = std::thread([this] { Loop(); });
}

void Worker::RequestStop() {
    running_.store(false, std::memory_order_release);
    event_.set();
}

void Worker::Stop() {
    RequestStop();
    if (thread_.joinable()) {
        thread_.join();
    }
}

void Worker::Loop() {
    for (;;) {
        event_.wait();
        if (!running()) {
            return;
        }
        body_();
    }
}

}  // namespace lumetra
