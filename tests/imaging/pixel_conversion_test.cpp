#include <gtest/gtest.h>

#include <array>
#include <cstdint>
#include <tuple>
#include <vector>

#include <opencv2/imgproc.hpp>

#include "imaging/display_modes.h"
#include "imaging/frame_image.h"
#include "imaging/pixel_conversion.h"
#include "test_support.h"

namespace lumetra {
namespace {

using test::Filled, test::Image, test::SameMat, test::TestAllocator;

using Pixel = std::array<double, 4>;

// A 1 x N four-channel image of the given pixels.
ImageBuffer Row(int depth, std::vector<Pixel> pixels) {
    ImageBuffer image = Image(depth, 4, static_cast<int>(pixels.size()), 1);
    cv::Mat m = image.mat();
    cv::Mat(m.size(), CV_64FC4, pixels.data()).convertTo(m, m.type());
    return image;
}

void ExpectPixels(const ImageBuffer& image, const std::vector<Pixel>& pixels) {
    for (std::size_t i = 0; i < pixels.size(); ++i) {
        EXPECT_EQ(image.ReadPixel(0, static_cast<int>(i)), pixels[i]) << "pixel " << i;
    }
}

// 48 bits is 16-bit RGB or 12-bit RGBC, and its shift goes by the channels drawn. Unknown counts
// fall back to 256, not 255.
TEST(SampleTables, MaximumAndHighBitShiftByPixelBitCount) {
    struct Case {
        int bits, channels, maximum, shift;
    };
    const Case cases[] = {
        {8, 1, 255, 0},    {24, 3, 255, 0},   {32, 4, 255, 0},   {10, 1, 1023, 6},
        {30, 3, 1023, 6},  {40, 4, 1023, 6},  {12, 1, 4095, 4},  {36, 3, 4095, 4},
        {14, 1, 16383, 2}, {42, 3, 16383, 2}, {56, 4, 16383, 0}, {16, 1, 65535, 0},
        {64, 4, 65535, 0}, {48, 3, 65535, 4}, {48, 1, 65535, 2}, {48, 4, 4095, 2},
        {0, 3, 256, 0},    {7, 3, 256, 0},    {9, 3, 256, 0},    {20, 3, 256, 0},
        {65, 3, 256, 0},   {128, 3, 256, 0}};
    for (const Case& c : cases) {
        EXPECT_EQ(MaxSampleValue(c.bits, c.channels), c.maximum) << c.bits << "/" << c.channels;
        EXPECT_EQ(HighBitShift(c.bits, c.channels), c.shift) << c.bits << "/" << c.channels;
    }
}

TEST(SampleMapping, LeftShiftFillsSixteenBits) {
    cv::Mat_<uint16_t> image(1, 3);
    image << 0x03FF, 0x0001, 0x0FFF;  // the last is above 10 bits: its top bits fall off
    ShiftLeftInPlace(image, 6);
    EXPECT_EQ(std::vector<uint16_t>(image.begin(), image.end()),
              (std::vector<uint16_t>{0xFFC0, 0x0040, 0xFFC0}));

    for (int shift : {16, 17, 40}) {
        cv::Mat full(2, 2, CV_16UC3, cv::Scalar::all(0xFFFF));
        ShiftLeftInPlace(full, shift);
        EXPECT_EQ(cv::countNonZero(full.reshape(1)), 0) << shift;
    }
    cv::Mat same(2, 2, CV_16UC1, cv::Scalar::all(0x1234));
    ShiftLeftInPlace(same, 0);
    EXPECT_EQ(same.at<uint16_t>(1, 1), 0x1234);
}

TEST(SampleMapping, RightShiftShowsBitsShiftToShiftPlusSeven) {
    cv::Mat image(2, 2, CV_16UC3, cv::Scalar::all(0x0ABC));
    cv::Mat eight;
    ShiftRightToEightBit(image, eight, 2);
    ASSERT_EQ(eight.type(), CV_8UC3);
    ASSERT_EQ(eight.size(), image.size());
    EXPECT_EQ(eight.at<cv::Vec3b>(1, 1), cv::Vec3b(0xAF, 0xAF, 0xAF));
    ShiftRightToEightBit(image, eight, 0);  // the low byte, not a saturated 255
    EXPECT_EQ(eight.at<cv::Vec3b>(0, 0)[0], 0xBC);
}

// B, G, R, C: the worked example, then ties that round to even: Cr 128.5 -> 128, Cr 129.5 -> 130,
// Cb 128.5 -> 128.
TEST(LumaChroma, EightBitRgbcRoundsHalfToEven) {
    const ImageBuffer raw = Row(8, {{0, 0, 255, 77}, {0, 0, 1, 9}, {0, 0, 3, 0}, {1, 0, 0, 255}});
    ImageBuffer aux = Image(8, 4, 4, 1);
    ASSERT_TRUE(LumaChromaImage(raw, aux, 32));
    ExpectPixels(aux, {{76, 255, 85, 77}, {0, 128, 128, 9}, {1, 130, 127, 0}, {0, 128, 128, 255}});
}

// Y far above every clamp; Cr = Cb = 128, not half the range; Cr 32895.5 -> 32896 unless clamped.
TEST(LumaChroma, SixteenBitClampsByFormatAndKeepsOffset128) {
    const ImageBuffer raw = Row(16, {{65535, 65535, 65535, 4000}, {0, 0, 0, 5}, {0, 0, 65535, 1}});
    ImageBuffer aux = Image(16, 4, 3, 1);

    ASSERT_TRUE(LumaChromaImage(raw, aux, 48));  // 12-bit RGBC
    ExpectPixels(aux, {{4095, 128, 128, 4000}, {0, 128, 128, 5}, {4095, 4095, 0, 1}});

    ASSERT_TRUE(LumaChromaImage(raw, aux, 64));
    ExpectPixels(aux, {{65535, 128, 128, 4000}, {0, 128, 128, 5}, {19595, 32896, 0, 1}});

    ASSERT_TRUE(LumaChromaImage(raw, aux, 20));  // unknown format: 256
    ExpectPixels(aux, {{256, 128, 128, 4000}, {0, 128, 128, 5}, {256, 256, 0, 1}});
}

TEST(LumaChroma, ThreeChannelsAreOpenCvsYCrCb) {
    for (int depth : {8, 16}) {
        ImageBuffer raw = Image(depth, 3, 9, 4, depth), aux = Image(depth, 3, 9, 4);
        ASSERT_TRUE(LumaChromaImage(raw, aux, 3 * depth));
        EXPECT_TRUE(SameMat(aux.mat(), test::CvtColor(raw.mat(), cv::COLOR_BGR2YCrCb))) << depth;
    }
}

// Rows spread over threads and walked by the widthStep: the same as one pass.
TEST(LumaChroma, ThreadsGiveTheSameImage) {
    ImageBuffer raw = Image(16, 4, 13, 11, 3), one = Image(16, 4, 13, 11),
                many = Image(16, 4, 13, 11);
    ASSERT_TRUE(LumaChromaImage(raw, one, 64, 1));
    ASSERT_TRUE(LumaChromaImage(raw, many, 64, 4));
    EXPECT_TRUE(SameMat(one.mat(), many.mat()));
    ASSERT_TRUE(CCrCbToRgb(one, 64, 1));
    ASSERT_TRUE(CCrCbToRgb(many, 64, 5));
    EXPECT_TRUE(SameMat(one.mat(), many.mat()));
}

TEST(LumaChroma, MisfitsChangeNothing) {
    TestAllocator allocator;
    ImageBuffer raw = Image(8, 4, 4, 3, 1, allocator), grey = Image(8, 1, 4, 3, -1, allocator);
    ImageBuffer aux(allocator), empty(allocator);
    for (auto [depth, channels, width] :
         {std::tuple{16, 4, 4}, std::tuple{8, 3, 4}, std::tuple{8, 4, 5}}) {
        aux.Create(depth, channels, width, 3);
        EXPECT_FALSE(LumaChromaImage(raw, aux, 32));
        EXPECT_TRUE(SameMat(aux.mat(), Filled(aux)));
    }
    aux.Create(8, 1, 4, 3);
    EXPECT_FALSE(LumaChromaImage(grey, aux, 8));
    EXPECT_TRUE(SameMat(aux.mat(), Filled(aux)));
    EXPECT_FALSE(LumaChromaImage(empty, aux, 8));
    EXPECT_FALSE(CCrCbToRgb(grey, 8));
    EXPECT_FALSE(CCrCbToRgb(empty, 8));
}

// C = 0 with neutral chroma is black whatever the Y; 117.72, 103.7, 85.98 round; far below zero
// clamps rather than wraps, as does far above 255 (all but green).
TEST(CCrCb, ClearChannelStandsInForLuminance) {
    ImageBuffer aux = Row(8, {{200, 128, 128, 0},
                              {17, 128, 128, 0},
                              {50, 118, 138, 100},
                              {0, 0, 0, 0},
                              {0, 255, 255, 255}});
    ASSERT_TRUE(CCrCbToRgb(aux, 32));
    ExpectPixels(
        aux,
        {{0, 0, 0, 0}, {0, 0, 0, 0}, {118, 104, 86, 100}, {0, 135, 0, 0}, {255, 121, 255, 255}});
}

TEST(CCrCb, SixteenBitClampsAtTheFormatMaximum) {
    ImageBuffer aux = Row(16, {{0, 128, 200, 4000}, {0, 128, 128, 65535}});
    ASSERT_TRUE(CCrCbToRgb(aux, 48));  // 4000 + 1.772 x 72 = 4127.6
    ExpectPixels(aux, {{4095, 3975, 4000, 4000}, {4095, 4095, 4095, 65535}});
}

// The Frame image path: mode 13 rebuilds colour from C; the other modes keep Y, Cr, Cb.
TEST(CCrCb, FrameImageModes) {
    FrameImage frame;
    frame.setFormat(FrameFormat{6, 4, 32, 3, true});
    BayerSettings bayer;
    NullMessageLog log;
    ASSERT_TRUE(frame.Allocate(32, bayer, log));
    ASSERT_EQ(frame.raw().channels(), 4);
    frame.raw().mat().setTo(cv::Scalar(200, 200, 200, 0));
    frame.raw().mat().at<cv::Vec4b>(1, 2) = cv::Vec4b(60, 60, 60, 90);

    UpdateLumaChromaImage(frame, 32, kModeY);
    EXPECT_EQ(frame.aux().mat().at<cv::Vec4b>(0, 0), cv::Vec4b(200, 128, 128, 0));
    UpdateLumaChromaImage(frame, 32, kModeCCrCbToRgb);
    EXPECT_EQ(frame.aux().mat().at<cv::Vec4b>(0, 0), cv::Vec4b(0, 0, 0, 0));
    EXPECT_EQ(frame.aux().mat().at<cv::Vec4b>(1, 2), cv::Vec4b(90, 90, 90, 90));

    frame.aux().mat().setTo(cv::Scalar::all(7));
    UpdateLumaChromaImage(frame, 32, kModeRgb);  // not a luminance/chroma mode
    EXPECT_EQ(frame.aux().mat().at<cv::Vec4b>(0, 0), cv::Vec4b(7, 7, 7, 7));
}

// Channel0 and Channel1 take the even rows, Channel0 and Channel2 the even columns.
TEST(PhasePlanes, FiveByFiveGivesTwoByTwo) {
    for (int depth : {8, 16}) {
        // Exact blocks: the sanitizer build sees a read past the frame.
        ImageBuffer raw = Image(depth, 1, 5, 5, depth), aux = Image(depth, 1, 2, 2);
        for (int mode = kModeChannel0; mode <= kModeChannel3; ++mode) {
            ASSERT_TRUE(BayerPhasePlane(raw, aux, mode));
            const int row = mode >= kModeChannel2 ? 1 : 0;
            const int column = mode == kModeChannel1 || mode == kModeChannel3 ? 1 : 0;
            for (int r = 0; r < 2; ++r) {
                for (int c = 0; c < 2; ++c) {
                    EXPECT_EQ(aux.ReadPixel(r, c), raw.ReadPixel(2 * r + row, 2 * c + column))
                        << depth << " bits, mode " << mode;
                }
            }
        }
    }
}

TEST(PhasePlanes, MisfitsAndOtherModesChangeNothing) {
    TestAllocator allocator;
    ImageBuffer raw = Image(8, 1, 6, 6, 4, allocator), colour = Image(8, 3, 6, 6, -1, allocator);
    ImageBuffer aux(allocator);
    for (auto [depth, width, height] :
         {std::tuple{8, 2, 3}, std::tuple{8, 3, 2}, std::tuple{16, 3, 3}}) {
        aux.Create(depth, 1, width, height);
        EXPECT_FALSE(BayerPhasePlane(raw, aux, kModeChannel0));
        EXPECT_TRUE(SameMat(aux.mat(), Filled(aux)));
    }
    aux.Create(8, 1, 3, 3);
    for (int mode : {int{kModeRgb}, int{kModeClear}, int{kModeYCrCb}, 14, -1}) {
        EXPECT_FALSE(BayerPhasePlane(raw, aux, mode)) << mode;
    }
    EXPECT_FALSE(BayerPhasePlane(colour, aux, kModeChannel1));
    EXPECT_TRUE(SameMat(aux.mat(), Filled(aux)));
}

TEST(DisplayModes, TableAndResetRules) {
    EXPECT_EQ(DisplayModeText(kModeRgb), "RGB");
    EXPECT_EQ(DisplayModeText(kModeClear), "Clear");
    EXPECT_EQ(DisplayModeText(kModeChannel3), "Channel3");
    EXPECT_EQ(DisplayModeText(kModeCCrCbToRgb), "CCrCb->RGB");
    EXPECT_FALSE(DisplayModeText(14));
    EXPECT_FALSE(DisplayModeText(-1));
    for (std::size_t i = 0; i < kDisplayModes.size(); ++i) {
        EXPECT_EQ(kDisplayModes[i].mode, static_cast<int>(i));
    }
    EXPECT_EQ(kDisplayModes[kModeYCrCb].commandId, 33013);
    EXPECT_EQ(kDisplayModes[kModeY].commandId, 33017);
    EXPECT_EQ(kDisplayModes[kModeCr].commandId, 33015);

    EXPECT_EQ(DisplayModeAfterAllocation(kModeClear, 3, false), kModeRgb);
    EXPECT_EQ(DisplayModeAfterAllocation(kModeClear, 4, false), kModeClear);
    EXPECT_EQ(DisplayModeAfterAllocation(kModeClear, 1, false), kModeClear);
    EXPECT_EQ(DisplayModeAfterAllocation(kModeChannel2, 1, false), kModeChannel2);
    EXPECT_EQ(DisplayModeAfterAllocation(kModeChannel2, 1, true), kModeRgb);
    EXPECT_EQ(DisplayModeAfterAllocation(kModeYCrCb, 3, true), kModeYCrCb);
}

}  // namespace
}  // namespace lumetra
