#include "imaging/display_settings.h"

namespace lumetra {

DisplayFlags DisplayFlags::Of(const FrameImage& frame) {
    return DisplayFlags{frame.eightBitShift(), frame.shift(), frame.highBit()};
}

void DisplayFlags::ApplyTo(FrameImage& frame) const {
    frame.setEightBitShift(eightBitShift, shift);
    frame.setHighBit(highBit);
}

DisplaySettingsModel::DisplaySettingsModel(int rawDepth, int pixelBitCount, int channels,
                                           const DisplayFlags& flags)
    : rawDepth_(rawDepth), opened_(flags) {
    if (rawDepth == 8) {
        listEnabled_ = false;
        checked_ = Choice::EightBits;
        return;
    }
    bitsPerSample_ = channels > 0 ? pixelBitCount / channels : 0;
    for (int shift = 0; shift <= bitsPerSample_ - 8; ++shift) {
        items_.push_back(std::to_string(shift));
    }
    if (flags.highBit) {
        listEnabled_ = false;
        checked_ = Choice::Adaptive;
        return;
    }
    // A stored shift the list does not hold selects nothing, as a list control would.
    if (flags.shift >= 0 && flags.shift < static_cast<int>(items_.size())) {
        selection_ = flags.shift;
    }
    if (flags.eightBitShift) {
        checked_ = Choice::EightBits;
    } else {
        checked_ = Choice::SixteenBits;
        selection_.reset();
        listEnabled_ = false;
    }
}

bool DisplaySettingsModel::enabled(Choice choice) const {
    return rawDepth_ != 8 || choice == Choice::EightBits;
}

void DisplaySettingsModel::Choose(Choice choice) {
    if (!enabled(choice)) {
        return;
    }
    checked_ = choice;
    if (choice == Choice::EightBits) {
        // Only a 16-bit raw image has a list to enable.
        if (rawDepth_ != 8) {
            listEnabled_ = true;
            selection_ = items_.empty() ? std::nullopt : std::optional<int>(0);
        }
    } else {
        selection_.reset();
        listEnabled_ = false;
    }
}

void DisplaySettingsModel::SelectShift(int index) {
    if (listEnabled_ && index >= 0 && index < static_cast<int>(items_.size())) {
        selection_ = index;
    }
}

std::optional<std::pair<int, int>> DisplaySettingsModel::shownBits() const {
    if (!selection_) {
        return std::nullopt;
    }
    return std::pair{*selection_, *selection_ + 7};
}

DisplayFlags DisplaySettingsModel::Result(bool highBit) const {
    DisplayFlags flags;
    flags.eightBitShift = checked_ == Choice::EightBits && rawDepth_ == 16;
    flags.highBit = highBit;
    flags.shift = selection_.value_or(0);
    return flags;
}

DisplayFlags DisplaySettingsModel::Ok() const {
    return Result(checked_ == Choice::Adaptive && rawDepth_ == 16);
}

DisplayFlags DisplaySettingsModel::Cancel() const {
    return Result(opened_.highBit);
}

}  // namespace lumetra
