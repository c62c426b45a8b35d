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

using test::Filled;
using test::Randomise;
using test::SameMat;
using test::TestAllocator;

using Pixel = std::array<int, 4>;

// A 1 x N four-channel image of the given pixels.
void Fill(ImageBuffer& image, int depth, const std::vector<Pixel>& pixels) {
    image.Create(depth, 4, static_cast<int>(pixels.size()), 1);
    for (std::size_t i = 0; i < pixels.size(); ++i) {
        for (int k = 0; k < 4; ++k) {
            if (depth == 8) {
                image.mat().at<cv::Vec4b>(0, static_cast<int>(i))[k] =
                    static_cast<uint8_t>(pixels[i][k]);
            } else {
                image.mat().at<cv::Vec<uint16_t, 4>>(0, static_cast<int>(i))[k] =
                    static_cast<uint16_t>(pixels[i][k]);
            }
        }
    }
}

Pixel At(const ImageBuffer& image, int column) {
    const auto v = image.ReadPixel(0, column);
    return {static_cast<int>(v[0]), static_cast<int>(v[1]), static_cast<int>(v[2]),
            static_cast<int>(v[3])};
}

TEST(SampleTables, MaximumByPixelBitCount) {
    for (int bits : {8, 24, 32}) {
        EXPECT_EQ(MaxSampleValue(bits, 1), 255) << bits;
    }
    for (int bits : {10, 30, 40}) {
        EXPECT_EQ(MaxSampleValue(bits, 1), 1023) << bits;
    }
    EXPECT_EQ(MaxSampleValue(12, 1), 4095);
    EXPECT_EQ(MaxSampleValue(36, 3), 4095);
    for (int bits : {14, 42, 56}) {
        EXPECT_EQ(MaxSampleValue(bits, 4), 16383) << bits;
    }
    EXPECT_EQ(MaxSampleValue(16, 1), 65535);
    EXPECT_EQ(MaxSampleValue(64, 4), 65535);
    // 48 bits: 16-bit RGB or 12-bit RGBC.
    EXPECT_EQ(MaxSampleValue(48, 3), 65535);
    EXPECT_EQ(MaxSampleValue(48, 1), 65535);
    EXPECT_EQ(MaxSampleValue(48, 4), 4095);
    // Everything else falls back to 256, not 255.
    for (int bits : {0, 7, 9, 20, 65, 128}) {
        EXPECT_EQ(MaxSampleValue(bits, 3), 256) << bits;
    }
}

TEST(SampleTables, HighBitShiftByPixelBitCount) {
    for (int bits : {10, 30, 40}) {
        EXPECT_EQ(HighBitShift(bits, 3), 6) << bits;
    }
    EXPECT_EQ(HighBitShift(12, 1), 4);
    EXPECT_EQ(HighBitShift(36, 3), 4);
    EXPECT_EQ(HighBitShift(14, 1), 2);
    EXPECT_EQ(HighBitShift(42, 3), 2);
    for (int bits : {16, 56, 64, 8, 24, 20}) {
        EXPECT_EQ(HighBitShift(bits, 3), 0) << bits;
    }
    EXPECT_EQ(HighBitShift(48, 3), 4);
    EXPECT_EQ(HighBitShift(48, 1), 2);
    EXPECT_EQ(HighBitShift(48, 4), 2);
}

TEST(SampleMapping, LeftShiftFillsSixteenBits) {
    cv::Mat image(1, 3, CV_16UC1);
    image.at<uint16_t>(0) = 0x03FF;
    image.at<uint16_t>(1) = 0x0001;
    image.at<uint16_t>(2) = 0x0FFF;  // above 10 bits: the top bits fall off
    ShiftLeftInPlace(image, 6);
    EXPECT_EQ(image.at<uint16_t>(0), 0xFFC0);
    EXPECT_EQ(image.at<uint16_t>(1), 0x0040);
    EXPECT_EQ(image.at<uint16_t>(2), 0xFFC0);

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
    ShiftRightToEightBit(image, eight, 4);
    EXPECT_EQ(eight.at<cv::Vec3b>(0, 1)[2], 0xAB);
    ShiftRightToEightBit(image, eight, 0);  // the low byte, not a saturated 255
    EXPECT_EQ(eight.at<cv::Vec3b>(0, 0)[0], 0xBC);
    ShiftRightToEightBit(image, eight, 8);
    EXPECT_EQ(eight.at<cv::Vec3b>(0, 0)[0], 0x0A);
}

