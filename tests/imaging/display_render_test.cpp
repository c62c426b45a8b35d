#include <gtest/gtest.h>

#include <string>

#include <opencv2/imgproc.hpp>

#include "imaging/display_modes.h"
#include "imaging/display_render.h"
#include "imaging/frame_image.h"
#include "imaging/pixel_conversion.h"
#include "test_support.h"

namespace lumetra {
namespace {

using test::Randomise;
using test::SameMat;

DisplayResult Render(const ImageBuffer& raw, int mode, int bayer = 0) {
    DisplayRequest request;
    request.mode = mode;
    request.bayerPattern = bayer;
    return RenderDisplayMode(raw, request);
}

cv::Mat Plane(const cv::Mat& image, int channel) {
    cv::Mat plane;
    cv::extractChannel(image, plane, channel);
    return plane;
}

TEST(RenderBayer, ColourModesUseThePatternTable) {
    // Pattern to OpenCV code: OpenCV names a pattern by its second row.
    const int codes[] = {0, cv::COLOR_BayerRG2BGR, cv::COLOR_BayerBG2BGR, cv::COLOR_BayerGR2BGR,
                         cv::COLOR_BayerGB2BGR};
    for (int depth : {8, 16}) {
        ImageBuffer raw;
        raw.Create(depth, 1, 10, 7);
        Randomise(raw, depth);
        for (int pattern = 1; pattern <= 4; ++pattern) {
            cv::Mat colour;
            cv::cvtColor(raw.mat(), colour, codes[pattern]);
            const DisplayResult rgb = Render(raw, kModeRgb, pattern);
            ASSERT_TRUE(rgb.ok()) << rgb.error;
            EXPECT_TRUE(SameMat(rgb.image, colour)) << pattern;
            EXPECT_TRUE(SameMat(Render(raw, kModeRed, pattern).image, Plane(colour, 2)));
            EXPECT_TRUE(SameMat(Render(raw, kModeGreen, pattern).image, Plane(colour, 1)));
            EXPECT_TRUE(SameMat(Render(raw, kModeBlue, pattern).image, Plane(colour, 0)));
        }
        // Without a pattern a one-channel image is drawn grey.
        const DisplayResult grey = Render(raw, kModeRgb);
        EXPECT_TRUE(SameMat(grey.image, raw.mat()));
        EXPECT_NE(grey.image.data, raw.mat().data);  // a copy, not the raw block
    }
}

TEST(RenderBayer, ChannelModesArePhasePlanes) {
    ImageBuffer raw;
    raw.Create(16, 1, 9, 7);
    Randomise(raw, 9);
    for (int mode = kModeChannel0; mode <= kModeChannel3; ++mode) {
        const DisplayResult plane = Render(raw, mode, 2);  // with or without a pattern
        ASSERT_TRUE(plane.ok()) << plane.error;
        ASSERT_EQ(plane.image.size(), cv::Size(4, 3));
        const int row = mode >= kModeChannel2 ? 1 : 0;
        const int column = mode == kModeChannel1 || mode == kModeChannel3 ? 1 : 0;
        EXPECT_EQ(plane.image.at<uint16_t>(2, 3), raw.mat().at<uint16_t>(4 + row, 6 + column));
        EXPECT_TRUE(SameMat(Render(raw, mode).image, plane.image));
    }
}

TEST(RenderColour, ChannelsOfThreeAndFour) {
    ImageBuffer rgb, rgbc;
    rgb.Create(8, 3, 5, 4);
    rgbc.Create(16, 4, 5, 4);
    Randomise(rgb, 1);
    Randomise(rgbc, 2);
    EXPECT_TRUE(SameMat(Render(rgb, kModeRgb).image, rgb.mat()));
    EXPECT_TRUE(SameMat(Render(rgb, kModeRed).image, Plane(rgb.mat(), 2)));
    EXPECT_TRUE(SameMat(Render(rgb, kModeBlue).image, Plane(rgb.mat(), 0)));

    const DisplayResult first = Render(rgbc, kModeRgb);
    ASSERT_EQ(first.image.type(), CV_16UC3);
    cv::Mat bgr;
    cv::cvtColor(rgbc.mat(), bgr, cv::COLOR_BGRA2BGR);
    EXPECT_TRUE(SameMat(first.image, bgr));
    EXPECT_TRUE(SameMat(Render(rgbc, kModeClear).image, Plane(rgbc.mat(), 3)));
    EXPECT_TRUE(SameMat(Render(rgbc, kModeGreen).image, Plane(rgbc.mat(), 1)));
}

TEST(RenderColour, LuminanceChromaModes) {
    ImageBuffer rgb;
    rgb.Create(8, 3, 6, 5);
    Randomise(rgb, 3);
    cv::Mat ycrcb;
    cv::cvtColor(rgb.mat(), ycrcb, cv::COLOR_BGR2YCrCb);
    EXPECT_TRUE(SameMat(Render(rgb, kModeYCrCb).image, ycrcb));
    EXPECT_TRUE(SameMat(Render(rgb, kModeY).image, Plane(ycrcb, 0)));
    EXPECT_TRUE(SameMat(Render(rgb, kModeCr).image, Plane(ycrcb, 1)));
    EXPECT_TRUE(SameMat(Render(rgb, kModeCb).image, Plane(ycrcb, 2)));

    ImageBuffer rgbc, aux;
    rgbc.Create(16, 4, 6, 5);
    Randomise(rgbc, 4);
    const cv::Mat before = rgbc.mat().clone();
    aux.Create(16, 4, 6, 5);
    LumaChromaImage(rgbc, aux, 64);
    EXPECT_TRUE(SameMat(Render(rgbc, kModeCb).image, Plane(aux.mat(), 2)));
    CCrCbToRgb(aux, 64);
    cv::Mat rebuilt;
    cv::cvtColor(aux.mat(), rebuilt, cv::COLOR_BGRA2BGR);
    const DisplayResult colour = Render(rgbc, kModeCCrCbToRgb);
    ASSERT_TRUE(colour.ok()) << colour.error;
    EXPECT_TRUE(SameMat(colour.image, rebuilt));
    EXPECT_TRUE(SameMat(rgbc.mat(), before));  // the raw image is only read
}

TEST(RenderRefusals, SayWhy) {
    ImageBuffer grey, rgb, rgbc, tiny, empty;
    grey.Create(8, 1, 4, 4);
    rgb.Create(8, 3, 4, 4);
    rgbc.Create(8, 4, 4, 4);
    tiny.Create(8, 1, 1, 3);
    const struct {
        const ImageBuffer* raw;
        int mode;
        int bayer;
        const char* error;
    } cases[] = {
        {&grey, 14, 0, "display mode 14 is out of range (0 to 13)"},
        {&grey, -1, 0, "display mode -1 is out of range (0 to 13)"},
        {&rgb, kModeRgb, 2, "a Bayer pattern needs a one-channel image; this one has 3 channels"},
        {&grey, kModeRgb, 5, "Bayer pattern 5 is out of range (0 to 4)"},
        {&rgb, kModeChannel0, 0,
         "mode 5 (Channel0) is a Bayer phase plane: it needs a one-channel image; this one has 3 "
         "channels"},
        {&tiny, kModeChannel3, 0, "mode 8 (Channel3) needs an image of at least 2 x 2 pixels"},
        {&grey, kModeRed, 0, "mode 1 (Red) needs a colour image or a Bayer pattern"},
        {&rgb, kModeClear, 0, "mode 4 (Clear) needs a four-channel (RGBC) image"},
        {&grey, kModeClear, 1, "mode 4 (Clear) needs a four-channel (RGBC) image"},
        {&grey, kModeY, 1, "mode 10 (Y) needs a colour image of three or four channels"},
        {&rgb, kModeCCrCbToRgb, 0, "mode 13 (CCrCb->RGB) needs a four-channel (RGBC) image"},
        {&empty, kModeRgb, 0, "there is no image"},
    };
    for (const auto& c : cases) {
        const DisplayResult result = Render(*c.raw, c.mode, c.bayer);
        EXPECT_EQ(result.error, c.error);
        EXPECT_TRUE(result.image.empty());
    }
    EXPECT_TRUE(Render(rgbc, kModeCCrCbToRgb).ok());
    EXPECT_TRUE(Render(tiny, kModeRgb, 1).ok());
}

TEST(RenderMapping, SixteenBitSamplesByTheDisplayChoice) {
    ImageBuffer raw;
    raw.Create(16, 1, 4, 4);
    raw.mat().setTo(cv::Scalar::all(0x0ABC));  // 12-bit data
    DisplayRequest request;
    request.mode = kModeRgb;
    request.pixelBitCount = 12;

    DisplayResult asIs = RenderDisplayMode(raw, request);
    ASSERT_EQ(asIs.image.type(), CV_16UC1);
    EXPECT_EQ(asIs.image.at<uint16_t>(3, 3), 0x0ABC);

    request.mapping = SampleMapping::Adaptive;
    EXPECT_EQ(RenderDisplayMode(raw, request).image.at<uint16_t>(0, 0), 0xABC0);

    request.mapping = SampleMapping::EightBit;
    request.shift = 4;
    const DisplayResult eight = RenderDisplayMode(raw, request);
    ASSERT_EQ(eight.image.type(), CV_8UC1);
    EXPECT_EQ(eight.image.at<uint8_t>(1, 2), 0xAB);
    request.shift = 5;  // 12-bit data offer shifts 0 to 4
    EXPECT_EQ(RenderDisplayMode(raw, request).error, "shift 5 is out of range (0 to 4)");
    request.shift = -1;
    EXPECT_FALSE(RenderDisplayMode(raw, request).ok());

    // Without a pixel bit count the file's own depth counts: 16-bit data, shifts up to 8.
    request.pixelBitCount = 0;
    request.shift = 8;
    EXPECT_EQ(RenderDisplayMode(raw, request).image.at<uint8_t>(0, 0), 0x0A);
}

// 48 bits per pixel: the left shift depends on the channels of what is drawn.
TEST(RenderMapping, FortyEightBitsShiftByDrawnChannels) {
    ImageBuffer raw;
    raw.Create(16, 4, 3, 2);
    raw.mat().setTo(cv::Scalar(0x0101, 0x0202, 0x0303, 0x0404));
    DisplayRequest request;
    request.pixelBitCount = 48;
    request.mapping = SampleMapping::Adaptive;
    request.mode = kModeRgb;
    using Vec3w = cv::Vec<uint16_t, 3>;
    EXPECT_EQ(RenderDisplayMode(raw, request).image.at<Vec3w>(1, 2), Vec3w(0x1010, 0x2020, 0x3030));
    request.mode = kModeClear;
    EXPECT_EQ(RenderDisplayMode(raw, request).image.at<uint16_t>(1, 2), 0x1010);
}

}  // namespace
}  // namespace lumetra
