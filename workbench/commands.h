// The main frame's commands: ids, menu texts and status-bar prompts ("prompt\ntooltip"), as the
// front ends show them. Whether a command is enabled is Workbench::CommandEnabled.
#pragma once

#include <span>
#include <string_view>

namespace lumetra {

namespace cmd {
inline constexpr int kSaveImage = 32771;
inline constexpr int kOpenImage = 32933;
inline constexpr int kSaveImageSequence = 32931;
inline constexpr int kStartSaveVideo = 32999;
inline constexpr int kStopSaveVideo = 33000;
inline constexpr int kOpenConfiguration = 32772;
inline constexpr int kSaveConfiguration = 32773;
inline constexpr int kExit = 57665;
inline constexpr int kBoardConfiguration = 32776;
inline constexpr int kSystemConfiguration = 32986;
inline constexpr int kGrabOnce = 32797;
inline constexpr int kGrabContinuous = 32798;
inline constexpr int kGrabStop = 32799;
inline constexpr int kSoftwareTrigger = 32973;
inline constexpr int kCalibration = 32800;
inline constexpr int kBayerPattern = 32806;
inline constexpr int kMarker = 32779;
inline constexpr int kHorizontalProfile = 32789;
inline constexpr int kVerticalProfile = 32790;
inline constexpr int kImageAnalytics = 32792;
inline constexpr int kDataGrid = 32825;
inline constexpr int kRoiAnalytics = 32941;
inline constexpr int kMeasure = 32942;
inline constexpr int kMessageWindow = 32811;
inline constexpr int kRoiDisplay = 33001;
inline constexpr int kCheckSignal = 32987;
inline constexpr int kImageBadPixel = 32937;
inline constexpr int kRoiBadPixel = 32983;
inline constexpr int kPixelCapture = 32963;
inline constexpr int kSendCommand = 32964;
inline constexpr int kAdvancedHistogram = 32980;
inline constexpr int kAbout = 57664;
inline constexpr int kDocument = 57670;
inline constexpr int kShowLog = 32988;
inline constexpr int kVersion = 32874;
// The main image view's commands the View menu and the Zoom tool bar carry.
inline constexpr int kZoomFit = 32868;
inline constexpr int kOriginalSize = 32851;
inline constexpr int kMaximumImage = 32898;
// Ours: the View menu's zoom steps, the view's image to the clipboard or a file, the drawing
// options, and the raw image import.
inline constexpr int kZoomIn = 33101;
inline constexpr int kZoomOut = 33102;
inline constexpr int kCopyView = 33103;
inline constexpr int kSaveViewAs = 33104;
inline constexpr int kHighlightClipping = 33105;
inline constexpr int kFalseColour = 33106;
}  // namespace cmd

struct CommandText {
    int id;
    std::string_view menu;    // empty for tool-bar-only commands
    std::string_view prompt;  // "status-bar prompt\ntooltip", or one text for both; may be empty
};

// Every command of the main frame, in the order of the design's table.
std::span<const CommandText> CommandTexts();
// The texts of one command; nullptr for an unknown id.
const CommandText* FindCommandText(int id);

}  // namespace lumetra
