// Shared by the analysis tests: a sink that a test can wait on, an allocator that can refuse and
// counts its blocks, frames built from matrices, and bad-pixel settings.
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstdlib>
#include <functional>
#include <mutex>
#include <set>
#include <tuple>
#include <vector>

#include <opencv2/core.hpp>

#include "analysis/bad_pixels.h"
#include "analysis/frame_copy.h"
#include "analysis/histogram.h"
#include "base/messages.h"
#include "imaging/frame_image.h"

namespace lumetra::test {

// Records posted messages; WaitFor() blocks until a condition on them holds. The time-out only
// turns a hang into a failure: no test relies on it passing.
class WaitingSink final : public MessageSink {
  public:
    struct Message {
        uint32_t message;
        intptr_t w, l;
    };
    void post(uint32_t m, intptr_t w, intptr_t l) override {
        std::lock_guard lock(mutex_);
        messages_.push_back({m, w, l});
        cv_.notify_all();
    }
    bool WaitFor(const std::function<bool(const std::vector<Message>&)>& done) {
        std::unique_lock lock(mutex_);
        return cv_.wait_for(lock, std::chrono::seconds(60), [&] { return done(messages_); });
    }
    // Waits for a message with that number, lParam and wParam (either any when below 0).
    bool WaitForMessage(uint32_t m, intptr_t l = -1, intptr_t w = -1) {
        return WaitFor([&](const std::vector<Message>& all) { return Count(all, m, l, w) > 0; });
    }
    std::size_t count(uint32_t m, intptr_t l = -1, intptr_t w = -1) const {
        return Count(messages(), m, l, w);
    }
    std::vector<Message> messages() const {
        std::lock_guard lock(mutex_);
        return messages_;
    }
    static std::size_t Count(const std::vector<Message>& all, uint32_t m, intptr_t l, intptr_t w) {
        return std::count_if(all.begin(), all.end(), [&](const Message& x) {
            return x.message == m && (l < 0 || x.l == l) && (w < 0 || x.w == w);
        });
    }

  private:
    mutable std::mutex mutex_;
    std::condition_variable cv_;
    std::vector<Message> messages_;
};

// malloc/free that can be told to refuse, counting requests and blocks still out.
class CountingAllocator final : public BlockAllocator {
  public:
    ~CountingAllocator() override { EXPECT_TRUE(live_.empty()) << "blocks never freed"; }
    void* allocate(std::size_t size) override {
        std::lock_guard lock(mutex_);
        ++requests_;
        void* p = refuse_ ? nullptr : std::malloc(size);
        if (p != nullptr) {
            live_.insert(p);
        }
        return p;
    }
    void free(void* block) override {
        std::lock_guard lock(mutex_);
        EXPECT_EQ(live_.erase(block), 1u) << "free of a block this allocator did not make";
        std::free(block);
    }
    void refuse(bool r) {
        std::lock_guard lock(mutex_);
        refuse_ = r;
    }
    int requests() const {
        std::lock_guard lock(mutex_);
        return requests_;
    }
    std::size_t live() const {
        std::lock_guard lock(mutex_);
        return live_.size();
    }

  private:
    mutable std::mutex mutex_;
    bool refuse_ = false;
    int requests_ = 0;
    std::set<void*> live_;
};

// Makes the Frame image hold m (CV_8U or CV_16U, 1, 3 or 4 channels) with bitsPerPixel.
inline void LoadFrame(FrameImage& frame, const cv::Mat& m, int bitsPerPixel) {
    FrameFormat f;
    f.width = m.cols;
    f.height = m.rows;
    f.channels = m.channels();
    f.bitsPerPixel = bitsPerPixel;
    frame.setFormat(f);
    BayerSettings bayer;
    NullMessageLog log;
    std::lock_guard lock(frame.frameLock());
    ASSERT_TRUE(frame.Allocate(bitsPerPixel, bayer, log));
    m.copyTo(frame.raw().mat());
}

inline cv::Mat RandomMat(int rows, int cols, int type, unsigned seed, int high = -1) {
    cv::Mat m(rows, cols, type);
    cv::RNG rng(seed);
    const int depthHigh = CV_MAT_DEPTH(type) == CV_8U ? 256 : 65536;
    rng.fill(m, cv::RNG::UNIFORM, 0, high < 0 ? depthHigh : high);
    return m;
}

// Count, minimum and maximum of a row or column, to compare in one go.
inline std::tuple<uint64_t, uint32_t, uint32_t> CountMinMax(const LineStatistics& s) {
    return {s.count, s.minimum, s.maximum};
}

inline BadPixelSettings Settings(int mode, int64_t low, int64_t high, int h = 0, int v = 0,
                                 int frames = 1) {
    BadPixelSettings s;
    s.mode = mode;
    s.low = low;
    s.high = high;
    s.horizontalCount = h;
    s.verticalCount = v;
    s.frames = frames;
    return s;
}

}  // namespace lumetra::test
