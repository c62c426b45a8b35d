#include "imaging/display_modes.h"

namespace lumetra {

std::optional<std::string_view> DisplayModeText(int mode) {
    if (!IsValidDisplayMode(mode)) {
        return std::nullopt;
    }
    return kDisplayModes[static_cast<std::size_t>(mode)].menuText;
}

int DisplayModeAfterAllocation(int mode, int rawChannels, bool monochromeDisplay) {
    if (mode == kModeClear && rawChannels == 3) {
        return kModeRgb;
    }
    if (rawChannels == 1 && monochromeDisplay) {
        return kModeRgb;
    }
    return mode;
}

}  // namespace lumetra
