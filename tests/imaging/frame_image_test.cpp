#include "imaging/frame_image.h"

#include <gtest/gtest.h>

#include <set>
#include <string>
#include <thread>
#include <vector>

#include <opencv2/imgproc.hpp>

#include "test_support.h"

namespace lumetra {
namespace {

using test::Filled, test::RecordingLog, test::SameMat, test::TestAllocator;

void ExpectShape(const ImageBuffer& b, int depth, int channels, int width, int height) {
    EXPECT_TRUE(b.hasImage());
    EXPECT_EQ(cv::Vec4i(b.depth(), b.channels(), b.width(), b.height()),
              cv::Vec4i(depth, channels, width, height));
}

TEST(FrameTables, BayerCodesAndHighBitCounts) {
    const int codes[] = {-1, 48, 46, 49, 47, -1};  // none, BGGR, RGGB, GBRG, GRBG, unknown
    for (int pattern = 0; pattern <= 5; ++pattern) {
        EXPECT_EQ(BayerConversionCode(pattern), codes[pattern]) << pattern;
    }
    const std::set<int> high{10, 12, 14, 16, 30, 36, 40, 42, 48, 56, 64};
    for (int bits = 0; bits <= 80; ++bits) {
        EXPECT_EQ(IsHighBitPixelCount(bits), high.count(bits) == 1) << bits;
    }
}

TEST(FrameTables, BayerOffForFramesOverTheLimitWithOneMessage) {
    RecordingLog log;
    BayerSettings bayer{true, 3};
    EXPECT_TRUE(KeepBayerFor(0x7FFFFFFF, bayer, log));
    EXPECT_TRUE(bayer.enabled && bayer.pattern == 3 && log.lines().empty());
    EXPECT_FALSE(KeepBayerFor(0x80000000, bayer, log));
    EXPECT_FALSE(bayer.enabled || bayer.pattern != 0);
    // Nothing left to switch off, nothing more said; on without a pattern is off.
    EXPECT_FALSE(KeepBayerFor(0x80000000, bayer, log));
    BayerSettings noPattern{true, 0};
    EXPECT_FALSE(KeepBayerFor(100, noPattern, log));
    EXPECT_EQ(log.lines(),
              std::vector<std::string>{"The image data is too large, disable bayer.\n"});
}

TEST(FrameAllocate, LayoutsAndAuxImages) {
    struct Case {
        FrameFormat format;
        int pixelBitCount, depth, channels, auxWidth, auxHeight;
        uint64_t frameBytes;
    };
    const Case cases[] = {
        {{641, 479, 12, 1, false}, 12, 16, 1, 320, 239, 641 * 479},  // 12 / 8 = 1 byte
        {{40, 30, 64, 3, true}, 64, 16, 4, 40, 30, 8 * 1200},
        {{40, 30, 64, 4, true}, 64, 16, 4, 40, 30, 8 * 1200},
        {{40, 30, 24, 3, false}, 24, 8, 3, 40, 30, 3 * 1200},
        {{40, 30, 30, 3, false}, 30, 16, 3, 40, 30, 3 * 1200},
        {{40, 30, 32, 3, true}, 32, 8, 4, 40, 30, 4 * 1200},
        {{40, 30, 8, 1, false}, 10, 8, 1, 20, 15, 1200},          // high bit from the board's count
        {{41, 31, 16, 1, true}, 16, 16, 1, 20, 15, 2 * 41 * 31},  // RGBC needs three channels
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(testing::Message() << c.format.bitsPerPixel << "/" << c.format.channels);
        EXPECT_EQ(LayoutOf(c.format).frameBytes, c.frameBytes);
        FrameImage frame;
        frame.setFormat(c.format);
        frame.setEightBitShift(true, 4);
        frame.setHighBit(!IsHighBitPixelCount(c.pixelBitCount));
        BayerSettings bayer;
        RecordingLog log;
        ASSERT_TRUE(frame.Allocate(c.pixelBitCount, bayer, log));
        ExpectShape(frame.raw(), c.depth, c.channels, c.format.width, c.format.height);
        ExpectShape(frame.aux(), c.depth, c.channels, c.auxWidth, c.auxHeight);
        EXPECT_FALSE(frame.colour().hasImage());
        EXPECT_FALSE(frame.eightBitShift() || frame.shift() != 0);
        EXPECT_EQ(frame.highBit(), IsHighBitPixelCount(c.pixelBitCount));
    }
}

TEST(FrameAllocate, BayerColourImageInOrderRawColourAux) {
    for (const int bits : {8, 12}) {
        TestAllocator allocator;
        FrameImage frame(allocator);
        frame.setFormat({33, 17, bits, 1, false});
        BayerSettings bayer{true, 1};
        RecordingLog log;
        allocator.events.clear();
        ASSERT_TRUE(frame.Allocate(bits, bayer, log));
        const int bytes = bits == 8 ? 1 : 2;
        ExpectShape(frame.colour(), 8 * bytes, 3, 33, 17);
        EXPECT_TRUE(bayer.enabled && log.lines().empty());
        EXPECT_EQ(allocator.events,
                  (std::vector<std::string>{"allocate " + std::to_string(bytes * 33 * 17),
                                            "free " + std::to_string(1024 * 643 * 3),
                                            "allocate " + std::to_string(bytes * 3 * 33 * 17),
                                            "allocate " + std::to_string(bytes * 16 * 8)}));
    }
}

TEST(FrameAllocate, FailuresStopWhereTheyHappen) {
    // Requests: construction (1024 x 643, 3 channels of 8 bits), raw, colour, aux. Refusing the
    // n-th leaves the later ones unmade and the flags as they were.
    for (const int failAfter : {1, 2, 3}) {
        SCOPED_TRACE(failAfter);
        TestAllocator allocator;
        FrameImage frame(allocator);
        allocator.failAfter = failAfter;
        frame.setFormat({64, 64, 16, 1, false});
        frame.setEightBitShift(true, 2);
        BayerSettings bayer{true, 2};
        RecordingLog log;
        EXPECT_FALSE(frame.Allocate(16, bayer, log));
        const bool old = failAfter == 1;
        ExpectShape(frame.raw(), old ? 8 : 16, old ? 3 : 1, old ? 1024 : 64, old ? 643 : 64);
        EXPECT_EQ(frame.colour().hasImage(), failAfter == 3);
        EXPECT_FALSE(frame.aux().hasImage());
        EXPECT_TRUE(frame.eightBitShift() && frame.shift() == 2 && bayer.enabled);
    }
}

class PartialDemosaic : public testing::TestWithParam<int> {
  protected:
    static constexpr int kWidth = 32;
    static constexpr int kHeight = 24;