// The worked example and ties: 255.5 and 128.5 round to even, 129.5 too.
TEST(LumaChroma, EightBitRgbcRoundsHalfToEven) {
    ImageBuffer raw, aux;
    Fill(raw, 8,
         {
             {0, 0, 255, 77},  // B, G, R, C
             {0, 0, 1, 9},     // Cr 128.5 -> 128
             {0, 0, 3, 0},     // Cr 129.5 -> 130
             {1, 0, 0, 255},   // Cb 128.5 -> 128
         });
    aux.Create(8, 4, 4, 1);
    ASSERT_TRUE(LumaChromaImage(raw, aux, 32));
    EXPECT_EQ(At(aux, 0), (Pixel{76, 255, 85, 77}));
    EXPECT_EQ(At(aux, 1), (Pixel{0, 128, 128, 9}));
    EXPECT_EQ(At(aux, 2), (Pixel{1, 130, 127, 0}));
    EXPECT_EQ(At(aux, 3), (Pixel{0, 128, 128, 255}));
}

TEST(LumaChroma, SixteenBitClampsByFormatAndKeepsOffset128) {
    ImageBuffer raw, aux;
    const std::vector<Pixel> pixels = {
        {65535, 65535, 65535, 4000},  // Y far above every clamp
        {0, 0, 0, 5},                 // Cr = Cb = 128, not half the range
        {0, 0, 65535, 1},             // Cr 32895.5 -> 32896 unless clamped
    };
    Fill(raw, 16, pixels);
    aux.Create(16, 4, 3, 1);

    ASSERT_TRUE(LumaChromaImage(raw, aux, 48));  // 12-bit RGBC
    EXPECT_EQ(At(aux, 0), (Pixel{4095, 128, 128, 4000}));
    EXPECT_EQ(At(aux, 1), (Pixel{0, 128, 128, 5}));
    EXPECT_EQ(At(aux, 2), (Pixel{4095, 4095, 0, 1}));

    ASSERT_TRUE(LumaChromaImage(raw, aux, 64));
    EXPECT_EQ(At(aux, 0), (Pixel{65535, 128, 128, 4000}));
    EXPECT_EQ(At(aux, 2), (Pixel{19595, 32896, 0, 1}));

    ASSERT_TRUE(LumaChromaImage(raw, aux, 20));  // unknown format: 256
    EXPECT_EQ(At(aux, 0), (Pixel{256, 128, 128, 4000}));
    EXPECT_EQ(At(aux, 2), (Pixel{256, 256, 0, 1}));
}

TEST(LumaChroma, ThreeChannelsAreOpenCvsYCrCb) {
    for (int depth : {8, 16}) {
        ImageBuffer raw, aux;
        raw.Create(depth, 3, 9, 4);
        aux.Create(depth, 3, 9, 4);
        Randomise(raw, depth);
        ASSERT_TRUE(LumaChromaImage(raw, aux, 3 * depth));
        cv::Mat expected;
        cv::cvtColor(raw.mat(), expected, cv::COLOR_BGR2YCrCb);
        EXPECT_TRUE(SameMat(aux.mat(), expected)) << depth;
    }
}

// Rows spread over threads and walked by the widthStep: the same as one pass.
TEST(LumaChroma, ThreadsGiveTheSameImage) {
    ImageBuffer raw, one, many;
    raw.Create(16, 4, 13, 11);
    one.Create(16, 4, 13, 11);
    many.Create(16, 4, 13, 11);
    Randomise(raw, 3);
    ASSERT_TRUE(LumaChromaImage(raw, one, 64, 1));
    ASSERT_TRUE(LumaChromaImage(raw, many, 64, 4));
    EXPECT_TRUE(SameMat(one.mat(), many.mat()));
    ASSERT_TRUE(CCrCbToRgb(one, 64, 1));
    ASSERT_TRUE(CCrCbToRgb(many, 64, 5));
    EXPECT_TRUE(SameMat(one.mat(), many.mat()));
}

