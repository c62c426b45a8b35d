// The view's zoom steps, fit, layout, scroll bars and visible part, without a window.
#include <gtest/gtest.h>

#include <cmath>

#include "imaging/view_layout.h"

namespace lumetra {
namespace {

TEST(ViewZoom, WheelSteps) {
    const struct {
        double from;
        bool forward;
        double to;
    } cases[] = {
        {24, true, 32},  {32, true, 64},  {200, true, 384}, {384, false, 128}, {100, false, 50},
        {16, true, 32},  {20, true, 32},  {1, true, 2},     {63, true, 64},    {64, true, 96},
        {95, true, 96},  {96, true, 128}, {128, true, 384}, {384, true, 384},  {128, false, 96},
        {96, false, 64}, {64, false, 32}, {32, false, 16},  {1, false, 0.5},   {0.25, true, 0.5},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(WheelZoom(c.from, c.forward), c.to) << c.from << (c.forward ? " fwd" : " back");
    }
}

TEST(ViewZoom, WheelBackFromOneStopsAtTheMinimum) {
    double zoom = 1;
    int steps = 0;
    while (zoom > kMinZoom && steps < 100) {
        zoom = WheelZoom(zoom, false);
        ++steps;
    }
    // 1/2 ... 1/256 are eight halvings; the ninth, 1/512, is raised to 1/384.
    EXPECT_EQ(steps, 9);
    EXPECT_EQ(zoom, 1.0 / 384);
    EXPECT_EQ(zoom, 0.0026041666666666665);
    EXPECT_EQ(WheelZoom(zoom, false), kMinZoom);
}

TEST(ViewZoom, CommandsAndFit) {
    for (const ZoomCommand& z : kZoomCommands) {
        EXPECT_EQ(FixedZoomOf(z.id), z.zoom) << z.text;
        EXPECT_EQ(ViewCommandText(z.id), z.text);
    }
    EXPECT_EQ(FixedZoomOf(32861), 32.0);  // "X 32"
    EXPECT_EQ(FixedZoomOf(32866), 0.03125);
    EXPECT_EQ(FixedZoomOf(viewcmd::kOriginalSize), 1.0);
    EXPECT_EQ(FixedZoomOf(viewcmd::kMaximumImage), 384.0);
    EXPECT_FALSE(FixedZoomOf(viewcmd::kZoomFit));
    EXPECT_EQ(ClampCommandZoom(500), 384.0);
    EXPECT_EQ(ClampCommandZoom(0.001), 0.001);

    EXPECT_EQ(FitZoom({1024, 768}, {4096, 100}), 0.25);
    EXPECT_EQ(FitZoom({1000, 500}, {100, 100}), 5.0);
    EXPECT_EQ(FitZoom({1000, 1000}, {1, 1}), 384.0);
    EXPECT_EQ(FitZoom({100, 100}, {1000000, 10}), kMinZoom);
    EXPECT_EQ(FitZoom({100, 100}, {0, 0}), 1.0);
}

TEST(ViewZoom, CommandTexts) {
    const struct {
        int id;
        const char* text;
    } cases[] = {{32833, "Display Setting..."},
                 {32936, "Goto Pixel..."},
                 {32868, "Zoom Fit"},
                 {32851, "Original Size"},
                 {32898, "Maximum Image"},
                 {32934, "Blank Image"},
                 {32857, "X 2"},
                 {32862, "X 1/2"},
                 {32887, "Decimal "},
                 {32886, "Hexadecimal"},
                 {32971, "No"},
                 {12345, ""}};
    for (const auto& c : cases) {
        EXPECT_EQ(ViewCommandText(c.id), c.text) << c.id;
    }
}

TEST(ViewZoom, OverlayOnlyAtThreeZooms) {
    EXPECT_EQ(OverlayLevel(384), 0);
    EXPECT_EQ(OverlayLevel(128), 1);
    EXPECT_EQ(OverlayLevel(96), 2);
    for (double zoom : {64.0, 32.0, 1.0, 383.0, 97.0, 0.5}) {
        EXPECT_FALSE(OverlayLevel(zoom)) << zoom;
    }
}

TEST(ViewLayout, ScalingAboutAnAnchorKeepsThePointUnderIt) {
    const ImageRect rect{10, 20, 110, 220};
    const ImageRect scaled = ScaleAbout(rect, 2, {50, 50});
    EXPECT_EQ(scaled, (ImageRect{-30, -10, 170, 390}));
    // The image point under the anchor stays there through any sequence of wheel steps.
    ImageRect r{-123.5, 40.25, -123.5 + 640 * 3, 40.25 + 480 * 3};
    double zoom = 3;
    const cv::Point2d anchor(317, 211);
    const cv::Point2d before = ClientToImage(r, zoom, anchor);
    for (bool forward : {true, true, false, true, false, false, false, false}) {
        const double next = WheelZoom(zoom, forward);
        r = ScaleAbout(r, next / zoom, anchor);
        zoom = next;
        const cv::Point2d after = ClientToImage(r, zoom, anchor);
        EXPECT_NEAR(after.x, before.x, 1e-9);
        EXPECT_NEAR(after.y, before.y, 1e-9);
        EXPECT_NEAR(r.width(), 640 * zoom, 1e-6);
    }
}

TEST(ViewLayout, PlacementAndReach) {
    EXPECT_EQ(InitialLayout({100, 50}, 1, {200, 100}), (ImageRect{50, 25, 150, 75}));
    EXPECT_EQ(InitialLayout({100, 50}, 4, {200, 100}), (ImageRect{0, 0, 400, 200}));
    EXPECT_EQ(CentredIn({4096, 100}, 0.25, {0, 0, 1024, 768}), (ImageRect{0, 371, 1024, 396}));
    EXPECT_TRUE(ImageRect{}.unset());
    EXPECT_TRUE((ImageRect{1e-9, 0, 0, -1e-9}).unset());
    EXPECT_FALSE((ImageRect{0, 0, 1e-7, 0}).unset());
    // Dragged far away, 32 pixels of the image stay in the client area.
    EXPECT_EQ(KeptInReach(ImageRect{5000, -9000, 5400, -8700}, {640, 480}),
              (ImageRect{608, -268, 1008, 32}));
    // A small image only needs to stay in reach as a whole.
    EXPECT_EQ(KeptInReach(ImageRect{-50, 0, -40, 10}, {640, 480}), (ImageRect{0, 0, 10, 10}));
    const ImageRect inside{-100, -100, 1000, 1000};
    EXPECT_EQ(KeptInReach(inside, {640, 480}), inside);
}

TEST(ViewLayout, GotoCentresThePixel) {
    const ImageRect rect{-1000.5, 33, -1000.5 + 4096 * 4, 33 + 3072 * 4};
    const ImageRect moved = CentredOnPixel(rect, 4, {4095, 0}, {801, 600});
    const cv::Point2d centre = PixelCentre(moved, 4, {4095, 0});
    EXPECT_DOUBLE_EQ(centre.x, 400.5);
    EXPECT_DOUBLE_EQ(centre.y, 300);
    EXPECT_EQ(ImagePixelAt(moved, 4, {400.5, 300}), cv::Point(4095, 0));
    EXPECT_DOUBLE_EQ(moved.width(), rect.width());
}

TEST(ViewLayout, PixelUnderAPoint) {
    const ImageRect rect{-10, 5, 630, 485};
    EXPECT_EQ(ImagePixelAt(rect, 1, {-10, 5}), cv::Point(0, 0));
    EXPECT_EQ(ImagePixelAt(rect, 1, {-10.5, 4.5}), cv::Point(-1, -1));
    EXPECT_EQ(ImagePixelAt(rect, 2, {9.99, 5}), cv::Point(9, 0));
    EXPECT_EQ(ImagePixelAt(rect, 2, {10, 5}), cv::Point(10, 0));
}

TEST(ViewLayout, ScrollBars) {
    const struct {
        double lo, hi;
        int page;
        ScrollAxis axis;
    } cases[] = {
        {-100, 900, 500, {500, 500, 100, true}}, {0, 1000, 500, {500, 500, 0, true}},
        {-500, 500, 500, {500, 500, 500, true}}, {10, 110, 500, {0, 500, 0, false}},
        {-10, 90, 500, {10, 500, 10, false}},  // smaller than the page: no bar
        {200, 1200, 500, {700, 500, 0, true}},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(ScrollFor(c.lo, c.hi, c.page), c.axis) << c.lo << " " << c.hi;
    }
    // Moving the bar moves the image by the difference, and the bar then reads the new value.
    for (int value : {0, 1, 250, 500}) {
        const double shift = ScrollShift(-100, 900, 500, value);
        EXPECT_EQ(ScrollFor(-100 + shift, 900 + shift, 500).value, value);
    }
}

TEST(ViewLayout, VisiblePartAtOneToOne) {
    const VisiblePart part = MapVisible({50, 25, 150, 75}, 1, {100, 50}, {200, 100});
    EXPECT_EQ(part.source, cv::Rect(0, 0, 100, 50));
    EXPECT_EQ(part.scaled, cv::Size(100, 50));
    EXPECT_EQ(part.origin, cv::Point(50, 25));
    EXPECT_EQ(part.crop, cv::Rect(0, 0, 100, 50));
    EXPECT_EQ(part.target(), cv::Point(50, 25));
}

TEST(ViewLayout, VisiblePartClipsToTheClientArea) {
    // Scrolled: the first 13 columns and 7 rows are off the client area.
    VisiblePart part = MapVisible({-13, -7, 87, 43}, 1, {100, 50}, {20, 15});
    EXPECT_EQ(part.source, cv::Rect(13, 7, 20, 15));
    EXPECT_EQ(part.crop, cv::Rect(0, 0, 20, 15));
    EXPECT_EQ(part.target(), cv::Point(0, 0));

    // At 384 a partly visible pixel is drawn in part.
    part = MapVisible({-1000, -500, -1000 + 10 * 384, -500 + 10 * 384}, 384, {10, 10}, {800, 600});
    // Columns 2 to 4 (client -232 to 920) and rows 1 and 2 (client -116 to 652).
    EXPECT_EQ(part.source, cv::Rect(2, 1, 3, 2));
    EXPECT_EQ(part.scaled, cv::Size(3 * 384, 2 * 384));
    EXPECT_EQ(part.origin, cv::Point(-232, -116));
    EXPECT_EQ(part.crop, cv::Rect(232, 116, 800, 600));

    // Below 1 the part is the whole image at the display's size.
    part = MapVisible({0, 0, 1024, 768}, 0.25, {4096, 3072}, {1024, 768});
    EXPECT_EQ(part.source, cv::Rect(0, 0, 4096, 3072));
    EXPECT_EQ(part.scaled, cv::Size(1024, 768));

    // Nothing visible.
    EXPECT_TRUE(MapVisible({5000, 0, 5100, 50}, 1, {100, 50}, {640, 480}).source.empty());
    EXPECT_TRUE(MapVisible({0, 0, 100, 50}, 1, {100, 50}, {0, 0}).source.empty());
}

TEST(ViewLayout, GotoPixelLimits) {
    const PixelLimits limits = GotoPixelLimits(640, 480);
    EXPECT_EQ(limits.maxX, 639);
    EXPECT_EQ(limits.maxY, 479);
    const struct {
        const char* text;
        int limit;
        std::optional<int> value;
    } cases[] = {
        {"0", 639, 0},
        {"639", 639, 639},
        {"640", 639, std::nullopt},
        {"-1", 639, std::nullopt},
        {"abc", 639, std::nullopt},
        {"", 639, std::nullopt},
        {" 12 ", 639, 12},
        {"1e3", 639, std::nullopt},
        {"+5", 639, std::nullopt},
        {"479", 479, 479},
        {"480", 479, std::nullopt},
        {"99999999999", 639, std::nullopt},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(ParsePixelCoordinate(c.text, c.limit), c.value) << '"' << c.text << '"';
    }
}

}  // namespace
}  // namespace lumetra