    void SetUp() override {
        frame_.setFormat({kWidth, kHeight, GetParam(), 1, false});
        RecordingLog log;
        ASSERT_TRUE(frame_.Allocate(GetParam(), bayer_, log));
        cv::Mat raw = frame_.raw().mat();
        cv::RNG(5).fill(raw, cv::RNG::UNIFORM, 100, 250);  // far from the fill value
        cv::cvtColor(raw, whole_, BayerConversionCode(bayer_.pattern));
    }

    // Exactly columns [left, right) and rows [top, bottom) were converted.
    void ExpectConverted(int left, int top, int right, int bottom) {
        cv::Mat colour;
        frame_.colour().mat().convertTo(colour, CV_32SC3);
        const int f = GetParam() == 8 ? 3 : 0x0303;
        for (int y = 0; y < kHeight; ++y) {
            for (int x = 0; x < kWidth; ++x) {
                const bool inside = x >= left && x < right && y >= top && y < bottom;
                ASSERT_EQ(inside, colour.at<cv::Vec3i>(y, x) != cv::Vec3i(f, f, f))
                    << x << "," << y;
            }
        }
        // Inside its own border the region matches the whole frame: an odd start column or row
        // would have swapped its colours.
        const cv::Rect interior(left + 1, top + 1, right - left - 2, bottom - top - 2);
        EXPECT_TRUE(SameMat(frame_.colour().mat()(interior), whole_(interior)));
        EXPECT_EQ(frame_.raw().region(), cv::Rect(0, 0, kWidth, kHeight));
        EXPECT_EQ(frame_.colour().region(), cv::Rect(0, 0, kWidth, kHeight));
        cv::Mat c = frame_.colour().mat();
        c.setTo(cv::Scalar::all(f));
    }

