// What the view draws, checked against the headless display step (RenderDisplayMode) that
// lumetra-cli convert writes: every mode and format at 1:1, scrolled, magnified and reduced; the
// 2 x 2 block colour below 1/2; the pixel values at the three zooms; the highlight and the colour
// map; the background when no frame is there.
#include <gtest/gtest.h>

#include <atomic>
#include <cmath>
#include <mutex>
#include <string>
#include <thread>

#include <opencv2/imgproc.hpp>

#include "imaging/display_modes.h"
#include "imaging/display_render.h"
#include "imaging/frame_image.h"
#include "imaging/pixel_conversion.h"
#include "imaging/view_render.h"

namespace lumetra {
namespace {

bool Same(const cv::Mat& a, const cv::Mat& b) {
    return a.size() == b.size() && a.type() == b.type() && cv::norm(a, b, cv::NORM_INF) == 0;
}

// A Frame image holding one frame.
struct TestFrame {
    TestFrame(const cv::Mat& pixels, int bitsPerPixel, BayerSettings bayerSettings = {},
              bool rgbc = false)
        : bayer(bayerSettings) {
        FrameFormat f;
        f.width = pixels.cols;
        f.height = pixels.rows;
        f.bitsPerPixel = bitsPerPixel;
        f.channels = rgbc ? 3 : pixels.channels();
        f.rgbc = rgbc;
        frame.setFormat(f);
        BayerSettings b = bayer;
        EXPECT_TRUE(frame.Allocate(bitsPerPixel, b, log));
        cv::Mat target = frame.raw().mat();
        pixels.copyTo(target);
        frame.countFrame();
    }

    // What RenderDisplayMode draws for the frame's flags.
    cv::Mat Reference(int mode) {
        DisplayRequest request;
        request.mode = mode;
        request.bayerPattern = BayerDisplayOn(bayer, frame.raw().channels()) ? bayer.pattern : 0;
        request.pixelBitCount = frame.format().bitsPerPixel;
        if (frame.raw().depth() == 16 && frame.eightBitShift()) {
            request.mapping = SampleMapping::EightBit;
            request.shift = frame.shift();
        } else if (frame.highBit()) {
            request.mapping = SampleMapping::Adaptive;
        }
        DisplayResult result = RenderDisplayMode(frame.raw(), request);
        EXPECT_TRUE(result.ok()) << result.error;
        return result.image;
    }

    ViewSettings Settings(int mode, double zoom, cv::Point2d topLeft, cv::Size client) const {
        ViewSettings s;
        s.zoom = zoom;
        s.rect = RectAt(topLeft, frame.raw().mat().size(), zoom);
        s.client = client;
        s.mode = mode;
        s.bayer = bayer;
        return s;
    }

