// A message log that keeps every line; written from any thread.
#pragma once

#include <mutex>
#include <string>
#include <string_view>
#include <vector>

#include "base/messages.h"

namespace lumetra::test {

class RecordingLog final : public MessageLog {
  public:
    void log(std::string_view text) override {
        std::lock_guard lock(mutex_);
        lines_.emplace_back(text);
    }
    std::vector<std::string> lines() const {
        std::lock_guard lock(mutex_);
        return lines_;
    }
    void clear() {
        std::lock_guard lock(mutex_);
        lines_.clear();
    }

  private:
    mutable std::mutex mutex_;
    std::vector<std::string> lines_;
};

}  // namespace lumetra::test
