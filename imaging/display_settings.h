// The "Display Setting" dialog without its window: which of "8 bits", "16 bits" and "Adaptive" is
// checked and enabled, the list of shifts and its selection, the bit diagram's range, and what OK
// and Cancel write back to the Frame image. The dialog mirrors this state into its controls.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "imaging/frame_image.h"

namespace lumetra {

// The Frame image's display flags.
struct DisplayFlags {
    bool eightBitShift = false;
    int shift = 0;
    bool highBit = false;

    static DisplayFlags Of(const FrameImage& frame);
    void ApplyTo(FrameImage& frame) const;
    bool operator==(const DisplayFlags&) const = default;
};

class DisplaySettingsModel {
  public:
    enum class Choice { EightBits, SixteenBits, Adaptive };

    // Control ids and texts of the dialog.
    static constexpr int kEightBitsId = 1134;
    static constexpr int kSixteenBitsId = 1135;
    static constexpr int kShiftListId = 1136;
    static constexpr int kCancelId = 1137;
    static constexpr int kDiagramId = 1138;
    static constexpr int kAdaptiveId = 1139;
    static constexpr int kOkId = 1090;
    static constexpr const char* kTitle = "Display Setting";

    // Opening: rawDepth is the raw image's sample depth (8 or 16), pixelBitCount the board's
    // pixel bit count and channels the frame's channel count; flags are the Frame image's.
    DisplaySettingsModel(int rawDepth, int pixelBitCount, int channels, const DisplayFlags& flags);

    Choice checked() const { return checked_; }
    bool enabled(Choice choice) const;
    // "%d" for 0 to bits per sample - 8; empty for 8-bit raw images.
    const std::vector<std::string>& shiftItems() const { return items_; }
    bool listEnabled() const { return listEnabled_; }
    // Index into shiftItems(), or nullopt for no selection.
    std::optional<int> selection() const { return selection_; }
    int bitsPerSample() const { return bitsPerSample_; }

    // The radio buttons: "8 bits" selects item 0 and enables the list; the others clear the
    // selection and disable it. A disabled choice cannot be clicked and is ignored.
    void Choose(Choice choice);
    // A list selection; ignored while the list is disabled or for an index outside it.
    void SelectShift(int index);

    // The bits of a sample the diagram marks as shown, lowest and highest; nullopt when no shift
    // is selected.
    std::optional<std::pair<int, int>> shownBits() const;

    // What the buttons write. OK: the 8-bit shift flag only for a checked "8 bits" on a 16-bit raw
    // image, the high-bit flag only for a checked "Adaptive" on one, the shift from the list (0
    // with no selection). Cancel writes the same but leaves the high-bit flag as it was on
    // opening: it too applies "8 bits" and the shift.
    DisplayFlags Ok() const;
    DisplayFlags Cancel() const;

  private:
    DisplayFlags Result(bool highBit) const;

    int rawDepth_;
    int bitsPerSample_ = 0;
    DisplayFlags opened_;
    std::vector<std::string> items_;
    std::optional<int> selection_;
    bool listEnabled_ = true;
    Choice checked_ = Choice::SixteenBits;
};

}  // namespace lumetra
