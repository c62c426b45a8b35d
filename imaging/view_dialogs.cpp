#include "imaging/view_dialogs.h"

namespace lumetra {

std::optional<int> BayerPatternOnOpening(const BayerSettings& bayer) {
    for (const BayerPatternButton& button : kBayerPatternButtons) {
        if (button.pattern == bayer.pattern) {
            return button.pattern;
        }
    }
    return std::nullopt;
}

void ApplyBayerPattern(BayerSettings& bayer, std::optional<int> checkedPattern) {
    if (!checkedPattern) {
        return;
    }
    bayer.pattern = *checkedPattern;
    bayer.enabled = true;
}

std::vector<BitCell> BitDiagramCells(int bitsPerSample, std::optional<std::pair<int, int>> shown) {
    std::vector<BitCell> cells;
    for (int bit = bitsPerSample - 1; bit >= 0; --bit) {
        cells.push_back({bit, shown && bit >= shown->first && bit <= shown->second});
    }
    return cells;
}

}  // namespace lumetra
