// ROI rectangles: the ROI analytics' rectangle in force, the checks of its "Set" button and row
// and column edits, and the ROI set kept in ROIConfig.ini.
#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "analysis/histogram.h"

namespace lumetra {

inline constexpr std::string_view kCheckSettingsText = "Please check if the Settings are correct !";
inline constexpr std::string_view kRoiOutOfFrameText = "Setting out of range, please reset !";
inline constexpr std::string_view kOutOfRoiRangeText = "Set value is out of ROI range";
inline constexpr std::string_view kSelectRowToDeleteText = "Select the row that you want to delete";

// Image pixels; both stops inclusive.
struct RoiRect {
    int startX = 0;
    int startY = 0;
    int stopX = 0;
    int stopY = 0;
    bool operator==(const RoiRect&) const = default;

    // A rectangle whose stop equals its start on either axis has no width or height: the
    // analytics then use the whole frame and the row and column edits are not checked.
    bool empty() const { return stopX == startX || stopY == startY; }
    // The pixels the analytics visit, clipped to the frame: the whole frame when empty().
    PixelArea area(int width, int height) const;
};

// Default of a missing ROI entry and of a missing ROIConfig.ini.
inline constexpr RoiRect kDefaultRoi{0, 0, 100, 100};

// The analytics' edits for a ROI the image view holds with exclusive right and bottom edges; an
// empty view ROI gives all zeros.
RoiRect RoiFromView(int left, int top, int right, int bottom);

// "Set": a negative start or a stop below its start gives kCheckSettingsText (a stop equal to its
// start passes); a rectangle reaching beyond the frame is refused as the view refuses it, with
// kRoiOutOfFrameText. Empty when the rectangle may go in force.
std::string_view CheckRoiEdit(const RoiRect& roi, int width, int height);

// Row edit inside a ROI: at or beyond stop it becomes stop - 1, below start it becomes start, and
// the dialog shows kOutOfRoiRangeText. With an empty ROI nothing is checked.
Clamped ClampToRoi(int value, int start, int stop, bool roiEmpty);

// ROIConfig.ini, section "Config": "ROICount" and "ROI%dStartX", "ROI%dStartY", "ROI%dStopX",
// "ROI%dStopY" per index from 0.
std::string RoiConfigPath(const std::string& configFolder);
// A missing file gives one default ROI. A key that is missing or not a whole number takes its
// default (ROICount 1; 0, 0, 100, 100); so does a count outside 0..kMaxRoiCount.
inline constexpr int kMaxRoiCount = 4096;
std::vector<RoiRect> LoadRoiSet(const std::string& path);
// Writes "ROICount" and the keys of every ROI in list order; other keys of the file, those of
// ROIs beyond the new count included, stay as they were. False when the file cannot be written.
bool SaveRoiSet(const std::string& path, const std::vector<RoiRect>& rois);

// The ROI Parameter dialog's OK: a row is unreasonable when Stop X <= Start X, Stop Y <= Start Y,
// or either corner lies outside the frame. The index of the first such row, if any.
std::optional<std::size_t> FirstUnreasonableRoi(const std::vector<RoiRect>& rois, int width,
                                                int height);
// "The size setting of ROI%d is not reasonable, please reset"
std::string UnreasonableRoiText(std::size_t index);

}  // namespace lumetra
