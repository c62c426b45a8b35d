// The line-profile panes' core: which pixels a pane samples, the value scale, the axis labels and
// the colours of the bars and lines. The panes (ui/) only draw what this computes.
#pragma once

#include <array>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "analysis/frame_copy.h"
#include "imaging/image_buffer.h"

namespace lumetra {

// Channel flags in their menu order.
enum ProfileFlag : int { kProfileRed = 0, kProfileGreen = 1, kProfileBlue = 2, kProfileClear = 3 };
using ProfileFlags = std::array<bool, 4>;
inline constexpr ProfileFlags kAllProfileFlags = {true, true, true, true};

// Image type 1 (mono), 3 (colour) or 4 (colour with clear).
struct ProfileMenuItem {
    bool enabled = false;
    bool checked = false;
};
// Red, Green, Blue: enabled when the frame is not mono, checked when also flagged. Clear: only for
// type 4.
std::array<ProfileMenuItem, 4> ProfileMenu(int imageType, const ProfileFlags& flags);

// The value limit and shift in force: the line-profile table's, with Adaptive the limit becomes
// 255; the shift is the table's when the display's bit window is automatic, else the user's.
ValueScale ProfileAxis(int bitsPerPixel, int channels, bool adaptive, bool automaticWindow,
                       int userShift);

struct ProfileSample {
    int position = 0;             // in the pane's client coordinates
    std::array<int, 4> values{};  // channel 0..3 in the frame's order
};
struct Profile {
    std::vector<ProfileSample> samples;
    int axisStart = 0;  // first image coordinate sampled
    int axisEnd = 256;  // largest image coordinate sampled
};

// Image coordinates (x, y) of a pane position, or nothing when the view has no image there.
using PaneToImage = std::function<std::optional<std::pair<int, int>>(int position)>;

// Samples pane positions 0 .. length - 1 (the view's width for the horizontal pane, its height for
// the vertical one). Positions up to labelWidth + 5 are the value labels' margin and are skipped;
// so are positions outside the image. horizontal: the axis follows x, else y. Values are the
// channel samples truncated to integers, with adaptive (v >> shift) & 255. The caller holds the
// frame lock.
Profile BuildProfile(const ImageBuffer& image, bool horizontal, int length, int labelWidth,
                     const PaneToImage& toImage, bool adaptive, int shift);

// The samples of a whole image row or column of a frame copy (what lumetra-cli prints).
std::vector<ProfileSample> RowProfile(const FrameCopy& frame, int row);

// Value-axis label i (0 at the top): "%d" of (4 - i) x (limit + 1) / 4.
std::string ValueLabel(int i, int limit);
// Position-axis label i (0 at the left): "%d" of start + i x (end - start) / 4.
std::string PositionLabel(int i, int start, int end);
// Screen y of a value: bottom - ((bottom - top) x v) / limit, in integer arithmetic.
int ValueToY(int value, int top, int bottom, int limit);

struct Rgb {
    uint8_t r = 0, g = 0, b = 0;
    bool operator==(const Rgb&) const = default;
};
inline constexpr Rgb kProfileRedColour{255, 0, 0};
inline constexpr Rgb kProfileGreenColour{0, 255, 0};
inline constexpr Rgb kProfileBlueColour{0, 0, 255};
inline constexpr Rgb kProfileBlackColour{0, 0, 0};
inline constexpr Rgb kProfileWhiteColour{255, 255, 255};

// Line mode: the channel drawn by each polyline and its colour, in drawing order.
std::vector<std::pair<int, Rgb>> ProfileLines(int imageType, const ProfileFlags& flags);

// Bar mode: the plot background (blue for mono, black otherwise) and the spans of one sample's
// column, in value units from `from` up to `to` (exclusive), in painting order. Colour columns
// mix additively: the span reached by all three channels is white, by exactly two their mix, by
// the highest alone its own colour; a disabled channel counts as 0. Type 4 paints a white span up
// to the Clear level last.
Rgb ProfileBackground(int imageType);
struct BarSpan {
    int from = 0;
    int to = 0;
    Rgb colour;
    bool operator==(const BarSpan&) const = default;
};
std::vector<BarSpan> ProfileBar(int imageType, const ProfileFlags& flags,
                                const std::array<int, 4>& values);

}  // namespace lumetra
