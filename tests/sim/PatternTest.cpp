#include <gtest/gtest.h>

#include <cstring>
#include <map>
#include <vector>

#include "FrameProducer.h"
#include "JpegEncoder.h"
#include "PatternGenerator.h"
#include "TestSupport.h"

namespace orvix::sim {
namespace {

constexpr Pattern kAllPatterns[] = {Pattern::Gradient, Pattern::Bars,  Pattern::Checker,
                                    Pattern::Noise,    Pattern::Scene, Pattern::Flat,
                                    Pattern::Static};

using test::fmt;
using test::renderFrame;

uint32_t sample(const std::vector<uint8_t>& frame, const FrameFormat& f, uint32_t x, uint32_t y,
                uint32_t c) {
    size_t at = y * f.rowBytes() + size_t{x} * f.bytesPerPixel() + size_t{c} * f.bytesPerSample();
    return f.bytesPerSample() == 1 ? frame[at] : uint32_t(frame[at] | (frame[at + 1] << 8));
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
    // B, G, R of white, yellow, cyan, green, magenta, red, blue, black
    const uint32_t bars[8][3] = {{255, 255, 255}, {0, 255, 255}, {255, 255, 0}, {0, 255, 0},
                                 {255, 0, 255},   {0, 0, 255},   {255, 0, 0},   {0, 0, 0}};
    for (uint32_t i = 0; i < 8; ++i) {
        SCOPED_TRACE(testing::Message() << "bar " << i);
        const uint32_t x = i * bar + bar / 2;
        const auto [b, gr, r] = bars[i];
        EXPECT_EQ(sample(frame, f, x, 1, 0), b);
        EXPECT_EQ(sample(frame, f, x, 1, 1), gr);
        EXPECT_EQ(sample(frame, f, x, 1, 2), r);
        EXPECT_EQ(sample(frame, f, x, 1, 3), (299 * r + 587 * gr + 114 * b + 500) / 1000);
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
    // The last two defects lie outside the frame; 70000 is clamped to the sample range.
    std::vector<Defect> defects = {{0, 0, 4095}, {19, 9, 0}, {5, 5, 70000}, {20, 0, 1}, {0, 10, 1}};
    const std::map<std::pair<uint32_t, uint32_t>, uint32_t> forced = {
        {{0, 0}, 4095}, {{19, 9}, 0}, {{5, 5}, 4095}};
    PatternGenerator g(f, Pattern::Flat, 1234, defects);
    for (uint64_t n : {0ull, 1ull, 99ull}) {
        auto frame = renderFrame(g, n);
        for (uint32_t y = 0; y < f.height; ++y) {
            for (uint32_t x = 0; x < f.width; ++x) {
                auto at = forced.find({x, y});
                const uint32_t expected = at == forced.end() ? 1234 : at->second;
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
    EXPECT_EQ(std::vector<uint8_t>(buffer.begin(), buffer.begin() + 4),
              (std::vector<uint8_t>{0x04, 0x03, 0x02, 0x01}))
        << "little-endian";
    EXPECT_TRUE(std::equal(buffer.begin() + 4, buffer.end(), first.begin() + 4));
    EXPECT_EQ(renderFrame(g, 0x01020304), buffer) << "a full render stamps the same way";
}

TEST(PatternTest, NoiseChangesPerFrameAndStaysInRange) {
    const FrameFormat f = fmt(33, 3, 0, 10);
    PatternGenerator g(f, Pattern::Noise, 0, {{1, 1, 7}});
    auto a = renderFrame(g, 1);
    auto b = renderFrame(g, 2);
    EXPECT_NE(a, b);
    uint32_t maxSeen = 0;
    for (uint32_t x = 0; x < f.width; ++x) {
        maxSeen = std::max(maxSeen, sample(a, f, x, 0, 0));
    }
    EXPECT_GT(maxSeen, 511u) << "noise should use the whole range";
    EXPECT_EQ(sample(a, f, 1, 1, 0), 7u);
}

double meanAbsDiff(const std::vector<uint8_t>& a, const std::vector<uint8_t>& b) {
    double sum = 0;
    for (size_t i = 0; i < a.size(); ++i) {
        sum += std::abs(int(a[i]) - int(b[i]));
    }
    return sum / double(a.size());
}

struct Encoded {
    std::vector<uint8_t> raw;
    std::vector<uint8_t> out;  // `capacity` bytes, the JPEG at their start
    JpegResult result;
};

Encoded encodeFrame(const FrameFormat& f, Pattern pattern, uint32_t level, int quality,
                    size_t capacity) {
    Encoded e{renderFrame(PatternGenerator(f, pattern, level, {}), 0),
              std::vector<uint8_t>(capacity),
              {}};
    e.result = JpegEncoder().encode(e.raw.data(), f, quality, e.out.data(), capacity);
    return e;
}

TEST(JpegTest, CompressedFramesDecodeToTheOriginal) {
    struct Case {
        FrameFormat format;
        bool colour;
        int components;
    };
    const Case cases[] = {{fmt(64, 48, 0, 8), false, 1}, {fmt(64, 48, 1, 8), true, 3}};
    for (const Case& c : cases) {
        Encoded e = encodeFrame(c.format, Pattern::Gradient, 0, 95, c.format.frameBytes());
        ASSERT_TRUE(e.result.ok) << e.result.error;
        ASSERT_GT(e.result.size, 2u);
        EXPECT_EQ(e.out[0], 0xFF);
        EXPECT_EQ(e.out[1], 0xD8);
        test::DecodedJpeg d = test::decodeJpeg(e.out.data(), e.result.size, c.colour);
        EXPECT_EQ(d.width, 64u);
        EXPECT_EQ(d.height, 48u);
        EXPECT_EQ(d.components, c.components);
        EXPECT_LT(meanAbsDiff(d.samples, e.raw), 3.0);
    }
}

TEST(JpegTest, WideSamplesKeepTheirTopEightBits) {
    const FrameFormat f = fmt(32, 16, 0, 12);
    Encoded e = encodeFrame(f, Pattern::Flat, 0xAB0, 100, f.frameBytes());
    ASSERT_TRUE(e.result.ok);
    for (uint8_t v : test::decodeJpeg(e.out.data(), e.result.size, false).samples) {
        ASSERT_NEAR(v, 0xAB, 1);
    }
}

TEST(JpegTest, ATooSmallBufferIsAnOverflow) {
    JpegResult r = encodeFrame(fmt(64, 64, 0, 8), Pattern::Noise, 0, 90, 100).result;
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
