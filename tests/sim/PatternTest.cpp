#include <gtest/gtest.h>

#include <jpeglib.h>

#include <cstring>
#include <vector>

#include "FrameProducer.h"
#include "JpegEncoder.h"
#include "PatternGenerator.h"

namespace orvix::sim {
namespace {

constexpr Pattern kAllPatterns[] = {Pattern::Gradient, Pattern::Bars,  Pattern::Checker,
                                    Pattern::Noise,    Pattern::Scene, Pattern::Flat,
                                    Pattern::Static};

FrameFormat fmt(uint32_t w, uint32_t h, uint32_t type, uint32_t bits, uint32_t bayer = 0) {
    FrameFormat f;
    f.width = w;
    f.height = h;
    f.imageType = type;
    f.bits = bits;
    f.bayer = bayer;
    return f;
}

uint32_t sample(const std::vector<uint8_t>& frame, const FrameFormat& f, uint32_t x, uint32_t y,
                uint32_t c) {
    size_t at = y * f.rowBytes() + size_t{x} * f.bytesPerPixel() + size_t{c} * f.bytesPerSample();
    return f.bytesPerSample() == 1 ? frame[at] : uint32_t(frame[at] | (frame[at + 1] << 8));
}

std::vector<uint8_t> renderFrame(const PatternGenerator& g, uint64_t n) {
    std::vector<uint8_t> frame(g.format().frameBytes());
    g.render(n, frame.data());
    return frame;
}

TEST(PatternTest, EveryPatternFillsExactlyOneFrameWithinTheSampleRange) {
    const FrameFormat formats[] = {fmt(37, 11, 0, 8),  fmt(36, 10, 0, 12, 1), fmt(17, 5, 1, 10),
                                   fmt(16, 9, 2, 8),   fmt(9, 7, 4, 14),      fmt(1, 1, 0, 16),
                                   fmt(2, 3, 3, 16, 3)};
    for (Pattern p : kAllPatterns) {
        for (const FrameFormat& f : formats) {
            PatternGenerator g(f, p, PatternGenerator::halfRange(f), {});
            const size_t bytes = f.frameBytes();
            std::vector<uint8_t> buf(bytes + 64, 0xA5);
            g.render(3, buf.data());
            for (size_t i = bytes; i < buf.size(); ++i) {
                ASSERT_EQ(buf[i], 0xA5) << patternName(p) << ": wrote past the frame";
            }
            buf.resize(bytes);
            if (p == Pattern::Static) {
                continue;  // its stamp is a frame number, not a sample
            }
            for (uint32_t y = 0; y < f.height; ++y) {
                for (uint32_t x = 0; x < f.width; ++x) {
                    for (uint32_t c = 0; c < f.channels(); ++c) {
                        ASSERT_LE(sample(buf, f, x, y, c), f.maxSample())
                            << patternName(p) << " bits " << f.bits;
                    }
                }
            }
            EXPECT_EQ(renderFrame(g, 3), buf) << patternName(p) << " must be reproducible";
        }
    }
}

TEST(PatternTest, MovingPatternsShiftByTheirSpeedAndWrap) {
    const FrameFormat f = fmt(40, 6, 1, 12);
    for (Pattern p : {Pattern::Bars, Pattern::Gradient, Pattern::Checker, Pattern::Scene}) {
        PatternGenerator g(f, p, 0, {});
        ASSERT_GT(g.period(), 0u);
        ASSERT_EQ(g.period() % 2, 0u) << "an odd period would break the Bayer phase";
        auto a = renderFrame(g, 5);
        auto b = renderFrame(g, 6);
        for (uint32_t y = 0; y < f.height; ++y) {
            for (uint32_t x = 0; x + PatternGenerator::kSpeed < f.width; ++x) {
                for (uint32_t c = 0; c < 3; ++c) {
                    ASSERT_EQ(sample(b, f, x, y, c),
                              sample(a, f, x + PatternGenerator::kSpeed, y, c))
                        << patternName(p) << " at " << x << "," << y;
                }
            }
        }
        // After a whole period the picture is back where it started.
        uint64_t cycle = g.period() / PatternGenerator::kSpeed;
        EXPECT_EQ(renderFrame(g, 5 + cycle), a) << patternName(p);
        EXPECT_NE(a, b) << patternName(p) << " should move";
    }
}

TEST(PatternTest, BarsHaveTheirColoursInBgrOrder) {
    const FrameFormat f = fmt(64, 2, 2, 8);  // 4 channels: B, G, R, C
    PatternGenerator g(f, Pattern::Bars, 0, {});
    auto frame = renderFrame(g, 0);
    const uint32_t bar = g.period() / 8;
    struct Expect {
        int index;
        uint32_t b, gr, r;
    };
    // white, yellow, cyan, green, magenta, red, blue, black
    const Expect bars[] = {{0, 255, 255, 255}, {1, 0, 255, 255}, {2, 255, 255, 0}, {3, 0, 255, 0},
                           {4, 255, 0, 255},   {5, 0, 0, 255},   {6, 255, 0, 0},   {7, 0, 0, 0}};
    for (const Expect& e : bars) {
        uint32_t x = e.index * bar + bar / 2;
        EXPECT_EQ(sample(frame, f, x, 1, 0), e.b) << "bar " << e.index;
        EXPECT_EQ(sample(frame, f, x, 1, 1), e.gr) << "bar " << e.index;
        EXPECT_EQ(sample(frame, f, x, 1, 2), e.r) << "bar " << e.index;
        uint32_t gray = (299 * e.r + 587 * e.gr + 114 * e.b + 500) / 1000;
        EXPECT_EQ(sample(frame, f, x, 1, 3), gray) << "bar " << e.index;
    }
}

TEST(PatternTest, MosaicsFollowTheBayerPatternAndKeepThePhaseWhileMoving) {
    // In the red bar only the red sites of the mosaic are lit.
    struct Case {
        uint32_t bayer;
        uint32_t redX, redY;
    };
    const Case cases[] = {{1, 1, 1}, {2, 0, 0}, {3, 0, 1}, {4, 1, 0}};
    for (const Case& c : cases) {
        const FrameFormat f = fmt(160, 4, 0, 10, c.bayer);
        PatternGenerator g(f, Pattern::Bars, 0, {});
        const uint32_t bar = g.period() / 8;
        for (uint64_t n : {0ull, 1ull, 7ull}) {
            auto frame = renderFrame(g, n);
            // Find a 2x2 cell fully inside the red bar (index 5) of this frame.
            uint32_t start = (5 * bar + g.period() - g.shiftOf(n)) % g.period();
            uint32_t x0 = (start + 2) & ~1u;
            for (uint32_t dy = 0; dy < 2; ++dy) {
                for (uint32_t dx = 0; dx < 2; ++dx) {
                    bool red = dx == c.redX && dy == c.redY;
                    EXPECT_EQ(sample(frame, f, x0 + dx, dy, 0), red ? 1023u : 0u)
                        << "bayer " << c.bayer << " frame " << n << " site " << dx << "," << dy;
                }
            }
        }
    }
}

TEST(PatternTest, GradientRampsAcrossThePeriod) {
    const FrameFormat f = fmt(256, 1, 0, 8);
    PatternGenerator g(f, Pattern::Gradient, 0, {});
    auto frame = renderFrame(g, 0);
    EXPECT_EQ(sample(frame, f, 0, 0, 0), 0u);
    EXPECT_EQ(sample(frame, f, 255, 0, 0), 255u);
    for (uint32_t x = 1; x < 256; ++x) {
        EXPECT_GE(sample(frame, f, x, 0, 0), sample(frame, f, x - 1, 0, 0));
    }
}

TEST(PatternTest, FlatIsTheLevelEverywhereAndDefectsAreForced) {
    const FrameFormat f = fmt(20, 10, 1, 12);
    std::vector<Defect> defects = {{0, 0, 4095}, {19, 9, 0}, {5, 5, 70000}, {20, 0, 1}, {0, 10, 1}};
    PatternGenerator g(f, Pattern::Flat, 1234, defects);
    for (uint64_t n : {0ull, 1ull, 99ull}) {
        auto frame = renderFrame(g, n);
        for (uint32_t y = 0; y < f.height; ++y) {
            for (uint32_t x = 0; x < f.width; ++x) {
                uint32_t expected = 1234;
                if (x == 0 && y == 0) {
                    expected = 4095;
                } else if (x == 19 && y == 9) {
                    expected = 0;
                } else if (x == 5 && y == 5) {
                    expected = 4095;  // clamped to the sample range
                }
                for (uint32_t c = 0; c < 3; ++c) {
                    ASSERT_EQ(sample(frame, f, x, y, c), expected)
                        << x << "," << y << " frame " << n;
                }
            }
        }
    }
    EXPECT_EQ(PatternGenerator::halfRange(fmt(1, 1, 0, 12)), 2048u);
    EXPECT_EQ(PatternGenerator::halfRange(fmt(1, 1, 0, 8)), 128u);
    PatternGenerator clamped(fmt(2, 2, 0, 8), Pattern::Flat, 1000, {});
    EXPECT_EQ(renderFrame(clamped, 0), std::vector<uint8_t>(4, 255));
}

TEST(PatternTest, StaticFramesOnlyCarryTheirNumber) {
    const FrameFormat f = fmt(32, 4, 0, 8);
    PatternGenerator g(f, Pattern::Static, 0, {});
    auto first = renderFrame(g, 0);
    std::vector<uint8_t> buffer = first;
    g.stamp(0x01020304, buffer.data());
    EXPECT_EQ(buffer[0], 0x04);
    EXPECT_EQ(buffer[1], 0x03);
    EXPECT_EQ(buffer[2], 0x02);
    EXPECT_EQ(buffer[3], 0x01);
    EXPECT_TRUE(std::equal(buffer.begin() + 4, buffer.end(), first.begin() + 4));
    EXPECT_EQ(renderFrame(g, 0x01020304), buffer) << "a full render stamps the same way";
}

TEST(PatternTest, NoiseChangesPerFrameAndStaysInRange) {
    const FrameFormat f = fmt(33, 3, 0, 10);
    PatternGenerator g(f, Pattern::Noise, 0, {{1, 1, 7}});
    auto a = renderFrame(g, 1);
    auto b = renderFrame(g, 2);
    EXPECT_NE(a, b);
    EXPECT_EQ(renderFrame(g, 1), a);
    uint32_t maxSeen = 0;
    for (uint32_t x = 0; x < f.width; ++x) {
        maxSeen = std::max(maxSeen, sample(a, f, x, 0, 0));
    }
    EXPECT_GT(maxSeen, 511u) << "noise should use the whole range";
    EXPECT_EQ(sample(a, f, 1, 1, 0), 7u);
}

// Decodes a JPEG held in memory to 8-bit samples in the given colour space.
std::vector<uint8_t> decodeJpeg(const uint8_t* data, size_t size, J_COLOR_SPACE space, uint32_t& w,
                                uint32_t& h, int& components) {
    jpeg_decompress_struct cinfo{};
    jpeg_error_mgr err{};
    cinfo.err = jpeg_std_error(&err);
    jpeg_create_decompress(&cinfo);
    jpeg_mem_src(&cinfo, data, static_cast<unsigned long>(size));
    jpeg_read_header(&cinfo, TRUE);
    cinfo.out_color_space = space;
    jpeg_start_decompress(&cinfo);
    w = cinfo.output_width;
    h = cinfo.output_height;
    components = cinfo.output_components;
    std::vector<uint8_t> out(size_t{w} * h * components);
    while (cinfo.output_scanline < h) {
        JSAMPROW row = out.data() + size_t{cinfo.output_scanline} * w * components;
        jpeg_read_scanlines(&cinfo, &row, 1);
    }
    jpeg_finish_decompress(&cinfo);
    jpeg_destroy_decompress(&cinfo);
    return out;
}

double meanAbsDiff(const std::vector<uint8_t>& a, const std::vector<uint8_t>& b) {
    double sum = 0;
    for (size_t i = 0; i < a.size(); ++i) {
        sum += std::abs(int(a[i]) - int(b[i]));
    }
    return sum / double(a.size());
}

TEST(JpegTest, CompressedFramesDecodeToTheOriginal) {
    struct Case {
        FrameFormat format;
        J_COLOR_SPACE space;
        int components;
    };
    const Case cases[] = {{fmt(64, 48, 0, 8), JCS_GRAYSCALE, 1},
                          {fmt(64, 48, 1, 8), JCS_EXT_BGR, 3}};
    for (const Case& c : cases) {
        PatternGenerator g(c.format, Pattern::Gradient, 0, {});
        auto raw = renderFrame(g, 0);
        std::vector<uint8_t> out(raw.size());
        JpegEncoder encoder;
        JpegResult r = encoder.encode(raw.data(), c.format, 95, out.data(), out.size());
        ASSERT_TRUE(r.ok) << r.error;
        ASSERT_GT(r.size, 2u);
        EXPECT_EQ(out[0], 0xFF);
        EXPECT_EQ(out[1], 0xD8);
        uint32_t w = 0, h = 0;
        int comps = 0;
        auto decoded = decodeJpeg(out.data(), r.size, c.space, w, h, comps);
        EXPECT_EQ(w, 64u);
        EXPECT_EQ(h, 48u);
        ASSERT_EQ(comps, c.components);
        EXPECT_LT(meanAbsDiff(decoded, raw), 3.0);
    }
}

TEST(JpegTest, WideSamplesKeepTheirTopEightBits) {
    const FrameFormat f = fmt(32, 16, 0, 12);
    PatternGenerator g(f, Pattern::Flat, 0xAB0, {});
    auto raw = renderFrame(g, 0);
    std::vector<uint8_t> out(raw.size());
    JpegEncoder encoder;
    JpegResult r = encoder.encode(raw.data(), f, 100, out.data(), out.size());
    ASSERT_TRUE(r.ok);
    uint32_t w = 0, h = 0;
    int comps = 0;
    auto decoded = decodeJpeg(out.data(), r.size, JCS_GRAYSCALE, w, h, comps);
    for (uint8_t v : decoded) {
        ASSERT_NEAR(v, 0xAB, 1);
    }
}

TEST(JpegTest, ATooSmallBufferIsAnOverflow) {
    const FrameFormat f = fmt(64, 64, 0, 8);
    PatternGenerator g(f, Pattern::Noise, 0, {});
    auto raw = renderFrame(g, 0);
    std::vector<uint8_t> out(100);
    JpegEncoder encoder;
    JpegResult r = encoder.encode(raw.data(), f, 90, out.data(), out.size());
    EXPECT_FALSE(r.ok);
    EXPECT_TRUE(r.overflow);
    EXPECT_EQ(r.size, 0u);
}

TEST(FrameProducerTest, StaticBuffersAreDrawnOnceThenOnlyStamped) {
    ProducerSetup setup;
    setup.format = fmt(16, 4, 0, 8);
    setup.pattern = Pattern::Static;
    FrameProducer producer(setup, 2);
    std::vector<uint8_t> slot(setup.format.frameBytes(), 0);
    OrvixBufferStatus s = producer.produce(0, 0, slot.data(), slot.size());
    EXPECT_EQ(s.ready, 1u);
    slot[10] = 0x77;  // a mark the board has no reason to touch again
    producer.produce(2, 0, slot.data(), slot.size());
    EXPECT_EQ(slot[0], 2);
    EXPECT_EQ(slot[10], 0x77);

    std::vector<uint8_t> other(setup.format.frameBytes(), 0x55);
    producer.produce(1, 1, other.data(), other.size());
    EXPECT_EQ(other, renderFrame(producer.generator(), 1))
        << "a buffer's first frame is drawn in full";
}

TEST(FrameProducerTest, ABufferTooSmallForTheFrameIsFlagged) {
    ProducerSetup setup;
    setup.format = fmt(16, 4, 0, 8);
    FrameProducer producer(setup, 1);
    std::vector<uint8_t> slot(10);
    OrvixBufferStatus s = producer.produce(0, 0, slot.data(), slot.size());
    EXPECT_EQ(s.ready, 0u);
    EXPECT_EQ(s.overflow, 1u);
}

}  // namespace
}  // namespace orvix::sim
