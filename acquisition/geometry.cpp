#include "acquisition/geometry.h"

#include <algorithm>
#include <cstdio>
#include <string>

namespace lumetra {
namespace {

std::string format(const char* fmt, uint32_t a, uint32_t b) {
    char buf[160];
    std::snprintf(buf, sizeof buf, fmt, a, b);
    return buf;
}

}  // namespace

WidthRule WidthRuleFor(const GeometryInput& in) {
    const uint32_t taps = std::max<uint32_t>(in.taps, 1);
    if (in.jpegCompression) {
        if (in.modelCode == 3) {
            return {in.imageType != 0 ? 80u : 48u, false};
        }
        if (in.modelCode == 10) {
            return {80, true};
        }
        return {taps, false};
    }
    if (in.modelCode == 10) {
        return {in.rgbdExtended ? 640u : 10u, true};
    }
    // Model 3 without compression takes 384 in rgbd extended mode, as its board manual has it.
    if (in.modelCode == 3) {
        return {in.rgbdExtended ? 384u : taps, false};
    }
    return {in.rgbdExtended ? 128u : taps, false};
}

uint32_t ValidateWidth(const GeometryInput& in, MessageLog& log) {
    const WidthRule rule = WidthRuleFor(in);
    uint32_t width = in.width;
    if (width < rule.unit) {
        width = rule.unit;
    } else if (rule.roundUp) {
        width = static_cast<uint32_t>((uint64_t{width} + rule.unit - 1) / rule.unit * rule.unit);
    } else {
        width = width / rule.unit * rule.unit;
    }
    if (width != in.width) {
        log.log(format("Image width must be divided by %u.Reset the image width as %u\n", rule.unit,
                       width));
    }
    return width;
}

uint32_t ValidateHeight(uint32_t height, MessageLog& log) {
    uint32_t h = std::min(height, kMaxHeight);
    h = std::max<uint32_t>(h / 8 * 8, 8);
    if (h != height) {
        log.log(format(
            "Image height must be divided by %u and less than 65535.Reset the image height as %u\n",
            8, h));
    }
    return h;
}

uint32_t RecommendHeight(const GeometryInput& in, MessageLog& log) {
    const uint64_t bytesPerPixel = uint64_t{in.channels} * (in.dataFormat == 8 ? 1 : 2);
    const uint64_t block = uint64_t{in.kernelBlockSize} * 4 * 1024 * 1024;
    const uint64_t row = uint64_t{in.width} * bytesPerPixel;
    if (block == 0 || row * in.height < block) {
        return in.height;
    }
    for (uint32_t h = in.height; h <= in.height + 512; h += 8) {
        if (row * h % block == 0) {
            const uint32_t found = std::min(h, kMaxHeight);
            if (found != in.height) {
                char buf[64];
                std::snprintf(buf, sizeof buf, "The recommended high value is %u\n", found);
                log.log(buf);
            }
            return found;
        }
    }
    return in.height;
}

GeometryInput ValidateGeometry(GeometryInput in, MessageLog& log) {
    in.width = ValidateWidth(in, log);
    in.height = ValidateHeight(in.height, log);
    in.height = RecommendHeight(in, log);
    return in;
}

}  // namespace lumetra
