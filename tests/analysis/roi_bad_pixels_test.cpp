#include "analysis/roi_bad_pixels.h"

#include <gtest/gtest.h>

#include "analysis_test_support.h"

namespace lumetra::test {
namespace {

RoiBadPixelSettings Rect(int area, int x = 0, int y = 0, int width = 1000, int height = 1000) {
    RoiBadPixelSettings s;
    s.area = area;
    s.xStart = x;
    s.yStart = y;
    s.width = width;
    s.height = height;
    return s;
}

TEST(RoiBadPixelArea, QuadrantsOfAnOddSizedFrame) {
    // B ends at 2 x (W / 2) = 6: the last column (6) is in no quadrant.
    const std::pair<RoiBadPixelSettings, PixelArea> cases[] = {
        {Rect(kQuadrantA), {0, 0, 3, 2}},          {Rect(kQuadrantB), {3, 0, 6, 2}},
        {Rect(kQuadrantC), {0, 2, 3, 4}},          {Rect(kQuadrantD), {3, 2, 6, 4}},
        {Rect(kWholeArea), {0, 0, 7, 5}},          {RoiBadPixelSettings{}, {0, 0, 1000, 1000}},
        {Rect(kRoiArea, 2, 1, 3, 4), {2, 1, 5, 5}}};
    for (const auto& [settings, area] : cases) {
        EXPECT_EQ(RoiBadPixelRect(settings, 7, 5), area) << settings.area;
    }
}

TEST(RoiBadPixelArea, RectangleEndingAtTheFrameEdgeFits) {
    auto fits = [](RoiBadPixelSettings s) {
        return RoiBadPixelRectFits(RoiBadPixelRect(s, 10, 8), 10, 8);
    };
    EXPECT_TRUE(fits(Rect(kRoiArea, 4, 0, 6, 8)));  // 4 + 6 = width
    EXPECT_FALSE(fits(Rect(kRoiArea, 4, 0, 7, 8)));
    EXPECT_FALSE(fits(Rect(kRoiArea, 4, 0, 6, 9)));
    EXPECT_FALSE(fits(Rect(kRoiArea, -1, 0, 6, 8)));
}

TEST(RoiBadPixelLimits, SignOptionNegatesAndSwaps) {
    ChannelRange r{10, 20, false};
    EXPECT_EQ(r.low(), 10);
    EXPECT_EQ(r.high(), 20);
    r.negative = true;
    EXPECT_EQ(r.low(), -20);
    EXPECT_EQ(r.high(), -10);
}

TEST(RoiBadPixelSearch, EachSliderLimitsItsOwnChannel) {
    cv::Mat m(2, 4, CV_8UC3, cv::Scalar(50, 60, 70));  // blue 50, green 60, red 70
    m.at<cv::Vec3b>(0, 1)[2] = 90;                     // red above R's 80
    m.at<cv::Vec3b>(1, 2)[0] = 10;                     // blue below B's 20
    m.at<cv::Vec3b>(1, 3)[0] = 75;                     // blue 75: inside B, outside R
    // R, G, B, and C, which a three-channel frame does not have.
    const std::array<ChannelRange, 4> ranges = {
        {{60, 80, false}, {0, 255, false}, {20, 100, false}, {0, 0, false}}};
    RoiBadPixelResult r;
    ASSERT_TRUE(FindRoiBadPixels(*MakeFrameCopy(m, 24), {0, 0, 4, 2}, ranges, r));
    ASSERT_EQ(r.pixels.size(), 2u);
    EXPECT_EQ(r.pixels[0].key, 1u);
    EXPECT_EQ(r.pixels[0].values, (std::array<uint16_t, 4>{50, 60, 90, 65535}));
    EXPECT_EQ(r.pixels[1].key, (1u << 16) + 2);
    EXPECT_DOUBLE_EQ(r.average[0], (50.0 * 6 + 10 + 75) / 8);
    EXPECT_DOUBLE_EQ(r.average[2], (70.0 * 7 + 90) / 8);
    EXPECT_EQ(r.channels, 3);
}

TEST(RoiBadPixelSearch, MonoUsesTheGrayRangeAndOnlyTheArea) {
    cv::Mat m(3, 3, CV_16UC1, cv::Scalar(1000));
    m.at<uint16_t>(0, 0) = 5000;  // outside the area
    m.at<uint16_t>(2, 2) = 4096;
    std::array<ChannelRange, 4> ranges;
    ranges[0] = {0, 4095, false};
    RoiBadPixelResult r;
    ASSERT_TRUE(FindRoiBadPixels(*MakeFrameCopy(m, 12), {1, 1, 3, 3}, ranges, r));
    ASSERT_EQ(r.pixels.size(), 1u);
    EXPECT_EQ(r.pixels[0].key, (2u << 16) + 2);
    EXPECT_EQ(r.pixels[0].values[0], 4096);
    EXPECT_DOUBLE_EQ(r.average[0], (1000.0 * 3 + 4096) / 4);
}

}  // namespace
}  // namespace lumetra::test