    BayerSettings bayer_{true, 2};
    FrameImage frame_;
    cv::Mat whole_;
};

INSTANTIATE_TEST_SUITE_P(Depths, PartialDemosaic, testing::Values(8, 16));

TEST_P(PartialDemosaic, RegionWidenedAlignedAndClipped) {
    struct Case {
        int x1, y1, x2, y2, left, top, right, bottom;
    };
    for (const Case c : {Case{3, 7, 20, 15, 0, 4, 22, 17}, Case{1, 1, 20, 15, 0, 0, 22, 17},
                         Case{5, 6, 20, 15, 2, 4, 22, 17}, Case{6, 9, 20, 15, 4, 6, 22, 17},
                         Case{20, 14, 31, 24, 18, 12, 32, 24}}) {
        SCOPED_TRACE(testing::Message() << "x1 " << c.x1 << " y1 " << c.y1);
        frame_.DemosaicRegion(c.x1, c.y1, c.x2, c.y2, bayer_, 0, nullptr);
        ExpectConverted(c.left, c.top, c.right, c.bottom);
    }
    // Nothing, not even a channel rebuild, without Bayer, without a pattern or outside the frame.
    bool rebuilt = false;
    frame_.DemosaicRegion(4, 4, 10, 10, BayerSettings{false, 2}, 5, [&] { rebuilt = true; });
    frame_.DemosaicRegion(4, 4, 10, 10, BayerSettings{true, 0}, 0, nullptr);
    frame_.DemosaicRegion(40, 30, 50, 40, bayer_, 0, nullptr);
    EXPECT_FALSE(rebuilt);
    EXPECT_TRUE(SameMat(frame_.colour().mat(), Filled(frame_.colour())));
    frame_.DemosaicRegion(0, 0, kWidth, kHeight, bayer_, 0, nullptr);
    EXPECT_TRUE(SameMat(frame_.colour().mat(), whole_));
}

bool HeldElsewhere(std::mutex& lock) {
    bool held = false;
    std::thread([&] {
        held = !lock.try_lock();
        if (!held) {
            lock.unlock();
        }
    }).join();
    return held;
}

// A 16 x 8 frame of 8-bit Bayer data, every sample 200.
void AllocateBayerFrame(FrameImage& frame, BayerSettings& bayer) {
    frame.setFormat({16, 8, 8, 1, false});
    RecordingLog log;
    ASSERT_TRUE(frame.Allocate(8, bayer, log));
    cv::Mat raw = frame.raw().mat();
    raw.setTo(cv::Scalar::all(200));
}

TEST(FrameLock, ChannelModesRebuildUnderTheLockInstead) {
    FrameImage frame;
    BayerSettings bayer{true, 4};
    ASSERT_NO_FATAL_FAILURE(AllocateBayerFrame(frame, bayer));
    int calls = 0;
    int lockedCalls = 0;
    for (const int mode : {0, 4, 5, 6, 7, 8, 9}) {
        frame.colour().Create(8, 3, 16, 8);
        frame.DemosaicRegion(0, 0, 16, 8, bayer, mode, [&] {
            ++calls;
            lockedCalls += HeldElsewhere(frame.frameLock());
        });
        EXPECT_EQ(SameMat(frame.colour().mat(), Filled(frame.colour())), mode >= 5 && mode <= 8)
            << mode;
        EXPECT_FALSE(HeldElsewhere(frame.frameLock())) << mode;
    }
    EXPECT_EQ(calls, 4);
    EXPECT_EQ(lockedCalls, 4);
}

TEST(FrameLock, ConversionWaitsForTheLockHolder) {
    FrameImage frame;
    BayerSettings bayer{true, 2};
    ASSERT_NO_FATAL_FAILURE(AllocateBayerFrame(frame, bayer));
    std::thread worker;
    {
        std::lock_guard lock(frame.frameLock());
        worker = std::thread([&] { frame.DemosaicRegion(0, 0, 16, 8, bayer, 0, nullptr); });
        // However far the worker got, it cannot have written yet.
        EXPECT_TRUE(SameMat(frame.colour().mat(), Filled(frame.colour())));
    }
    worker.join();
    EXPECT_TRUE(SameMat(frame.colour().mat(), cv::Mat(8, 16, CV_8UC3, cv::Scalar::all(200))));
}

}  // namespace
}  // namespace lumetra
