// The small dialogs of the main image view without their windows: "Bayer Setting" (which pattern
// is checked on opening and what OK stores) and the bit diagram of "Display Setting".
#pragma once

#include <array>
#include <optional>
#include <string_view>
#include <utility>
#include <vector>

#include "imaging/frame_image.h"

namespace lumetra {

struct BayerPatternButton {
    std::string_view text;
    int pattern;
};
// The radio buttons of "Bayer Setting", in their order.
inline constexpr std::array<BayerPatternButton, 4> kBayerPatternButtons{{
    {"BGGR", 1},
    {"RGGB", 2},
    {"GBRG", 3},
    {"GRBG", 4},
}};
inline constexpr std::string_view kBayerSettingTitle = "Bayer Setting";

// The pattern whose button is checked on opening: the current one, none for 0 (or any value
// without a button).
std::optional<int> BayerPatternOnOpening(const BayerSettings& bayer);
// OK: the checked pattern is stored and Bayer conversion enabled. With no button checked nothing
// changes.
void ApplyBayerPattern(BayerSettings& bayer, std::optional<int> checkedPattern);

// One cell of the bit diagram, most significant bit first: its bit number and whether the
// selected shift shows it.
struct BitCell {
    int bit;
    bool shown;
    bool operator==(const BitCell&) const = default;
};
// The cells for a sample of bitsPerSample bits and the shown range (lowest, highest) of the list
// selection, or none.
std::vector<BitCell> BitDiagramCells(int bitsPerSample, std::optional<std::pair<int, int>> shown);

}  // namespace lumetra
