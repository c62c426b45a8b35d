// The camera's pixel formats (GenICam PFNC codes) against the board's three format parameters:
// image type (0x1000000A), data format in bits per channel (0x10000003) and Bayer pattern
// (0x10000015). Pure data and rules, no camera: both directions are tested on their own.
//
// Frames are handed out as the image type says: type 1 in B, G, R order, type 3 in R, G, B order.
// A camera that has only the other colour order is used with the red and blue samples swapped in
// place, so the colour order the user asked for is kept apart from the camera's format.
// Thread: immutable data and pure functions; safe from any thread.
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>

#include "Status.h"

namespace orvix::aravis {

inline constexpr uint32_t kImageMono = 0;
inline constexpr uint32_t kImageBgr = 1;  // three channels, B, G, R
inline constexpr uint32_t kImageRgb = 3;  // three channels, R, G, B

struct PixelFormatInfo {
    uint32_t pfnc;
    const char* name;      // the PFNC name
    uint32_t channels;     // 1 or 3
    uint32_t bits;         // per channel: 8, 10, 12, 14 or 16
    uint32_t bayer;        // 0 none; 1 BGGR, 2 RGGB, 3 GBRG, 4 GRBG
    uint32_t colourOrder;  // colour formats: kImageBgr or kImageRgb as the camera sends them
    uint32_t bytesPerPixel;
};

// What the library hands out.
struct FrameLayout {
    uint32_t imageType = kImageMono;
    uint32_t dataFormat = 8;
    uint32_t bayer = 0;
    friend bool operator==(const FrameLayout&, const FrameLayout&) = default;
};

std::span<const PixelFormatInfo> pixelFormatTable();
const PixelFormatInfo* findPixelFormat(uint32_t pfnc);
// "Mono8", or "0x........" for a format outside the table.
std::string pixelFormatName(uint32_t pfnc);

// The layout a camera format is handed out as; colourType (kImageBgr or kImageRgb) is the order
// asked for colour frames. Empty for a format outside the table.
std::optional<FrameLayout> layoutOf(uint32_t pfnc, uint32_t colourType);
// Whether frames of this format are handed out with red and blue swapped.
bool swapsRedBlue(uint32_t pfnc, uint32_t colourType);

// A camera format and the colour order to hand out.
struct FormatChoice {
    uint32_t pfnc = 0;
    uint32_t colourType = kImageBgr;
};

// Writing one of the three format parameters: the camera format (among `available`) that has the
// value written and keeps the other two as far as the camera allows. A new image type or Bayer
// pattern may change the bits per channel to the nearest the camera has; a new data format keeps
// the image type and the pattern or fails. Fails with 3 when no format fits, naming the value.
Status chooseFormat(uint32_t currentPfnc, uint32_t colourType, uint32_t id, uint32_t value,
                    std::span<const int64_t> available, FormatChoice& out);

}  // namespace orvix::aravis
