// The layout of one frame as the board delivers it.
// Thread: a plain value.
#pragma once

#include <cstdint>

namespace orvix::sim {

struct FrameFormat {
    uint32_t width = 0;
    uint32_t height = 0;
    uint32_t imageType = 0;  // 0 mono, 1 and 3 three channels, 2 and 4 four channels
    uint32_t bits = 8;       // data format: bits per sample
    uint32_t bayer = 0;      // 0 none, 1 BGGR, 2 RGGB, 3 GBRG, 4 GRBG (top-left 2x2, row by row)

    uint32_t channels() const {
        return imageType == 0 ? 1 : (imageType == 2 || imageType == 4) ? 4 : 3;
    }
    // Samples wider than 8 bits travel in 16-bit little-endian words.
    uint32_t bytesPerSample() const { return bits == 8 ? 1 : 2; }
    uint32_t bytesPerPixel() const { return channels() * bytesPerSample(); }
    uint64_t rowBytes() const { return uint64_t{width} * bytesPerPixel(); }
    uint64_t frameBytes() const { return rowBytes() * height; }
    uint32_t maxSample() const { return (1u << bits) - 1u; }
    // The mosaic only applies to single-channel frames.
    bool mosaicked() const { return imageType == 0 && bayer != 0; }
};

}  // namespace orvix::sim
