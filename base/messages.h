// How the headless core reports: one log line for the message window, and window messages with
// their numbers for the main frame. Both front ends implement these; workers never touch widgets.
#pragma once

#include <cstdint>
#include <ctime>
#include <functional>
#include <string>
#include <string_view>

namespace lumetra {

// Window message numbers, kept as the main frame knows them (user messages start at 0x400).
namespace msg {
inline constexpr uint32_t kPaint = 0x000F;         // repaint of the main image view
inline constexpr uint32_t kUser = 0x0400;          // first user message
inline constexpr uint32_t kFrameSize = kUser + 1;  // child windows re-read the frame size
inline constexpr uint32_t kLogText = 0x432;        // text from a worker for the message window
inline constexpr uint32_t kRate = 0x464;           // 1124: line/frame rate pane
inline constexpr uint32_t kPixelClock = 0x465;     // 1125
inline constexpr uint32_t kMarker = 0x466;         // 1126: marker value pane
inline constexpr uint32_t kProfiles = 0x467;       // 1127: redraw the profile windows
inline constexpr uint32_t kGrabTimeout = 0x468;    // 1128: continuous grab timed out
inline constexpr uint32_t kCameraStatus = 0x469;   // 1129: camera signal indicators
inline constexpr uint32_t kFrameArrived = 0x46A;   // 1130: forward to the analysis dialogs
inline constexpr uint32_t kAttachWindows = 0x46B;
inline constexpr uint32_t kStatusTimer = 0x46C;  // 1132: restart the camera-status timer
inline constexpr uint32_t kRoiRefresh = 0x470;   // 1136
inline constexpr uint32_t kSerialPort = 0x471;
inline constexpr uint32_t kAttachWindows2 = 0x472;
inline constexpr uint32_t kFramesGrabbed = 0x474;  // 1140
inline constexpr uint32_t kFrameLost = 0x475;      // 1141
inline constexpr uint32_t kPcieLink = 0x476;
inline constexpr uint32_t kBaseFrame = 0x477;
inline constexpr uint32_t kStopGrab = 0x478;  // 1144
inline constexpr uint32_t kCameraPower = 0x479;
inline constexpr uint32_t kCaptureFound = 0x482;  // 1154
inline constexpr uint32_t kStartPrompt = 0x483;
inline constexpr uint32_t kCaptureRefresh = 0x48C;
inline constexpr uint32_t kVideoResult = 0x496;
inline constexpr uint32_t kImageSaved = 0x4A0;
inline constexpr uint32_t kRemoveChild = 0x62B;
}  // namespace msg

// The message window: one line of text, appended with its time stamp by the implementation.
// Thread: any; implementations serialise appends.
class MessageLog {
  public:
    virtual ~MessageLog() = default;
    virtual void log(std::string_view text) = 0;
};

// Window messages to the main frame. Thread: any.
class MessageSink {
  public:
    virtual ~MessageSink() = default;
    // Never blocks.
    virtual void post(uint32_t message, intptr_t wParam, intptr_t lParam) = 0;
    // Blocks until the user-interface thread has answered; returns its answer.
    virtual intptr_t send(uint32_t message, intptr_t wParam, intptr_t lParam) = 0;
    // Waits until done() holds. On the user-interface thread the GUI keeps handling its messages
    // meanwhile, because the threads it waits for post (and send) to it while they end.
    virtual void waitUntil(const std::function<bool()>& done);
};

// Modal information boxes and questions. The GUI shows a box; tests and lumetra-cli record or
// print the text. Thread: the user-interface thread.
class Prompt {
  public:
    virtual ~Prompt() = default;
    virtual void information(std::string_view text) = 0;
};

// The message window's line prefix: "YYYY-MM-DD hh:mm:ss" and seven blanks (26 characters).
std::string TimeStampPrefix(const std::tm& localTime);
std::string TimeStampPrefixNow();

// For code paths that run without a front end attached: drops everything.
class NullMessageLog final : public MessageLog {
  public:
    void log(std::string_view) override {}
};

}  // namespace lumetra
