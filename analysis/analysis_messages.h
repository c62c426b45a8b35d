// Window messages between the main frame, the analysis dialogs and their workers, and the texts
// the tools share. A dialog hands its engine a MessageSink that reaches the dialog; workers post
// through it and never touch a widget.
#pragma once

#include <cstdint>
#include <string_view>

namespace lumetra::analysis_msg {

// From the main frame to the dialogs, as its frame-arrival forwarding posts them.
inline constexpr uint32_t kNewFrame = 0x402;          // histogram and ROI analytics dialogs
inline constexpr uint32_t kRoiChanged = 0x403;        // ROI analytics: the view's ROI moved
inline constexpr uint32_t kRoiBadPixelFrame = 0x405;  // ROI bad-pixel dialog

// From the workers to their dialog. lParam carries the number of the frame the result belongs to
// (counted from 1 by the engine), so a dialog can tell a stale result from a fresh one.
inline constexpr uint32_t kHistogramReady = 0x406;    // wParam 0
inline constexpr uint32_t kStatisticsReady = 0x407;   // wParam: a StatisticsKind
inline constexpr uint32_t kBadPixelProgress = 0x408;  // wParam: frames still to examine
inline constexpr uint32_t kBadPixelDone = 0x409;      // wParam: 1 when a list hit its cap
inline constexpr uint32_t kRoiBadPixelDone = 0x40A;   // wParam: 1 when the list hit its cap
inline constexpr uint32_t kFrameCopyFailed = 0x40B;   // a worker-side frame copy failed

}  // namespace lumetra::analysis_msg

namespace lumetra {

inline constexpr std::string_view kAllocateFailText = "Allocate Virtual Memory Fail.";
inline constexpr std::string_view kOutOfRangeText = "Set value is out of range";

}  // namespace lumetra
