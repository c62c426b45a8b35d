// Shared by the imaging tests: an allocator that records, refuses and guards its blocks, a log that
// keeps its lines, and a few matrix helpers.
#pragma once

#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <limits>
#include <map>
#include <string>
#include <string_view>
#include <vector>

#include <opencv2/core.hpp>
#include <opencv2/imgproc.hpp>

#include "base/messages.h"
#include "imaging/image_buffer.h"
#include "support/recording_log.h"

namespace lumetra::test {

// Records every request and free in order, refuses blocks above a size or after a number of
// requests, and checks guard bytes around each block when it is freed, so that a write before or
// past a block fails a test even without ASan.
class TestAllocator final : public BlockAllocator {
  public:
    static constexpr std::size_t kGuard = 32;
    static constexpr unsigned char kGuardByte = 0xA5;

    ~TestAllocator() override { EXPECT_TRUE(live_.empty()) << "blocks never freed"; }

    void* allocate(std::size_t size) override {
        ++requests_;
        if (size > failAbove || (failAfter >= 0 && requests_ > failAfter)) {
            events.push_back("refuse " + std::to_string(size));
            return nullptr;
        }
        auto* raw = static_cast<unsigned char*>(std::malloc(size + 2 * kGuard));
        std::memset(raw, kGuardByte, kGuard);
        std::memset(raw + kGuard + size, kGuardByte, kGuard);
        live_[raw + kGuard] = size;
        events.push_back("allocate " + std::to_string(size));
        return raw + kGuard;
    }

    void free(void* block) override {
        auto it = live_.find(block);
        ASSERT_NE(it, live_.end()) << "free of a block this allocator did not make";
        auto* raw = static_cast<unsigned char*>(block) - kGuard;
        for (std::size_t i = 0; i < kGuard; ++i) {
            EXPECT_EQ(raw[i], kGuardByte) << "written before a block";
            EXPECT_EQ(raw[kGuard + it->second + i], kGuardByte) << "written past a block";
        }
        events.push_back("free " + std::to_string(it->second));
        live_.erase(it);
        std::free(raw);
    }

    std::size_t liveBlocks() const { return live_.size(); }

    std::size_t failAbove = std::numeric_limits<std::size_t>::max();
    int failAfter = -1;  // refuse every request after this many; negative for never
    std::vector<std::string> events;

  private:
    int requests_ = 0;
    std::map<void*, std::size_t> live_;
};

inline bool SameMat(const cv::Mat& a, const cv::Mat& b) {
    return a.size() == b.size() && a.type() == b.type() && cv::norm(a, b, cv::NORM_INF) == 0;
}

inline void Randomise(ImageBuffer& buffer, int seed) {
    cv::Mat m = buffer.mat();
    cv::RNG(seed).fill(m, cv::RNG::UNIFORM, 0, buffer.depth() == 8 ? 256 : 65536);
}

// A new buffer, random unless seed is negative.
inline ImageBuffer Image(int depth, int channels, int width, int height, int seed = -1,
                         BlockAllocator& allocator = DefaultBlockAllocator()) {
    ImageBuffer buffer(allocator);
    buffer.Create(depth, channels, width, height);
    if (seed >= 0) {
        Randomise(buffer, seed);
    }
    return buffer;
}

// What a fresh buffer of this shape holds: every byte 3.
inline cv::Mat Filled(const ImageBuffer& like) {
    return cv::Mat(like.height(), like.width(), like.mat().type(),
                   cv::Scalar::all(like.depth() == 8 ? 3 : 0x0303));
}

inline cv::Mat CvtColor(const cv::Mat& src, int code) {
    cv::Mat out;
    cv::cvtColor(src, out, code);
    return out;
}

// A fresh buffer like this one with `inside` written into `region`.
inline cv::Mat FilledWith(const ImageBuffer& like, const cv::Rect& region, const cv::Mat& inside) {
    cv::Mat out = Filled(like);
    inside.copyTo(out(region));
    return out;
}

}  // namespace lumetra::test