    FrameImage frame;
    BayerSettings bayer;
    NullMessageLog log;
};

cv::Mat Random(int rows, int cols, int type, double high, int seed) {
    cv::Mat m(rows, cols, type);
    cv::RNG rng(static_cast<uint64_t>(seed));
    rng.fill(m, cv::RNG::UNIFORM, 0, high);
    return m;
}

// Every client pixel of the drawn area holds the reference pixel under it (nearest neighbour on
// the display grid, which is half the raw size for the phase planes).
::testing::AssertionResult DrawsReference(ViewRenderer& renderer, TestFrame& t,
                                          const ViewSettings& s) {
    const cv::Mat& drawn = renderer.Render(t.frame, s, cv::Mat());
    const cv::Mat reference = t.Reference(renderer.info().mode);
    if (drawn.empty() || !renderer.info().frameDrawn) {
        return ::testing::AssertionFailure() << "nothing drawn";
    }
    if (drawn.size() != s.client || drawn.type() != reference.type()) {
        return ::testing::AssertionFailure()
               << "drawing " << drawn.cols << "x" << drawn.rows << " type " << drawn.type()
               << ", reference type " << reference.type();
    }
    const bool half = IsChannelMode(renderer.info().mode);
    const double zoom = half ? s.zoom * 2 : s.zoom;
    const cv::Rect area = renderer.info().imageArea;
    const VisiblePart part = MapVisible(s.rect, zoom, reference.size(), s.client);
    if (area != cv::Rect(part.target(), part.crop.size())) {
        return ::testing::AssertionFailure() << "area " << area << " vs " << part.target();
    }
    const size_t bytes = drawn.elemSize();
    for (int y = 0; y < s.client.height; ++y) {
        for (int x = 0; x < s.client.width; ++x) {
            const uchar* got = drawn.ptr(y, x);
            if (!area.contains({x, y})) {
                for (size_t i = 0; i < bytes; ++i) {
                    if (got[i] != 0) {
                        return ::testing::AssertionFailure() << "background at " << x << "," << y;
                    }
                }
                continue;
            }
            const int gx = part.source.x + static_cast<int>(std::floor((x - part.origin.x) / zoom));
            const int gy = part.source.y + static_cast<int>(std::floor((y - part.origin.y) / zoom));
            if (std::memcmp(got, reference.ptr(gy, gx), bytes) != 0) {
                return ::testing::AssertionFailure()
                       << "client " << x << "," << y << " (image " << gx << "," << gy << ")";
            }
        }
    }
    return ::testing::AssertionSuccess();
}

struct FormatCase {
    const char* name;
    int type;
    double high;
    int bitsPerPixel;
    bool rgbc;
    int bayer;  // pattern, 0 none
    std::vector<int> modes;
};

std::vector<FormatCase> Formats() {
    const std::vector<int> mono{0, 5, 6, 7, 8};
    const std::vector<int> colour{0, 1, 2, 3};
    const std::vector<int> three{0, 1, 2, 3, 9, 10, 11, 12};
    const std::vector<int> four{0, 1, 2, 3, 4, 9, 10, 11, 12, 13};
    return {
        {"mono 8", CV_8UC1, 256, 8, false, 0, mono},
        {"mono 12", CV_16UC1, 4096, 12, false, 0, mono},
        {"mono 16", CV_16UC1, 65536, 16, false, 0, mono},
        {"BGGR 8", CV_8UC1, 256, 8, false, 1, colour},
        {"RGGB 8", CV_8UC1, 256, 8, false, 2, colour},
        {"GBRG 8", CV_8UC1, 256, 8, false, 3, colour},
        {"GRBG 8", CV_8UC1, 256, 8, false, 4, colour},
        {"RGGB 12", CV_16UC1, 4096, 12, false, 2, colour},
        {"BGR 8", CV_8UC3, 256, 24, false, 0, three},
        {"BGR 12", CV_16UC3, 4096, 36, false, 0, three},
        {"RGBC 8", CV_8UC4, 256, 32, true, 0, four},
        {"RGBC 12", CV_16UC4, 4096, 48, true, 0, four},
    };
}

TEST(ViewRender, EveryModeAtOneToOneIsWhatConvertDraws) {
    ViewRenderer renderer;
    int seed = 1;
    for (const FormatCase& f : Formats()) {
        TestFrame t(Random(23, 37, f.type, f.high, seed++), f.bitsPerPixel, {f.bayer != 0, f.bayer},
                    f.rgbc);
        for (int mode : f.modes) {
            const ViewSettings s = t.Settings(mode, 1, {5, 3}, {50, 30});
            EXPECT_TRUE(DrawsReference(renderer, t, s)) << f.name << " mode " << mode;
            EXPECT_EQ(renderer.info().mode, mode) << f.name;
        }
    }
}

TEST(ViewRender, SixteenBitMappings) {
    ViewRenderer renderer;
    TestFrame t(Random(20, 30, CV_16UC1, 1024, 7), 10);
    ASSERT_TRUE(t.frame.highBit());  // "Adaptive" by default for 10 bits
    EXPECT_TRUE(DrawsReference(renderer, t, t.Settings(0, 1, {0, 0}, {30, 20})));
    EXPECT_EQ(renderer.Render(t.frame, t.Settings(0, 1, {0, 0}, {30, 20}), {}).type(), CV_16UC1);
    t.frame.setHighBit(false);
    t.frame.setEightBitShift(true, 2);  // "8 bits", bits 2 to 9
    EXPECT_TRUE(DrawsReference(renderer, t, t.Settings(0, 1, {0, 0}, {30, 20})));
    EXPECT_EQ(renderer.Render(t.frame, t.Settings(0, 1, {0, 0}, {30, 20}), {}).type(), CV_8UC1);
    // "8 bits" chosen and Cancel pressed leaves the high-bit flag on: 8-bit display wins.
    t.frame.setHighBit(true);
    EXPECT_EQ(renderer.Render(t.frame, t.Settings(0, 1, {0, 0}, {30, 20}), {}).type(), CV_8UC1);
    t.frame.setHighBit(false);
    t.frame.setEightBitShift(false, 0);  // "16 bits": as they are
    EXPECT_TRUE(DrawsReference(renderer, t, t.Settings(0, 1, {0, 0}, {30, 20})));
}

TEST(ViewRender, ScrolledMagnifiedAndReduced) {
    ViewRenderer renderer;
    int seed = 50;
    const struct {
        double zoom;
        cv::Point2d topLeft;
        cv::Size client;
    } views[] = {
        {1, {-13, -7}, {20, 15}},     // scrolled: the Bayer margin keeps the edge exact
        {1, {-30.5, 2.5}, {41, 17}},  // half-pixel placement
        {4, {-21, -9}, {57, 41}},     // a partly visible first pixel
        {2, {3, 4}, {200, 120}},      // all of it, smaller than the client area
        {0.5, {-4, -3}, {25, 14}},    // reduced: nearest samples, Bayer demosaiced first
        {0.5, {0, 0}, {40, 40}},
    };
    for (const FormatCase& f : Formats()) {
        TestFrame t(Random(46, 74, f.type, f.high, seed++), f.bitsPerPixel, {f.bayer != 0, f.bayer},
                    f.rgbc);
        for (const auto& v : views) {
            for (int mode : f.modes) {
                EXPECT_TRUE(
                    DrawsReference(renderer, t, t.Settings(mode, v.zoom, v.topLeft, v.client)))
                    << f.name << " mode " << mode << " zoom " << v.zoom << " at " << v.topLeft;
            }
        }
    }
}

TEST(ViewRender, LargeZoomsPlaceWholeBlocks) {
    ViewRenderer renderer;
    TestFrame t(Random(10, 10, CV_8UC1, 256, 3), 8);
    for (double zoom : {32.0, 64.0, 96.0, 128.0, 384.0}) {
        ViewSettings s = t.Settings(0, zoom, {-2 * zoom - 17, -zoom - 5}, {300, 200});
        s.dataFormat = kNoValues;
        EXPECT_TRUE(DrawsReference(renderer, t, s)) << zoom;
    }
}

TEST(ViewRender, BelowOneHalfBayerIsDrawnFromWholeBlocks) {
    ViewRenderer renderer;
    // Each 2 x 2 block holds one colour: red 200, greens 90 and 110, blue 50.
    for (int pattern = 1; pattern <= 4; ++pattern) {
        cv::Mat mosaic(64, 96, CV_8UC1);
        const int r = pattern == 1 ? 3 : pattern == 2 ? 0 : pattern == 3 ? 2 : 1;  // sensor index
        const int b = 3 - r;
        for (int y = 0; y < mosaic.rows; ++y) {
            for (int x = 0; x < mosaic.cols; ++x) {
                const int site = (y % 2) * 2 + x % 2;
                mosaic.at<uint8_t>(y, x) = site == r ? 200 : site == b ? 50 : site < 2 ? 90 : 110;
            }
        }
        TestFrame t(mosaic, 8, {true, pattern});
        for (double zoom : {0.25, 0.125}) {
            const cv::Mat& drawn =
                renderer.Render(t.frame, t.Settings(0, zoom, {0, 0}, {40, 30}), {});
            ASSERT_EQ(drawn.type(), CV_8UC3) << pattern;
            const cv::Rect area = renderer.info().imageArea;
            EXPECT_EQ(area,
                      cv::Rect(0, 0, static_cast<int>(96 * zoom), static_cast<int>(64 * zoom)));
            for (int y = 0; y < area.height; ++y) {
                for (int x = 0; x < area.width; ++x) {
                    EXPECT_EQ(drawn.at<cv::Vec3b>(y, x), cv::Vec3b(50, 100, 200))
                        << "pattern " << pattern << " zoom " << zoom;
                }
            }
            // The library's demosaicing of the same blocks gives the same colour inside.
            const cv::Mat reference = t.Reference(0);
            EXPECT_EQ(reference.at<cv::Vec3b>(10, 10)[2], 200);
            EXPECT_EQ(reference.at<cv::Vec3b>(10, 10)[0], 50);
        }
        // A red plane, picked from the same colour.
        const cv::Mat& red =
            renderer.Render(t.frame, t.Settings(kModeRed, 0.25, {0, 0}, {24, 16}), {});
        ASSERT_EQ(red.type(), CV_8UC1);
        EXPECT_EQ(red.at<uint8_t>(5, 5), 200);
    }
}

TEST(ViewRender, BlocksSampleTheirOwnQuad) {
    // Random mosaic: the display pixel at (x, y) of zoom 1/4 comes from the block at raw (4x, 4y).
    ViewRenderer renderer;
    const cv::Mat mosaic = Random(40, 48, CV_16UC1, 4096, 11);
    TestFrame t(mosaic, 12, {true, 2});  // RGGB
    t.frame.setHighBit(false);
    const cv::Mat& drawn = renderer.Render(t.frame, t.Settings(0, 0.25, {0, 0}, {12, 10}), {});
    ASSERT_EQ(drawn.type(), CV_16UC3);
    for (int y = 0; y < 10; ++y) {
        for (int x = 0; x < 12; ++x) {
            const int r = mosaic.at<uint16_t>(4 * y, 4 * x);
            const int g1 = mosaic.at<uint16_t>(4 * y, 4 * x + 1);
            const int g2 = mosaic.at<uint16_t>(4 * y + 1, 4 * x);
            const int b = mosaic.at<uint16_t>(4 * y + 1, 4 * x + 1);
            const cv::Vec3w got = drawn.at<cv::Vec3w>(y, x);
            EXPECT_EQ(got[0], b);
            EXPECT_NEAR(got[1], (g1 + g2) / 2.0, 0.5);
            EXPECT_EQ(got[2], r);
        }
    }
}

// The pixels of a client rectangle that differ from its first pixel.
int Marks(const cv::Mat& drawn, const cv::Rect& cell) {
    const cv::Mat region = drawn(cell);
    cv::Mat differs;
    cv::Mat first(region.size(), region.type(), cv::Scalar::all(0));
    first.setTo(cv::Scalar(region.at<uint8_t>(0, 0)));
    cv::compare(region, first, differs, cv::CMP_NE);
    return cv::countNonZero(differs);
}

TEST(ViewRender, PixelValuesAtThreeZoomsOnly) {
    ViewRenderer renderer;
    cv::Mat pixels(10, 10, CV_8UC1, cv::Scalar(30));
    pixels.at<uint8_t>(4, 3) = 250;
    TestFrame t(pixels, 8);
    const struct {
        double zoom;
        int level;
    } zooms[] = {{384, 0}, {128, 1}, {96, 2}, {64, -1}, {32, -1}, {2, -1}};
    for (const auto& z : zooms) {
        for (int format : {kDecimal, kHexadecimal, kNoValues}) {
            // Pixel (3, 4) in the client area's top-left corner.
            ViewSettings s = t.Settings(0, z.zoom, {-3 * z.zoom, -4 * z.zoom}, {384, 384});
            s.dataFormat = format;
            const cv::Mat& drawn = renderer.Render(t.frame, s, {});
            const int level = format == kNoValues ? -1 : z.level;
            EXPECT_EQ(renderer.info().overlayLevel, level) << z.zoom << " format " << format;
            const int side = std::min(384, static_cast<int>(z.zoom));
            const int marks = Marks(drawn, {0, 0, side, side});
            if (level >= 0) {
                EXPECT_GT(marks, 20) << z.zoom;
                // Dark text on the bright pixel, light text on its dark neighbour.
                double low = 0, high = 0;
                cv::minMaxLoc(drawn(cv::Rect(0, 0, side, side)), &low, &high);
                EXPECT_EQ(low, 0) << z.zoom;
                if (z.zoom < 384) {
                    cv::minMaxLoc(drawn(cv::Rect(side, 0, side, side)), &low, &high);
                    EXPECT_EQ(high, 255) << z.zoom;
                }
            } else {
                EXPECT_EQ(marks, 0) << z.zoom << " format " << format;
            }
        }
    }
}

TEST(ViewRender, HighlightAndColourMap) {
    ViewRenderer renderer;
    // Two rows: a one-channel raw image needs an auxiliary image of half its height.
    cv::Mat pixels = (cv::Mat_<uint8_t>(2, 4) << 0, 128, 255, 254, 1, 1, 1, 1);
    TestFrame t(pixels, 8);
    ViewSettings s = t.Settings(0, 1, {1, 1}, {6, 4});
    s.highlightClipping = true;
    cv::Mat drawn = renderer.Render(t.frame, s, {}).clone();
    ASSERT_EQ(drawn.type(), CV_8UC3);
    EXPECT_EQ(drawn.at<cv::Vec3b>(1, 1), cv::Vec3b(255, 0, 0));  // zero: blue
    EXPECT_EQ(drawn.at<cv::Vec3b>(1, 2), cv::Vec3b(128, 128, 128));
    EXPECT_EQ(drawn.at<cv::Vec3b>(1, 3), cv::Vec3b(0, 0, 255));  // at the maximum: red
    EXPECT_EQ(drawn.at<cv::Vec3b>(1, 4), cv::Vec3b(254, 254, 254));
    EXPECT_EQ(drawn.at<cv::Vec3b>(0, 0), cv::Vec3b(0, 0, 0));  // background stays black

    s.highlightClipping = false;
    s.falseColour = true;
    drawn = renderer.Render(t.frame, s, {}).clone();
    cv::Mat map;
    cv::applyColorMap(pixels, map, cv::COLORMAP_TURBO);
    EXPECT_TRUE(Same(drawn(cv::Rect(1, 1, 4, 2)), map));
    EXPECT_EQ(drawn.at<cv::Vec3b>(0, 0), cv::Vec3b(0, 0, 0));

    s.highlightClipping = true;  // both: the colour map, then the highlight over it
    drawn = renderer.Render(t.frame, s, {}).clone();
    EXPECT_EQ(drawn.at<cv::Vec3b>(1, 1), cv::Vec3b(255, 0, 0));
    EXPECT_EQ(drawn.at<cv::Vec3b>(1, 2), map.at<cv::Vec3b>(0, 1));
    EXPECT_EQ(drawn.at<cv::Vec3b>(1, 3), cv::Vec3b(0, 0, 255));

    s.highlightClipping = s.falseColour = false;  // off: drawn as designed
    EXPECT_EQ(renderer.Render(t.frame, s, {}).type(), CV_8UC1);
}

TEST(ViewRender, HighlightUsesTheFormatsMaximum) {
    ViewRenderer renderer;
    // 12-bit samples: 4095 is saturated, 4094 is not; 16-bit words above it count too.
    cv::Mat pixels = (cv::Mat_<uint16_t>(2, 4) << 0, 4094, 4095, 5000, 1, 1, 1, 1);
    TestFrame t(pixels, 12);
    ViewSettings s = t.Settings(0, 1, {0, 0}, {4, 2});
    s.highlightClipping = true;
    const cv::Mat& drawn = renderer.Render(t.frame, s, {});
    ASSERT_EQ(drawn.type(), CV_8UC3);
    EXPECT_EQ(drawn.at<cv::Vec3b>(0, 0), cv::Vec3b(255, 0, 0));
    EXPECT_EQ(drawn.at<cv::Vec3b>(0, 1), cv::Vec3b(255, 255, 255));  // 4094 << 4 >> 8
    EXPECT_EQ(drawn.at<cv::Vec3b>(0, 2), cv::Vec3b(0, 0, 255));
    EXPECT_EQ(drawn.at<cv::Vec3b>(0, 3), cv::Vec3b(0, 0, 255));
    // A colour pixel is saturated when any sample is, zero when all are.
    cv::Mat bgr =
        (cv::Mat_<cv::Vec3b>(1, 3) << cv::Vec3b(0, 255, 3), cv::Vec3b(0, 0, 0), cv::Vec3b(0, 9, 0));
    TestFrame c(bgr, 24);
    ViewSettings cs = c.Settings(0, 1, {0, 0}, {3, 1});
    cs.highlightClipping = true;
    const cv::Mat& colour = renderer.Render(c.frame, cs, {});
    EXPECT_EQ(colour.at<cv::Vec3b>(0, 0), cv::Vec3b(0, 0, 255));
    EXPECT_EQ(colour.at<cv::Vec3b>(0, 1), cv::Vec3b(255, 0, 0));
    EXPECT_EQ(colour.at<cv::Vec3b>(0, 2), cv::Vec3b(0, 9, 0));
}

TEST(ViewRender, BackgroundUntilAFrameIsThere) {
    ViewRenderer renderer;
    TestFrame t(cv::Mat(8, 8, CV_8UC1, cv::Scalar(99)), 8);
    t.frame.clearFrameCount();
    const cv::Mat background(10, 20, CV_8UC3, cv::Scalar(0, 0, 255));
    const ViewSettings s = t.Settings(0, 1, {0, 0}, {100, 80});
    const cv::Mat& drawn = renderer.Render(t.frame, s, background);
    EXPECT_TRUE(renderer.info().backgroundDrawn);
    EXPECT_FALSE(renderer.info().frameDrawn);
    ASSERT_EQ(drawn.size(), cv::Size(100, 80));
    EXPECT_EQ(drawn.at<cv::Vec3b>(35, 40), cv::Vec3b(0, 0, 255));  // centred
    EXPECT_EQ(drawn.at<cv::Vec3b>(44, 59), cv::Vec3b(0, 0, 255));
    EXPECT_EQ(drawn.at<cv::Vec3b>(34, 40), cv::Vec3b(0, 0, 0));
    EXPECT_EQ(drawn.at<cv::Vec3b>(45, 60), cv::Vec3b(0, 0, 0));
    // A larger background is shrunk to fit.
    const cv::Mat large(400, 200, CV_8UC1, cv::Scalar(70));
    const cv::Mat& fitted = renderer.Render(t.frame, s, large);
    EXPECT_EQ(fitted.at<cv::Vec3b>(0, 30), cv::Vec3b(70, 70, 70));
    EXPECT_EQ(fitted.at<cv::Vec3b>(0, 29), cv::Vec3b(0, 0, 0));
    // No background: nothing to draw.
    EXPECT_TRUE(renderer.Render(t.frame, s, cv::Mat()).empty());
    t.frame.countFrame();
    renderer.Render(t.frame, s, background);
    EXPECT_TRUE(renderer.info().frameDrawn);
    EXPECT_EQ(renderer.info().frameCount, 1u);
}

TEST(ViewRender, ModesTheFrameCannotShowDrawRgb) {
    const struct {
        int mode, channels;
        bool bayer;
        int drawn;
    } cases[] = {
        {kModeRed, 1, false, kModeRgb},
        {kModeRed, 1, true, kModeRed},
        {kModeClear, 3, false, kModeRgb},
        {kModeClear, 4, false, kModeClear},
        {kModeChannel0, 3, false, kModeRgb},
        {kModeChannel2, 1, true, kModeChannel2},
        {kModeYCrCb, 1, false, kModeRgb},
        {kModeCCrCbToRgb, 3, false, kModeRgb},
        {kModeCCrCbToRgb, 4, false, kModeCCrCbToRgb},
        {kModeY, 3, false, kModeY},
        {42, 3, false, kModeRgb},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(EffectiveDisplayMode(c.mode, c.channels, 64, 64, c.bayer), c.drawn)
            << c.mode << " on " << c.channels;
    }
    EXPECT_EQ(EffectiveDisplayMode(kModeChannel0, 1, 1, 64, false), kModeRgb);  // no plane
}

TEST(ViewRender, MenuVariantsAndLabels) {
    EXPECT_EQ(MenuVariantFor(1, true), MenuVariant::Channels);
    EXPECT_EQ(MenuVariantFor(3, true), MenuVariant::LumaChroma);
    EXPECT_EQ(MenuVariantFor(4, true), MenuVariant::LumaChroma);
    EXPECT_EQ(MenuVariantFor(3, false), MenuVariant::Base);
    EXPECT_EQ(MenuModes(MenuVariant::Base), (std::vector<int>{0, 1, 2, 3, 4}));
    EXPECT_EQ(MenuModes(MenuVariant::Channels), (std::vector<int>{0, 1, 2, 3, 4, 5, 6, 7, 8}));
    EXPECT_EQ(MenuModes(MenuVariant::LumaChroma),
              (std::vector<int>{0, 1, 2, 3, 4, 9, 10, 11, 12, 13}));
    EXPECT_EQ(LabelsFor(0, 1, false), ValueLabels::Plain);
    EXPECT_EQ(LabelsFor(0, 1, true), ValueLabels::Colour);
    EXPECT_EQ(LabelsFor(0, 3, false), ValueLabels::Colour);
    EXPECT_EQ(LabelsFor(0, 4, false), ValueLabels::ColourClear);
    EXPECT_EQ(LabelsFor(9, 3, false), ValueLabels::LumaChroma);
    EXPECT_EQ(LabelsFor(13, 4, false), ValueLabels::Colour);
    EXPECT_EQ(LabelsFor(6, 1, true), ValueLabels::Plain);
}

TEST(ViewRender, GlFormats) {
    EXPECT_EQ(LayoutOfDrawing(cv::Mat(2, 2, CV_8UC1)), PixelLayout::Luminance8);
    EXPECT_EQ(LayoutOfDrawing(cv::Mat(2, 2, CV_16UC1)), PixelLayout::Luminance16);
    EXPECT_EQ(LayoutOfDrawing(cv::Mat(2, 2, CV_8UC3)), PixelLayout::Bgr8);
    EXPECT_EQ(LayoutOfDrawing(cv::Mat(2, 2, CV_16UC3)), PixelLayout::Bgr16);
    EXPECT_EQ(LayoutOfDrawing(cv::Mat(2, 2, CV_8UC4)), PixelLayout::None);
    EXPECT_EQ(LayoutOfDrawing(cv::Mat(2, 2, CV_32FC1)), PixelLayout::None);
    EXPECT_EQ(LayoutOfDrawing(cv::Mat()), PixelLayout::None);
}

TEST(ViewRender, NothingWithoutAnImage) {
    ViewRenderer renderer;
    FrameImage frame;
    frame.raw().Release();
    ViewSettings s;
    s.client = {10, 10};
    EXPECT_TRUE(renderer.Render(frame, s, cv::Mat(4, 4, CV_8UC3)).empty());
    EXPECT_FALSE(renderer.info().frameDrawn);
}

TEST(ViewRenderThreads, DrawsWholeFramesWhileTheGrabWrites) {
    // The grab path writes whole frames under the frame lock; every drawing shows one of them,
    // never a mixture, at every zoom path (copied, reduced, demosaiced).
    TestFrame t(cv::Mat(64, 96, CV_8UC1, cv::Scalar(10)), 8);
    std::atomic<bool> done{false};
    std::thread grab([&] {
        for (int i = 0; !done; ++i) {
            std::lock_guard lock(t.frame.frameLock());
            t.frame.raw().mat().setTo(cv::Scalar(i % 2 ? 200 : 10));
            t.frame.countFrame();
        }
    });
    ViewRenderer renderer;
    const double zooms[] = {1, 0.5, 4, 0.25};
    for (int i = 0; i < 400; ++i) {
        ViewSettings s = t.Settings(0, zooms[i % 4], {0, 0}, {60, 40});
        s.dataFormat = kNoValues;
        if (i % 8 >= 4) {
            s.bayer = {true, 2};  // a flat mosaic stays flat when demosaiced
        }
        const cv::Mat& drawn = renderer.Render(t.frame, s, {});
        ASSERT_FALSE(drawn.empty());
        const cv::Mat area = drawn(renderer.info().imageArea);
        double low = 0, high = 0;
        cv::minMaxLoc(area.reshape(1), &low, &high);
        ASSERT_EQ(low, high) << "a drawing mixes two frames at " << i;
        ASSERT_TRUE(low == 10 || low == 200) << low;
    }
    done = true;
    grab.join();
}

}  // namespace
}  // namespace lumetra
