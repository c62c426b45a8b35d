// Geometry rules of the boards: widths aligned to the board's unit, heights to 8 lines, and a
// recommended height that fills whole kernel blocks. Geometry is corrected and reported, never
// refused.
#pragma once

#include <cstdint>

#include "base/messages.h"

namespace lumetra {

struct WidthRule {
    uint32_t unit;
    bool roundUp;
};

struct GeometryInput {
    uint32_t width = 0;
    uint32_t height = 0;
    uint32_t taps = 1;
    uint32_t imageType = 0;
    uint32_t dataFormat = 8;  // bits per channel
    uint32_t channels = 1;
    uint32_t kernelBlockSize = 0;  // in units of 4 MiB
    uint8_t modelCode = 0;
    bool jpegCompression = false;
    bool rgbdExtended = false;
};

inline constexpr uint32_t kMaxHeight = 65528;

WidthRule WidthRuleFor(const GeometryInput& in);

// Each returns the corrected value and logs its line when it changed.
uint32_t ValidateWidth(const GeometryInput& in, MessageLog& log);
uint32_t ValidateHeight(uint32_t height, MessageLog& log);
uint32_t RecommendHeight(const GeometryInput& in, MessageLog& log);

// All three in order; the result's width and height are the corrected ones.
GeometryInput ValidateGeometry(GeometryInput in, MessageLog& log);

}  // namespace lumetra