TEST(LumaChroma, MisfitsChangeNothing) {
    TestAllocator allocator;
    ImageBuffer raw(allocator), aux(allocator), grey(allocator), empty(allocator);
    raw.Create(8, 4, 4, 3);
    Randomise(raw, 1);
    grey.Create(8, 1, 4, 3);
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

TEST(CCrCb, ClearChannelStandsInForLuminance) {
    ImageBuffer aux;
    Fill(aux, 8,
         {
             {200, 128, 128, 0},  // C = 0, neutral chroma: black whatever the Y
             {17, 128, 128, 0},
             {50, 118, 138, 100},  // 117.72, 103.7, 85.98
             {0, 0, 0, 0},         // far below zero: clamped, not wrapped
             {0, 255, 255, 255},   // far above 255 but for green
         });
    ASSERT_TRUE(CCrCbToRgb(aux, 32));
    EXPECT_EQ(At(aux, 0), (Pixel{0, 0, 0, 0}));
    EXPECT_EQ(At(aux, 1), (Pixel{0, 0, 0, 0}));
    EXPECT_EQ(At(aux, 2), (Pixel{118, 104, 86, 100}));
    EXPECT_EQ(At(aux, 3), (Pixel{0, 135, 0, 0}));
    EXPECT_EQ(At(aux, 4), (Pixel{255, 121, 255, 255}));
}

TEST(CCrCb, SixteenBitClampsAtTheFormatMaximum) {
    ImageBuffer aux;
    Fill(aux, 16, {{0, 128, 200, 4000}, {0, 128, 128, 65535}});
    ASSERT_TRUE(CCrCbToRgb(aux, 48));  // 4000 + 1.772 x 72 = 4127.6
    EXPECT_EQ(At(aux, 0), (Pixel{4095, 3975, 4000, 4000}));
    EXPECT_EQ(At(aux, 1), (Pixel{4095, 4095, 4095, 65535}));
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

TEST(PhasePlanes, FiveByFiveGivesTwoByTwo) {
    for (int depth : {8, 16}) {
        ImageBuffer raw, aux;  // exact blocks: the sanitizer build sees a read past the frame
        raw.Create(depth, 1, 5, 5);
        const int base = depth == 8 ? 0 : 1000;
        for (int r = 0; r < 5; ++r) {
            for (int c = 0; c < 5; ++c) {
                if (depth == 8) {
                    raw.mat().at<uint8_t>(r, c) = static_cast<uint8_t>(10 * r + c);
                } else {
                    raw.mat().at<uint16_t>(r, c) = static_cast<uint16_t>(base + 10 * r + c);
                }
            }
        }
        aux.Create(depth, 1, 2, 2);
        const std::array<std::array<int, 4>, 4> expected = {{
            {0, 2, 20, 22},    // Channel0: even row, even column
            {1, 3, 21, 23},    // Channel1: even row, odd column
            {10, 12, 30, 32},  // Channel2: odd row, even column
            {11, 13, 31, 33},  // Channel3: odd row, odd column
        }};
        for (int mode = kModeChannel0; mode <= kModeChannel3; ++mode) {
            ASSERT_TRUE(BayerPhasePlane(raw, aux, mode));
            const auto& e = expected[static_cast<std::size_t>(mode - kModeChannel0)];
            EXPECT_EQ(aux.ReadPixel(0, 0)[0], base + e[0]) << mode;
            EXPECT_EQ(aux.ReadPixel(0, 1)[0], base + e[1]) << mode;
            EXPECT_EQ(aux.ReadPixel(1, 0)[0], base + e[2]) << mode;
            EXPECT_EQ(aux.ReadPixel(1, 1)[0], base + e[3]) << mode;
        }
    }
}

TEST(PhasePlanes, MisfitsAndOtherModesChangeNothing) {
    TestAllocator allocator;
    ImageBuffer raw(allocator), aux(allocator), colour(allocator);
    raw.Create(8, 1, 6, 6);
    Randomise(raw, 4);
    colour.Create(8, 3, 6, 6);
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
