// Fills frames with the board's test patterns. Every pattern but noise is drawn once into a
// master image whose rows are one horizontal period wider than the frame; a moving frame is then
// one memcpy per row from a shifted start, which keeps production far above camera rates.
//
// Colour frames hold B, G, R (and C = luminance) samples; samples wider than 8 bits are 16-bit
// little-endian words with the value in the low bits; single-channel frames with a Bayer pattern
// are mosaicked (the shift moves by whole 2x2 cells, so the mosaic phase never changes).
// Thread: const methods from any thread; the object does not change after construction.
#pragma once

#include <cstdint>
#include <vector>

#include "BoardConfig.h"
#include "FrameFormat.h"

namespace orvix::sim {

class PatternGenerator {
  public:
    static constexpr uint32_t kSpeed = 2;  // pixels per frame, even to keep the Bayer phase

    // level: the flat pattern's sample value (clamped to the format's range).
    PatternGenerator(const FrameFormat& format, Pattern pattern, uint32_t level,
                     std::vector<Defect> defects);

    const FrameFormat& format() const { return format_; }
    Pattern pattern() const { return pattern_; }
    // Horizontal period in pixels of a moving pattern; 0 for patterns that stand still.
    uint32_t period() const { return period_; }
    uint32_t shiftOf(uint64_t frameNumber) const;

    // Writes frame `frameNumber` in full (format().frameBytes() bytes).
    void render(uint64_t frameNumber, uint8_t* dst) const;
    // The static pattern fills a buffer once; afterwards only the frame number changes: the first
    // four bytes hold it, little-endian.
    bool stampsOnly() const { return pattern_ == Pattern::Static; }
    void stamp(uint64_t frameNumber, uint8_t* dst) const;

    // The default flat level: half the sample range.
    static uint32_t halfRange(const FrameFormat& format) { return (format.maxSample() + 1) / 2; }

  private:
    struct Rgb {
        double r, g, b;
    };

    void buildMaster();
    Rgb colourAt(uint32_t x, uint32_t y) const;
    void writePixel(uint8_t* px, uint32_t x, uint32_t y, const Rgb& c) const;
    void writeSample(uint8_t* px, uint32_t channel, uint32_t value) const;
    void renderNoise(uint64_t frameNumber, uint8_t* dst) const;
    void applyDefects(uint8_t* dst) const;

    FrameFormat format_;
    Pattern pattern_;
    uint32_t level_;
    std::vector<Defect> defects_;
    uint32_t period_ = 0;
    uint32_t masterRows_ = 1;
    uint64_t masterRowBytes_ = 0;
    std::vector<uint8_t> master_;
    std::vector<double> horizon_;  // scene: horizon height per master column
};

}  // namespace orvix::sim
