// Real blocks of 2 GiB and more, through the paths OpenCV is not trusted with. Skipped when the
// machine cannot spare the memory.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <fstream>
#include <string>
#include <vector>

#include <opencv2/core.hpp>
#include <opencv2/imgproc.hpp>

#include "imaging/frame_image.h"
#include "imaging/image_buffer.h"
#include "test_support.h"

namespace lumetra {
namespace {

constexpr uint64_t kNeeded = 8ull << 30;

uint64_t AvailableMemory() {
    std::ifstream meminfo("/proc/meminfo");
    std::string key, unit;
    uint64_t kib = 0;
    while (meminfo >> key >> kib >> unit) {
        if (key == "MemAvailable:") {
            return kib * 1024;
        }
    }
    return 0;
}

// Three channels of 8 bits, 32768 x 21846: 2147549184 bytes.
constexpr int kWidth = 32768;
constexpr int kHeight = 21846;

// A repeating pattern whose period is not a multiple of a pixel, so that a shifted or misplaced
// copy shows.
void FillPattern(ImageBuffer& buffer) {
    std::vector<unsigned char> period(65521);
    cv::Mat p(1, static_cast<int>(period.size()), CV_8UC1, period.data());
    cv::RNG(99).fill(p, cv::RNG::UNIFORM, 0, 256);
    for (uint64_t offset = 0; offset < buffer.size(); offset += period.size()) {
        const uint64_t n = std::min<uint64_t>(period.size(), buffer.size() - offset);
        std::memcpy(buffer.data() + offset, period.data(), n);
    }
}

class LargeBuffer : public testing::Test {
  protected:
    void SetUp() override {
        const uint64_t available = AvailableMemory();
        if (available < kNeeded) {
            GTEST_SKIP() << "needs " << (kNeeded >> 30) << " GiB of available memory, "
                         << (available >> 20) << " MiB available";
        }
    }
};

// Exactly 2 GiB is large, and a frame of it gets no colour image; one byte less is not large.
TEST_F(LargeBuffer, FlagAtExactlyTwoGiBAndBayerOff) {
    FrameImage frame;
    frame.setFormat({65536, 32768, 8, 1, false});
    BayerSettings bayer{true, 2};
    test::RecordingLog log;
    ASSERT_TRUE(frame.Allocate(8, bayer, log));
    const ImageBuffer& raw = frame.raw();
    EXPECT_EQ(raw.size(), 0x80000000u);
    EXPECT_TRUE(raw.large());
    EXPECT_EQ(raw.data()[0], 3);
    EXPECT_EQ(raw.data()[raw.size() - 1], 3);
    EXPECT_FALSE(frame.colour().hasImage());
    EXPECT_EQ(frame.aux().mat().size(), cv::Size(32768, 16384));
    EXPECT_TRUE(!bayer.enabled && bayer.pattern == 0);
    EXPECT_EQ(log.lines(),
              std::vector<std::string>{"The image data is too large, disable bayer.\n"});
    frame.raw().Release();

    ImageBuffer buffer;
    ASSERT_TRUE(buffer.TryCreate(8, 1, 0x7FFFFFFF, 1));
    EXPECT_EQ(buffer.size(), 0x7FFFFFFFu);
    EXPECT_FALSE(buffer.large());
    EXPECT_EQ(buffer.data()[buffer.size() - 1], 3);
}

TEST_F(LargeBuffer, CopyWholeRegionsAndChannel) {
    ImageBuffer src, dst;
    ASSERT_TRUE(src.TryCreate(8, 3, kWidth, kHeight));
    ASSERT_TRUE(dst.TryCreate(8, 3, kWidth, kHeight));
    ASSERT_TRUE(src.large());
    FillPattern(src);

    ImageBuffer::Copy(src, dst);
    EXPECT_EQ(std::memcmp(src.data(), dst.data(), src.size()), 0);

    // Rows from the end of the source to the start of the destination.
    std::memset(dst.data(), 0, dst.size());
    const cv::Rect from(kWidth - 1000, kHeight - 4, 1000, 4);
    const cv::Rect to(5, 0, 1000, 4);
    src.SetRegion(from.x, from.y, from.width, from.height);
    dst.SetRegion(to.x, to.y, to.width, to.height);
    ImageBuffer::Copy(src, dst);
    const cv::Mat moved = dst.mat()(to);
    EXPECT_EQ(cv::norm(moved, src.mat()(from), cv::NORM_INF), 0);
    const cv::Mat rest = dst.mat()(cv::Rect(0, 0, kWidth, 8));
    EXPECT_EQ(cv::countNonZero(rest.reshape(1)), cv::countNonZero(moved.reshape(1)));

    // One channel: the third of the source into the first of the destination.
    src.SetChannelOfInterest(3);
    dst.SetChannelOfInterest(1);
    std::memset(dst.data(), 0, 8 * static_cast<std::size_t>(dst.widthStep()));
    ImageBuffer::Copy(src, dst);
    for (int r = 0; r < to.height; ++r) {
        for (int c = 0; c < to.width; ++c) {
            const auto s = src.mat().at<cv::Vec3b>(from.y + r, from.x + c);
            const auto d = dst.mat().at<cv::Vec3b>(to.y + r, to.x + c);
            ASSERT_EQ(d, cv::Vec3b(s[2], 0, 0)) << r << ", " << c;
        }
    }
}

// Just over 2 GiB at either depth, checked against OpenCV a band of rows at a time; other codes
// are ignored.
TEST_F(LargeBuffer, BgrToRgb) {
    for (const int depth : {8, 16}) {
        SCOPED_TRACE(depth);
        const int height = depth == 8 ? kHeight : kHeight / 2;
        ImageBuffer src, dst;
        ASSERT_TRUE(src.TryCreate(depth, 3, kWidth, height));
        ASSERT_TRUE(dst.TryCreate(depth, 3, kWidth, height));
        ASSERT_TRUE(src.large());
        FillPattern(src);
        ImageBuffer::ConvertColour(src, dst, cv::COLOR_BGR2YCrCb);  // not served when large
        const cv::Mat fill(2, kWidth, dst.mat().type(), cv::Scalar::all(depth == 8 ? 3 : 0x0303));
        EXPECT_EQ(cv::norm(dst.mat().rowRange(height - 2, height), fill, cv::NORM_INF), 0);
        EXPECT_EQ(dst.data()[0], 3);
        ImageBuffer::ConvertColour(src, dst, cv::COLOR_BGR2RGB);
        for (int row = 0; row < height; row += 1024) {
            const cv::Range rows(row, std::min(height, row + 1024));
            ASSERT_EQ(
                cv::norm(dst.mat().rowRange(rows),
                         test::CvtColor(src.mat().rowRange(rows), cv::COLOR_BGR2RGB), cv::NORM_INF),
                0)
                << row;
        }
    }
}

// A colour image of just over 2 GiB takes our demosaicing. OpenCV checks it a band of rows at a
// time, each band with context rows on either side whose own border rows are not compared. Bands
// start on even rows, which keeps the pattern's phase.
TEST_F(LargeBuffer, Bayer) {
    for (const auto& [depth, code] :
         {std::pair{8, cv::COLOR_BayerGR2BGR}, std::pair{16, cv::COLOR_BayerBG2BGR}}) {
        SCOPED_TRACE(depth);
        const int height = depth == 8 ? kHeight : kHeight / 2;
        ImageBuffer raw, colour;
        ASSERT_TRUE(raw.TryCreate(depth, 1, kWidth, height));
        ASSERT_TRUE(colour.TryCreate(depth, 3, kWidth, height));
        ASSERT_FALSE(raw.large());
        ASSERT_TRUE(colour.large());
        FillPattern(raw);
        ImageBuffer::ConvertColour(raw, colour, code);
        constexpr int kBand = 2048;
        for (int row = 0; row < height; row += kBand) {
            const int first = std::max(0, row - 2);
            const int end = std::min(height, row + kBand + 1);
            const cv::Mat expected = test::CvtColor(raw.mat().rowRange(first, end), code);
            const int skipTop = row == 0 ? 0 : 1;
            const int skipBottom = end == height ? 0 : 1;
            const cv::Range compared(first + skipTop, end - skipBottom);
            ASSERT_EQ(
                cv::norm(colour.mat().rowRange(compared),
                         expected.rowRange(skipTop, expected.rows - skipBottom), cv::NORM_INF),
                0)
                << row;
        }
    }
}

}  // namespace
}  // namespace lumetra
