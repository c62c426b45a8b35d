// Length measurement and the line-profile core.
#include <gtest/gtest.h>

#include <cmath>

#include "analysis/length_measure.h"
#include "analysis/line_profile.h"
#include "analysis_test_support.h"

namespace lumetra::test {
namespace {

TEST(Length, BothEndPixelsCount) {
    const Lengths l = MeasureLengths(10, 10, 10, 10, 1.0);
    const LengthTexts t = FormatLengths(10, 10, 10, 10, l);
    EXPECT_EQ(t.horizontal, "1.00");
    EXPECT_EQ(t.vertical, "1.00");
    EXPECT_EQ(t.cartesian, "1.41");
    EXPECT_EQ(t.start, "(10,10)");

    const Lengths a = MeasureLengths(3, 40, 12, 4, 0.5);
    const Lengths b = MeasureLengths(12, 4, 3, 40, 0.5);
    EXPECT_DOUBLE_EQ(a.horizontal, 5.0);  // (9 + 1) x 0.5
    EXPECT_DOUBLE_EQ(a.vertical, 18.5);   // (36 + 1) x 0.5
    EXPECT_DOUBLE_EQ(a.cartesian, std::sqrt(25.0 + 18.5 * 18.5));
    EXPECT_DOUBLE_EQ(a.horizontal, b.horizontal);
    EXPECT_DOUBLE_EQ(a.vertical, b.vertical);
    EXPECT_DOUBLE_EQ(a.cartesian, b.cartesian);
    EXPECT_EQ(FormatLengths(12, 4, 3, 40, b).stop, "(3,40)");
    EXPECT_DOUBLE_EQ(MeasureLengths(0, 0, 1, 0, 0.0).horizontal, 2.0);  // not positive: 1.0
}

TEST(Length, PixelLengthMustBeGreaterThanZero) {
    MeasureSettings s;
    EXPECT_TRUE(SetPixelLength(s, 2.5, 3));
    for (double bad : {0.0, -1.0, std::nan("")}) {
        EXPECT_FALSE(SetPixelLength(s, bad, 1)) << bad;
        EXPECT_EQ(s.pixelLength, 2.5);
        EXPECT_EQ(s.unit, 3);
    }
    EXPECT_EQ(kPixelLengthText, "Please enter a number greater than 0 !");
    s.pixelLength = -2;
    NormalisePixelLength(s);
    EXPECT_EQ(s.pixelLength, 1.0);
}

TEST(Profile, MenuAndScale) {
    const auto mono = ProfileMenu(1, kAllProfileFlags);
    EXPECT_FALSE(mono[kProfileRed].enabled);
    EXPECT_FALSE(mono[kProfileRed].checked);
    EXPECT_FALSE(mono[kProfileClear].enabled);
    ProfileFlags flags = kAllProfileFlags;
    flags[kProfileGreen] = false;
    const auto colour = ProfileMenu(3, flags);
    EXPECT_TRUE(colour[kProfileGreen].enabled);
    EXPECT_FALSE(colour[kProfileGreen].checked);
    EXPECT_FALSE(colour[kProfileClear].enabled);
    EXPECT_TRUE(ProfileMenu(4, flags)[kProfileClear].checked);

    EXPECT_EQ(ProfileAxis(12, 1, false, true, 1).limit, 4095);
    EXPECT_EQ(ProfileAxis(12, 1, false, true, 1).shift, 4);
    EXPECT_EQ(ProfileAxis(12, 1, true, false, 1).limit, 255);
    EXPECT_EQ(ProfileAxis(12, 1, true, false, 1).shift, 1);
    EXPECT_EQ(ProfileAxis(48, 4, false, true, 0).limit, 4095);
}

TEST(Profile, SamplesSkipTheLabelMarginAndPositionsOutsideTheImage) {
    ImageBuffer image;
    image.Create(16, 1, 10, 3);
    auto* px = reinterpret_cast<uint16_t*>(image.data());
    for (int i = 0; i < 30; ++i) {
        px[i] = static_cast<uint16_t>(i * 1000);
    }
    // Pane position p shows image column p - 12 of row 1.
    const PaneToImage map = [](int p) { return std::optional(std::pair{p - 12, 1}); };
    const Profile plain = BuildProfile(image, true, 40, 3, map, false, 0);
    // Positions up to 3 + 5 are margin; image columns run from p = 12 to 21.
    ASSERT_EQ(plain.samples.size(), 10u);
    EXPECT_EQ(plain.samples.front().position, 12);
    EXPECT_EQ(plain.samples.front().values[0], 10000);
    EXPECT_EQ(plain.samples.back().position, 21);
    EXPECT_EQ(plain.axisStart, 0);
    EXPECT_EQ(plain.axisEnd, 9);

    const Profile wideMargin = BuildProfile(image, true, 40, 10, map, false, 0);
    EXPECT_EQ(wideMargin.samples.front().position, 16);
    EXPECT_EQ(wideMargin.axisStart, 4);

    const Profile adaptive = BuildProfile(image, true, 40, 3, map, true, 4);
    EXPECT_EQ(adaptive.samples.front().values[0], (10000 >> 4) & 255);

    const PaneToImage outside = [](int p) { return std::optional(std::pair{p, 7}); };
    EXPECT_TRUE(BuildProfile(image, true, 40, 3, outside, false, 0).samples.empty());
    const PaneToImage noImage = [](int) { return std::optional<std::pair<int, int>>{}; };
    EXPECT_TRUE(BuildProfile(image, true, 40, 3, noImage, false, 0).samples.empty());
}

TEST(Profile, RowOfAFrameCopy) {
    cv::Mat m(2, 3, CV_8UC3, cv::Scalar(1, 2, 3));
    m.at<cv::Vec3b>(1, 2) = {7, 8, 9};
    auto frame = MakeFrameCopy(m, 24);
    const auto row = RowProfile(*frame, 1);
    ASSERT_EQ(row.size(), 3u);
    EXPECT_EQ(row[2].position, 2);
    EXPECT_EQ(row[2].values, (std::array<int, 4>{7, 8, 9, 0}));
    EXPECT_TRUE(RowProfile(*frame, 2).empty());
}

TEST(Profile, LabelsAndScreenY) {
    EXPECT_EQ(ValueLabel(0, 255), "256");
    EXPECT_EQ(ValueLabel(2, 1023), "512");
    EXPECT_EQ(ValueLabel(4, 255), "0");
    EXPECT_EQ(PositionLabel(0, 100, 300), "100");
    EXPECT_EQ(PositionLabel(1, 100, 300), "150");
    EXPECT_EQ(PositionLabel(4, 100, 300), "300");
    EXPECT_EQ(ValueToY(0, 10, 110, 255), 110);
    EXPECT_EQ(ValueToY(255, 10, 110, 255), 10);
    EXPECT_EQ(ValueToY(100, 10, 110, 255), 110 - 10000 / 255);
}

TEST(Profile, BarsMixAdditively) {
    EXPECT_EQ(ProfileBar(1, kAllProfileFlags, {40, 0, 0, 0}),
              (std::vector<BarSpan>{{0, 40, kProfileRedColour}}));
    EXPECT_EQ(ProfileBackground(1), kProfileBlueColour);
    EXPECT_EQ(ProfileBackground(3), kProfileBlackColour);
    // blue 50, green 100, red 200
    EXPECT_EQ(ProfileBar(3, kAllProfileFlags, {50, 100, 200, 0}),
              (std::vector<BarSpan>{{0, 50, kProfileWhiteColour},
                                    {50, 100, Rgb{255, 255, 0}},
                                    {100, 200, kProfileRedColour}}));
    ProfileFlags noGreen = kAllProfileFlags;
    noGreen[kProfileGreen] = false;
    EXPECT_EQ(ProfileBar(3, noGreen, {50, 100, 200, 0}),
              (std::vector<BarSpan>{{0, 50, Rgb{255, 0, 255}}, {50, 200, kProfileRedColour}}));
    const auto clear = ProfileBar(4, kAllProfileFlags, {10, 10, 10, 30});
    ASSERT_EQ(clear.size(), 2u);
    EXPECT_EQ(clear.back(), (BarSpan{0, 30, kProfileWhiteColour}));
    EXPECT_EQ(ProfileLines(1, {}), (std::vector<std::pair<int, Rgb>>{{0, kProfileRedColour}}));
    EXPECT_EQ(ProfileLines(4, kAllProfileFlags).back(),
              (std::pair<int, Rgb>{3, kProfileBlackColour}));
    EXPECT_EQ(ProfileLines(3, kAllProfileFlags).size(), 3u);
}

}  // namespace
}  // namespace lumetra::test
