#include "PatternGenerator.h"

#include <algorithm>
#include <bit>
#include <cmath>
#include <cstring>
#include <numbers>

namespace orvix::sim {
namespace {

static_assert(std::endian::native == std::endian::little,
              "frames hold little-endian 16-bit samples");

uint32_t even(uint32_t v) {
    return std::max<uint32_t>(2, v + (v & 1u));
}

// White, yellow, cyan, green, magenta, red, blue, black.
constexpr double kBars[8][3] = {{1, 1, 1}, {1, 1, 0}, {0, 1, 1}, {0, 1, 0},
                                {1, 0, 1}, {1, 0, 0}, {0, 0, 1}, {0, 0, 0}};

// Which colour each position of the 2x2 cell samples (0 R, 1 G, 2 B), by pattern 1..4.
constexpr int kMosaic[5][2][2] = {
    {{1, 1}, {1, 1}}, {{2, 1}, {1, 0}},  // BGGR
    {{0, 1}, {1, 2}},                    // RGGB
    {{1, 2}, {0, 1}},                    // GBRG
    {{1, 0}, {2, 1}},                    // GRBG
};

double wrapped(double d) {
    return d - std::round(d);
}

}  // namespace

PatternGenerator::PatternGenerator(const FrameFormat& format, Pattern pattern, uint32_t level,
                                   std::vector<Defect> defects)
    : format_(format),
      pattern_(pattern),
      level_(std::min(level, format.maxSample())),
      defects_(std::move(defects)) {
    buildMaster();
}

uint32_t PatternGenerator::shiftOf(uint64_t frameNumber) const {
    if (period_ == 0) {
        return 0;
    }
    return static_cast<uint32_t>((frameNumber % period_) * kSpeed % period_);
}

void PatternGenerator::buildMaster() {
    const uint32_t w = format_.width;
    const uint32_t h = format_.height;
    bool rowInvariant = false;
    switch (pattern_) {
        case Pattern::Gradient:
            period_ = even(w);
            rowInvariant = true;
            break;
        case Pattern::Bars:
            period_ = 8 * even((w + 7) / 8);
            rowInvariant = true;
            break;
        case Pattern::Checker:
            period_ = 2 * even(std::min(w, h) / 8);
            break;
        case Pattern::Scene:
            period_ = even(w);
            break;
        case Pattern::Flat:
            period_ = 0;
            rowInvariant = true;
            break;
        case Pattern::Static:
            period_ = 0;
            rowInvariant = true;
            break;
        case Pattern::Noise:
            return;  // drawn per frame
    }
    // A row-invariant pattern still needs both row phases of a mosaic.
    masterRows_ = rowInvariant ? (format_.mosaicked() ? std::min<uint32_t>(2, h) : 1) : h;
    const uint32_t masterWidth = w + period_;
    const uint32_t bpp = format_.bytesPerPixel();
    masterRowBytes_ = uint64_t{masterWidth} * bpp;
    master_.assign(masterRowBytes_ * masterRows_, 0);

    if (pattern_ == Pattern::Scene) {
        horizon_.resize(period_);
        for (uint32_t x = 0; x < period_; ++x) {
            double u = double(x) / period_;
            horizon_[x] = 0.62 + 0.06 * std::sin(2 * std::numbers::pi * u) +
                          0.03 * std::sin(6 * std::numbers::pi * u + 1.0);
        }
    }
    for (uint32_t y = 0; y < masterRows_; ++y) {
        uint8_t* row = master_.data() + y * masterRowBytes_;
        for (uint32_t x = 0; x < masterWidth; ++x) {
            uint8_t* px = row + uint64_t{x} * bpp;
            if (pattern_ == Pattern::Flat) {
                for (uint32_t c = 0; c < format_.channels(); ++c) {
                    writeSample(px, c, level_);
                }
                continue;
            }
            uint32_t xp = period_ == 0 ? x : x % period_;
            writePixel(px, x, y, colourAt(xp, y));
        }
    }
}

PatternGenerator::Rgb PatternGenerator::colourAt(uint32_t x, uint32_t y) const {
    const uint32_t w = format_.width;
    const uint32_t h = format_.height;
    switch (pattern_) {
        case Pattern::Gradient:
        case Pattern::Static: {
            uint32_t span = period_ == 0 ? w : period_;
            double t = span > 1 ? double(x) / (span - 1) : 0.0;
            return {t, t, t};
        }
        case Pattern::Bars: {
            const double* c = kBars[(x / (period_ / 8)) % 8];
            return {c[0], c[1], c[2]};
        }
        case Pattern::Checker: {
            uint32_t cell = period_ / 2;
            double v = ((x / cell + y / cell) & 1u) ? 0.85 : 0.15;
            return {v, v, v};
        }
        case Pattern::Scene: {
            double u = double(x) / period_;
            double v = h > 1 ? double(y) / (h - 1) : 0.0;
            double aspect = h > 0 ? double(w) / h : 1.0;
            double horizon = horizon_[x];
            if (v < horizon) {
                double du = wrapped(u - 0.25) * aspect;
                double dv = v - 0.2;
                if (du * du + dv * dv < 0.08 * 0.08) {
                    return {1.0, 0.9, 0.3};  // sun
                }
                return {0.25 + 0.35 * v, 0.45 + 0.35 * v, 0.95 - 0.2 * v};
            }
            double hu = wrapped(u - 0.6);
            if (std::abs(hu) < 0.05 && v < horizon + 0.12) {
                bool door = std::abs(hu) < 0.01 && v > horizon + 0.05;
                return door ? Rgb{0.35, 0.2, 0.1} : Rgb{0.8, 0.15, 0.1};  // house
            }
            if (std::abs(wrapped(u - 0.85)) < 0.1 && v > horizon + 0.15) {
                return {0.1, 0.3, 0.7};  // lake
            }
            double stripe = 0.1 * std::sin(60.0 * v);
            return {0.2, 0.55 + stripe, 0.1};  // field
        }
        case Pattern::Flat:
        case Pattern::Noise:
            break;
    }
    return {0, 0, 0};
}

void PatternGenerator::writeSample(uint8_t* px, uint32_t channel, uint32_t value) const {
    if (format_.bytesPerSample() == 1) {
        px[channel] = static_cast<uint8_t>(value);
    } else {
        auto v = static_cast<uint16_t>(value);
        std::memcpy(px + 2 * channel, &v, 2);
    }
}

void PatternGenerator::writePixel(uint8_t* px, uint32_t x, uint32_t y, const Rgb& c) const {
    const double maxv = format_.maxSample();
    auto q = [&](double v) {
        return static_cast<uint32_t>(std::lround(std::clamp(v, 0.0, 1.0) * maxv));
    };
    const uint32_t rgb[3] = {q(c.r), q(c.g), q(c.b)};
    const uint32_t gray = (299 * rgb[0] + 587 * rgb[1] + 114 * rgb[2] + 500) / 1000;
    if (format_.channels() == 1) {
        writeSample(px, 0, format_.mosaicked() ? rgb[kMosaic[format_.bayer][y & 1][x & 1]] : gray);
        return;
    }
    writeSample(px, 0, rgb[2]);
    writeSample(px, 1, rgb[1]);
    writeSample(px, 2, rgb[0]);
    if (format_.channels() == 4) {
        writeSample(px, 3, gray);
    }
}

void PatternGenerator::render(uint64_t frameNumber, uint8_t* dst) const {
    if (pattern_ == Pattern::Noise) {
        renderNoise(frameNumber, dst);
    } else {
        const uint64_t rowBytes = format_.rowBytes();
        const uint64_t offset = uint64_t{shiftOf(frameNumber)} * format_.bytesPerPixel();
        for (uint32_t y = 0; y < format_.height; ++y) {
            const uint8_t* src = master_.data() + (y % masterRows_) * masterRowBytes_ + offset;
            std::memcpy(dst + y * rowBytes, src, rowBytes);
        }
    }
    applyDefects(dst);
    if (stampsOnly()) {
        stamp(frameNumber, dst);
    }
}

void PatternGenerator::renderNoise(uint64_t frameNumber, uint8_t* dst) const {
    // xorshift64*, seeded by the frame number so that a frame can be reproduced.
    uint64_t state = 0x9E3779B97F4A7C15ull ^ (frameNumber * 0xBF58476D1CE4E5B9ull);
    state = state == 0 ? 1 : state;
    uint64_t mask = ~uint64_t{0};
    if (format_.bytesPerSample() == 2) {
        uint64_t m = format_.maxSample();
        mask = m | (m << 16) | (m << 32) | (m << 48);
    }
    const uint64_t bytes = format_.frameBytes();
    uint64_t i = 0;
    for (; i + 8 <= bytes; i += 8) {
        state ^= state >> 12;
        state ^= state << 25;
        state ^= state >> 27;
        uint64_t word = (state * 0x2545F4914F6CDD1Dull) & mask;
        std::memcpy(dst + i, &word, 8);
    }
    if (i < bytes) {
        uint64_t word = (state * 0x2545F4914F6CDD1Dull) & mask;
        std::memcpy(dst + i, &word, bytes - i);
    }
}

void PatternGenerator::applyDefects(uint8_t* dst) const {
    const uint32_t bpp = format_.bytesPerPixel();
    for (const Defect& d : defects_) {
        if (d.x >= format_.width || d.y >= format_.height) {
            continue;
        }
        uint8_t* px = dst + d.y * format_.rowBytes() + uint64_t{d.x} * bpp;
        for (uint32_t c = 0; c < format_.channels(); ++c) {
            writeSample(px, c, std::min(d.value, format_.maxSample()));
        }
    }
}

void PatternGenerator::stamp(uint64_t frameNumber, uint8_t* dst) const {
    auto n = static_cast<uint32_t>(frameNumber);
    std::memcpy(dst, &n, static_cast<size_t>(std::min<uint64_t>(4, format_.frameBytes())));
}

}  // namespace orvix::sim
