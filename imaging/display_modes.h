// The display modes of the image views: numbers, menu texts and command ids, what each needs of
// the raw image, and when a new frame format resets the mode.
#pragma once

#include <array>
#include <optional>
#include <string_view>

namespace lumetra {

enum DisplayMode : int {
    kModeRgb = 0,
    kModeRed = 1,
    kModeGreen = 2,
    kModeBlue = 3,
    kModeClear = 4,
    kModeChannel0 = 5,
    kModeChannel1 = 6,
    kModeChannel2 = 7,
    kModeChannel3 = 8,
    kModeYCrCb = 9,
    kModeY = 10,
    kModeCr = 11,
    kModeCb = 12,
    kModeCCrCbToRgb = 13,
};

struct DisplayModeInfo {
    int mode;
    std::string_view menuText;
    int commandId;
};

inline constexpr std::array<DisplayModeInfo, 14> kDisplayModes{{
    {kModeRgb, "RGB", 32968},
    {kModeRed, "Red", 32974},
    {kModeGreen, "Green", 32975},
    {kModeBlue, "Blue", 32976},
    {kModeClear, "Clear", 32969},
    {kModeChannel0, "Channel0", 33008},
    {kModeChannel1, "Channel1", 33009},
    {kModeChannel2, "Channel2", 33010},
    {kModeChannel3, "Channel3", 33011},
    {kModeYCrCb, "YCrCb", 33013},
    {kModeY, "Y", 33017},
    {kModeCr, "Cr", 33015},
    {kModeCb, "Cb", 33016},
    {kModeCCrCbToRgb, "CCrCb->RGB", 33012},
}};

constexpr bool IsValidDisplayMode(int mode) {
    return mode >= kModeRgb && mode <= kModeCCrCbToRgb;
}
// Bayer phase planes: need a one-channel raw image.
constexpr bool IsChannelMode(int mode) {
    return mode >= kModeChannel0 && mode <= kModeChannel3;
}
// Luminance/chroma modes: need a raw image of more than one channel and an auxiliary image.
constexpr bool IsLumaChromaMode(int mode) {
    return mode >= kModeYCrCb && mode <= kModeCCrCbToRgb;
}

// The menu text of a mode, or nullopt outside 0 to 13.
std::optional<std::string_view> DisplayModeText(int mode);

// The mode after the Frame image was allocated for a raw image of rawChannels: "Clear" falls back
// to "RGB" on three-channel data, and every mode does on one-channel data while the monochrome
// display option is on.
int DisplayModeAfterAllocation(int mode, int rawChannels, bool monochromeDisplay);

}  // namespace lumetra
