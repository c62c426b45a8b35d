#include "workbench/commands.h"

#include <array>

namespace lumetra {
namespace {

constexpr std::array<CommandText, 35> kTexts = {{
    {cmd::kSaveImage, "Save Image", "Save Image\nSave"},
    {cmd::kOpenImage, "Open Image", "Open Image\nOpen"},
    {cmd::kSaveImageSequence, "Save Image Sequence", "Save Image Sequence"},
    {cmd::kStartSaveVideo, "Start Save Video", "Start Save Video"},
    {cmd::kStopSaveVideo, "Stop Save Video", "Stop Save Video"},
    {cmd::kOpenConfiguration, "Open Configuration File", "Open Configuration File\nOpen"},
    {cmd::kSaveConfiguration, "Save Configuration File", "Save Configuration File\nSave"},
    {cmd::kExit, "Exit(&X)", "Exit Application\nExit"},
    {cmd::kBoardConfiguration, "Board Configuration", "Board Configuration\nConfiguration"},
    {cmd::kSystemConfiguration, "System Configuration", "System Configuration\nConfiguration"},
    {cmd::kGrabOnce, "Grab (1 Shot)", "Snap (1 Shot)\nSnap (1 Shot)"},
    {cmd::kGrabContinuous, "Grab (Continuous)", "Snap (Continuous)\nSnap (Continuous)"},
    {cmd::kGrabStop, "Grab (Stop)", "Snap Stop\nSnap Stop"},
    {cmd::kSoftwareTrigger, "Software Trigger", "Software Trigger\nSoftware Trigger"},
    {cmd::kCalibration, "Calibration", "Calibration Parameter\nCalibration"},
    {cmd::kBayerPattern, "", "Bayer Pattern\nBayer"},
    {cmd::kMarker, "Marker", "Marker\nMarker"},
    {cmd::kHorizontalProfile, "Horizontal Line Profile", "Horizontal Line Profile\nHorizontal"},
    {cmd::kVerticalProfile, "Vertical Line Profile", "Vertical Line Profile\nVertical"},
    {cmd::kImageAnalytics, "Image Analytics", "Image Analytics\nAnalytics"},
    {cmd::kDataGrid, "Data Grid", "Data Grid\nData Grid"},
    {cmd::kRoiAnalytics, "ROI Analytics", "Image ROI Analytics\nROI Analytics"},
    {cmd::kMeasure, "Measure", "Image Measure\nMeasure"},
    {cmd::kMessageWindow, "Message Window", ""},
    {cmd::kRoiDisplay, "ROI Display", "ROI Display\nROI Display"},
    {cmd::kCheckSignal, "Check Signal", "Check signal\nCheck signal"},
    {cmd::kImageBadPixel, "Image Bad Pixel", "Bad Pixel Statistics\nBad Pixel Statistics"},
    {cmd::kRoiBadPixel, "ROI Bad Pixel", "ROI Bad Pixel\nROI Bad Pixel"},
    {cmd::kPixelCapture, "Pixel Capture", "Pixel Capture\nPixel Capture"},
    {cmd::kSendCommand, "Send Command", "Send Command\nSend Command"},
    {cmd::kAdvancedHistogram, "Advanced Histogram", "Advanced Histogram\nAdvanced Histogram"},
    {cmd::kAbout, "About", "Display program information, version number and copyright\nAbout"},
    {cmd::kDocument, "Document", ""},
    {cmd::kShowLog, "Show Log", ""},
    {cmd::kVersion, "Version", ""},
}};

}  // namespace

std::span<const CommandText> CommandTexts() {
    return kTexts;
}

const CommandText* FindCommandText(int id) {
    for (const CommandText& t : kTexts) {
        if (t.id == id) {
            return &t;
        }
    }
    return nullptr;
}

}  // namespace lumetra
