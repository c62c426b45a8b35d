// The recorder's x264 parameter block, on its own so that the benchmark's direct-libx264
// reference encodes with exactly what the recorder uses.
#pragma once

#include <cstdint>

// x264.h uses the fixed-width types without including their header: it comes after <cstdint>.
#include <x264.h>

namespace lumetra {

// The encoder's bit rate in kbit/s for a width and a frame rate. The height does not enter.
int VideoBitRate(int width, double rate);

// x264 colour space of an image type: 0 mono, 1 BGR, 2 BGRA, 3 RGB, 4 BGRA; -1 for others.
int VideoColourSpace(int imageType);

// Fills p for one recording: preset ultrafast, tuning zerolatency, ABR at VideoBitRate, headers
// repeated, profile high444. False when x264 refuses the preset or the profile.
bool SetVideoEncoderParams(x264_param_t& p, int width, int height, int imageType, double rate);

}  // namespace lumetra
