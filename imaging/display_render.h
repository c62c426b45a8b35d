// What a view draws for a display mode, as one headless step: demosaicing, the luminance/chroma
// image, the phase planes, the channel picks and the display sample mapping, from a raw image to
// the drawing image. lumetra-cli convert writes its result; the views draw the same.
#pragma once

#include <string>

#include <opencv2/core/mat.hpp>

#include "imaging/image_buffer.h"

namespace lumetra {

// How samples wider than 8 bits are drawn (the display settings' three choices).
enum class SampleMapping {
    AsIs,      // "16 bits"
    EightBit,  // "8 bits": shifted right by the shift into 8 bits
    Adaptive,  // shifted left by the format's table to fill 16 bits
};

struct DisplayRequest {
    int mode = 0;          // 0 to 13
    int bayerPattern = 0;  // 0 off; 1 "BGGR", 2 "RGGB", 3 "GBRG", 4 "GRBG"
    // The board's pixel bit count (all channels); 0 takes the raw image's depth x channels.
    int pixelBitCount = 0;
    SampleMapping mapping = SampleMapping::AsIs;
    int shift = 0;    // for SampleMapping::EightBit
    int threads = 0;  // for the whole-frame conversions; 0: one per core
};

struct DisplayResult {
    // One channel for the single-channel modes, three (B, G, R order) otherwise; 8 or 16 bits.
    cv::Mat image;
    // Empty on success; otherwise why the mode cannot be drawn from this raw image.
    std::string error;
    bool ok() const { return error.empty(); }
};

// Modes on a raw image of 1 channel: 0 grey, or with a Bayer pattern the demosaiced colour image,
// whose channels modes 1 to 3 pick; 5 to 8 the phase planes. On 3 or 4 channels: 0 the colour
// (B, G, R of four), 1 to 3 one of them, 4 the C of four, 9 the luminance/chroma image (its first
// three planes), 10 to 12 its planes, 13 (four channels) the colour rebuilt from C, Cr and Cb.
// Every other pairing is refused with a reason. The raw image is only read.
DisplayResult RenderDisplayMode(const ImageBuffer& raw, const DisplayRequest& request);

// Why RenderDisplayMode refuses a request for a raw image of this shape, or empty when it draws it
// (the shift is not checked here).
std::string DisplayModeRefusal(int channels, int width, int height, const DisplayRequest& request);

}  // namespace lumetra
