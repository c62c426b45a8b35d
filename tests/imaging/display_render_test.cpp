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

using test::CvtColor, test::Image, test::SameMat;

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
        const ImageBuffer raw = Image(depth, 1, 10, 7, depth);
        for (int pattern = 1; pattern <= 4; ++pattern) {
            const cv::Mat colour = CvtColor(raw.mat(), codes[pattern]);
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
    const ImageBuffer raw = Image(16, 1, 9, 7, 9);
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

TEST(RenderColour, ChannelsAndLuminanceChroma) {
    ImageBuffer rgb = Image(8, 3, 6, 5, 1), rgbc = Image(16, 4, 6, 5, 2), aux = Image(16, 4, 6, 5);
    const cv::Mat before = rgbc.mat().clone();
    const cv::Mat ycrcb = CvtColor(rgb.mat(), cv::COLOR_BGR2YCrCb);
    LumaChromaImage(rgbc, aux, 64);
    const cv::Mat cb = Plane(aux.mat(), 2);
    CCrCbToRgb(aux, 64);
    const struct {
        const ImageBuffer* raw;
        int mode;
        cv::Mat expected;
    } cases[] = {
        {&rgb, kModeRgb, rgb.mat()},
        {&rgb, kModeRed, Plane(rgb.mat(), 2)},
        {&rgb, kModeBlue, Plane(rgb.mat(), 0)},
        {&rgbc, kModeRgb, CvtColor(rgbc.mat(), cv::COLOR_BGRA2BGR)},
        {&rgbc, kModeClear, Plane(rgbc.mat(), 3)},
        {&rgbc, kModeGreen, Plane(rgbc.mat(), 1)},
        {&rgb, kModeYCrCb, ycrcb},
        {&rgb, kModeY, Plane(ycrcb, 0)},
        {&rgb, kModeCr, Plane(ycrcb, 1)},
        {&rgb, kModeCb, Plane(ycrcb, 2)},
        {&rgbc, kModeCb, cb},
        {&rgbc, kModeCCrCbToRgb, CvtColor(aux.mat(), cv::COLOR_BGRA2BGR)},
    };
    for (const auto& c : cases) {
        const DisplayResult result = Render(*c.raw, c.mode);
        EXPECT_TRUE(result.ok()) << result.error;
        EXPECT_TRUE(SameMat(result.image, c.expected))
            << c.raw->channels() << " channels, mode " << c.mode;
    }
    EXPECT_TRUE(SameMat(rgbc.mat(), before));  // the raw image is only read
}

TEST(RenderRefusals, SayWhy) {
    const ImageBuffer grey = Image(8, 1, 4, 4), rgb = Image(8, 3, 4, 4), rgbc = Image(8, 4, 4, 4),
                      tiny = Image(8, 1, 1, 3), empty;
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
    ImageBuffer raw = Image(16, 1, 4, 4);
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
    ImageBuffer raw = Image(16, 4, 3, 2);
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
