#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "imaging/display_settings.h"

namespace lumetra {
namespace {

using Choice = DisplaySettingsModel::Choice;

std::vector<std::string> Items(int last) {
    std::vector<std::string> items;
    for (int i = 0; i <= last; ++i) {
        items.push_back(std::to_string(i));
    }
    return items;
}

TEST(DisplaySettings, EightBitFrameOffersOnlyEightBits) {
    DisplaySettingsModel model(8, 8, 1, DisplayFlags{true, 3, true});
    EXPECT_EQ(model.checked(), Choice::EightBits);
    EXPECT_TRUE(model.enabled(Choice::EightBits));
    EXPECT_FALSE(model.enabled(Choice::SixteenBits) || model.enabled(Choice::Adaptive));
    EXPECT_FALSE(model.listEnabled());
    EXPECT_TRUE(model.shiftItems().empty());

    model.Choose(Choice::SixteenBits);  // disabled: a click cannot reach it
    model.Choose(Choice::Adaptive);
    model.SelectShift(0);
    EXPECT_EQ(model.checked(), Choice::EightBits);
    model.Choose(Choice::EightBits);
    EXPECT_FALSE(model.listEnabled());

    // The 8-bit shift applies to 16-bit raw images only.
    EXPECT_EQ(model.Ok(), (DisplayFlags{false, 0, false}));
}

TEST(DisplaySettings, ShiftListFollowsBitsPerSample) {
    EXPECT_EQ(DisplaySettingsModel(16, 10, 1, {}).shiftItems(), Items(2));
    EXPECT_EQ(DisplaySettingsModel(16, 12, 1, {}).shiftItems(), Items(4));
    EXPECT_EQ(DisplaySettingsModel(16, 36, 3, {}).shiftItems(), Items(4));
    EXPECT_EQ(DisplaySettingsModel(16, 16, 1, {}).shiftItems(), Items(8));
    EXPECT_EQ(DisplaySettingsModel(16, 64, 4, {}).shiftItems(), Items(8));
    EXPECT_EQ(DisplaySettingsModel(16, 14, 1, {}).bitsPerSample(), 14);
}

TEST(DisplaySettings, OpeningReflectsTheFrameFlags) {
    const DisplaySettingsModel adaptive(16, 12, 1, DisplayFlags{true, 2, true});
    EXPECT_EQ(adaptive.checked(), Choice::Adaptive);
    EXPECT_FALSE(adaptive.listEnabled() || adaptive.selection() || adaptive.shownBits());

    const DisplaySettingsModel eight(16, 12, 1, DisplayFlags{true, 3, false});
    EXPECT_EQ(eight.checked(), Choice::EightBits);
    EXPECT_TRUE(eight.listEnabled());
    EXPECT_EQ(eight.selection(), 3);
    EXPECT_TRUE(eight.enabled(Choice::SixteenBits) && eight.enabled(Choice::Adaptive));

    const DisplaySettingsModel sixteen(16, 12, 1, DisplayFlags{false, 3, false});
    EXPECT_EQ(sixteen.checked(), Choice::SixteenBits);
    EXPECT_FALSE(sixteen.listEnabled() || sixteen.selection());

    // A stored shift past the list selects nothing.
    const DisplaySettingsModel beyond(16, 10, 1, DisplayFlags{true, 5, false});
    EXPECT_EQ(beyond.checked(), Choice::EightBits);
    EXPECT_FALSE(beyond.selection());
    EXPECT_EQ(beyond.Ok(), (DisplayFlags{true, 0, false}));
}

TEST(DisplaySettings, RadioButtonsDriveTheList) {
    DisplaySettingsModel model(16, 10, 1, DisplayFlags{false, 0, true});
    model.SelectShift(1);  // the list is disabled under "Adaptive"
    EXPECT_FALSE(model.selection());

    model.Choose(Choice::EightBits);
    EXPECT_TRUE(model.listEnabled());
    EXPECT_EQ(model.selection(), 0);
    model.SelectShift(2);
    EXPECT_EQ(model.shownBits(), (std::pair{2, 9}));
    model.SelectShift(3);  // not in the list of a 10-bit format
    EXPECT_EQ(model.selection(), 2);
    model.SelectShift(-1);
    EXPECT_EQ(model.selection(), 2);

    model.Choose(Choice::EightBits);  // choosing it again starts over at item 0
    EXPECT_EQ(model.selection(), 0);

    model.Choose(Choice::SixteenBits);
    EXPECT_FALSE(model.listEnabled() || model.selection());
    model.Choose(Choice::EightBits);
    model.SelectShift(1);
    model.Choose(Choice::Adaptive);
    EXPECT_FALSE(model.listEnabled() || model.selection());
}

// Cancel applies "8 bits" and the shift as OK does; only the high-bit flag stays as it was opened.
TEST(DisplaySettings, OkAndCancelWriteTheFlags) {
    DisplaySettingsModel adaptive(16, 12, 1, DisplayFlags{false, 0, true});
    adaptive.Choose(Choice::EightBits);
    adaptive.SelectShift(4);
    EXPECT_EQ(adaptive.Ok(), (DisplayFlags{true, 4, false}));
    EXPECT_EQ(adaptive.Cancel(), (DisplayFlags{true, 4, true}));
    adaptive.Choose(Choice::SixteenBits);
    EXPECT_EQ(adaptive.Ok(), (DisplayFlags{false, 0, false}));
    EXPECT_EQ(adaptive.Cancel(), (DisplayFlags{false, 0, true}));
    adaptive.Choose(Choice::Adaptive);
    EXPECT_EQ(adaptive.Ok(), (DisplayFlags{false, 0, true}));

    DisplaySettingsModel sixteen(16, 12, 1, DisplayFlags{false, 0, false});
    sixteen.Choose(Choice::Adaptive);
    EXPECT_EQ(sixteen.Cancel(), (DisplayFlags{false, 0, false}));
    EXPECT_EQ(sixteen.Ok(), (DisplayFlags{false, 0, true}));
}

TEST(DisplaySettings, FlagsGoToAndComeFromTheFrame) {
    FrameImage frame;
    DisplayFlags{true, 3, true}.ApplyTo(frame);
    EXPECT_TRUE(frame.eightBitShift() && frame.shift() == 3 && frame.highBit());
    EXPECT_EQ(DisplayFlags::Of(frame), (DisplayFlags{true, 3, true}));
    DisplayFlags{}.ApplyTo(frame);
    EXPECT_EQ(DisplayFlags::Of(frame), DisplayFlags{});
}

}  // namespace
}  // namespace lumetra
