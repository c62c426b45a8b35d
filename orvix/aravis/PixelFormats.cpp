#include "PixelFormats.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>

#include "OrvixBoard.h"
#include "ParameterNames.h"

namespace orvix::aravis {
namespace {

constexpr PixelFormatInfo kFormats[] = {
    {0x01080001, "Mono8", 1, 8, 0, 0, 1},        {0x01100003, "Mono10", 1, 10, 0, 0, 2},
    {0x01100005, "Mono12", 1, 12, 0, 0, 2},      {0x01100025, "Mono14", 1, 14, 0, 0, 2},
    {0x01100007, "Mono16", 1, 16, 0, 0, 2},      {0x0108000B, "BayerBG8", 1, 8, 1, 0, 1},
    {0x01080009, "BayerRG8", 1, 8, 2, 0, 1},     {0x0108000A, "BayerGB8", 1, 8, 3, 0, 1},
    {0x01080008, "BayerGR8", 1, 8, 4, 0, 1},     {0x0110000F, "BayerBG10", 1, 10, 1, 0, 2},
    {0x0110000D, "BayerRG10", 1, 10, 2, 0, 2},   {0x0110000E, "BayerGB10", 1, 10, 3, 0, 2},
    {0x0110000C, "BayerGR10", 1, 10, 4, 0, 2},   {0x01100013, "BayerBG12", 1, 12, 1, 0, 2},
    {0x01100011, "BayerRG12", 1, 12, 2, 0, 2},   {0x01100012, "BayerGB12", 1, 12, 3, 0, 2},
    {0x01100010, "BayerGR12", 1, 12, 4, 0, 2},   {0x01100031, "BayerBG16", 1, 16, 1, 0, 2},
    {0x0110002F, "BayerRG16", 1, 16, 2, 0, 2},   {0x01100030, "BayerGB16", 1, 16, 3, 0, 2},
    {0x0110002E, "BayerGR16", 1, 16, 4, 0, 2},   {0x02180014, "RGB8", 3, 8, 0, kImageRgb, 3},
    {0x02180015, "BGR8", 3, 8, 0, kImageBgr, 3},
};

bool validColourType(uint32_t t) {
    return t == kImageBgr || t == kImageRgb;
}

std::string layoutText(const FrameLayout& l) {
    char text[96];
    if (l.imageType == kImageMono && l.bayer != 0) {
        std::snprintf(text, sizeof text, "Bayer pattern %u with %u bits", l.bayer, l.dataFormat);
    } else {
        std::snprintf(text, sizeof text, "image type %u with %u bits", l.imageType, l.dataFormat);
    }
    return text;
}

uint32_t distance(uint32_t a, uint32_t b) {
    return a > b ? a - b : b - a;
}

}  // namespace

std::span<const PixelFormatInfo> pixelFormatTable() {
    return kFormats;
}

const PixelFormatInfo* findPixelFormat(uint32_t pfnc) {
    for (const PixelFormatInfo& f : kFormats) {
        if (f.pfnc == pfnc) {
            return &f;
        }
    }
    return nullptr;
}

std::string pixelFormatName(uint32_t pfnc) {
    if (const PixelFormatInfo* f = findPixelFormat(pfnc)) {
        return f->name;
    }
    char hex[16];
    std::snprintf(hex, sizeof hex, "0x%08X", pfnc);
    return hex;
}

std::optional<FrameLayout> layoutOf(uint32_t pfnc, uint32_t colourType) {
    const PixelFormatInfo* f = findPixelFormat(pfnc);
    if (f == nullptr) {
        return std::nullopt;
    }
    FrameLayout l;
    l.dataFormat = f->bits;
    l.bayer = f->bayer;
    l.imageType =
        f->channels == 1 ? kImageMono : (validColourType(colourType) ? colourType : kImageBgr);
    return l;
}

bool swapsRedBlue(uint32_t pfnc, uint32_t colourType) {
    const PixelFormatInfo* f = findPixelFormat(pfnc);
    const std::optional<FrameLayout> l = layoutOf(pfnc, colourType);
    return f != nullptr && f->channels == 3 && l && l->imageType != f->colourOrder;
}

Status chooseFormat(uint32_t currentPfnc, uint32_t colourType, uint32_t id, uint32_t value,
                    std::span<const int64_t> available, FormatChoice& out) {
    const std::string what = "Set " + describeParameter(id) + ": ";
    FrameLayout current = layoutOf(currentPfnc, colourType).value_or(FrameLayout{});
    FrameLayout wanted = current;
    switch (id) {
        case ORVIX_IMAGE_TYPE:
            if (value != kImageMono && !validColourType(value)) {
                return Status::fail(
                    ORVIX_ERR_OUT_OF_RANGE,
                    what + std::to_string(value) + " is out of range (0 mono, 1 BGR or 3 RGB)", id);
            }
            wanted.imageType = value;
            if (value != kImageMono) {
                wanted.bayer = 0;  // colour formats are not mosaics
            }
            break;
        case ORVIX_BAYER_PATTERN:
            if (value > 4) {
                return Status::fail(ORVIX_ERR_OUT_OF_RANGE,
                                    what + std::to_string(value) + " is out of range (0..4)", id);
            }
            if (value == 0 && current.imageType != kImageMono) {
                wanted.bayer = 0;  // a colour format has no pattern to clear
                break;
            }
            wanted.bayer = value;
            if (value != 0) {
                wanted.imageType = kImageMono;
            }
            break;
        case ORVIX_DATA_FORMAT:
            if (value != 8 && value != 10 && value != 12 && value != 14 && value != 16) {
                return Status::fail(
                    ORVIX_ERR_OUT_OF_RANGE,
                    what + std::to_string(value) + " is out of range (8, 10, 12, 14 or 16)", id);
            }
            wanted.dataFormat = value;
            break;
        default:
            return Status::fail(ORVIX_ERR_INVALID_PARAMETER, what + "not a format parameter", id);
    }

    out.colourType = wanted.imageType != kImageMono ? wanted.imageType : colourType;
    if (findPixelFormat(currentPfnc) != nullptr && wanted == current) {
        out.pfnc = currentPfnc;
        return Status::success();
    }

    // Among the camera's formats with the value written: the fewest changes to the rest, then
    // the nearest bits per channel, then no swapping of red and blue.
    const PixelFormatInfo* best = nullptr;
    uint64_t bestScore = UINT64_MAX;
    for (int64_t code : available) {
        const PixelFormatInfo* f = findPixelFormat(static_cast<uint32_t>(code));
        if (f == nullptr) {
            continue;
        }
        const FrameLayout l = *layoutOf(f->pfnc, out.colourType);
        const bool colour = f->channels == 3;
        if ((wanted.imageType != kImageMono) != colour) {
            continue;
        }
        if (id == ORVIX_DATA_FORMAT &&
            (l.dataFormat != wanted.dataFormat || l.bayer != wanted.bayer)) {
            continue;
        }
        if (id == ORVIX_BAYER_PATTERN && l.bayer != wanted.bayer) {
            continue;
        }
        uint64_t score = uint64_t{distance(l.dataFormat, wanted.dataFormat)} * 4;
        if (l.dataFormat < wanted.dataFormat) {
            score += 1;  // of two equally near depths, keep the deeper one
        }
        if (!colour && l.bayer != wanted.bayer) {
            score += 1000;
        }
        if (colour && f->colourOrder != out.colourType) {
            score += 2;
        }
        if (score < bestScore) {
            bestScore = score;
            best = f;
        }
    }
    if (best == nullptr) {
        return Status::fail(ORVIX_ERR_OUT_OF_RANGE,
                            what + std::to_string(value) + " is out of range: the camera has no " +
                                layoutText(wanted) + " format",
                            id);
    }
    out.pfnc = best->pfnc;
    return Status::success();
}

}  // namespace orvix::aravis
