// How the headless core reports: one log line for the message window, and window messages with
// their numbers for the main frame. Both front ends implement these; workers never touch widgets.
#pragma once

#include <cstdint>
#include <ctime>
#include <optional>
#include <string>
#include <string_view>

namespace lumetra {

// Window messages to the main frame, kept with their numbers (user messages start at 0x400).
// Each says who posts it, on which thread, and what wParam and lParam carry. Every one is posted:
// no thread ever waits for the main frame's answer.
namespace msg {
// Repaint the main image view. Grab engine: display thread (each displayed frame unless the view
// is frozen, and at its end) and single shot (user-interface thread). (0, 0).
inline constexpr uint32_t kPaint = 0x000F;
inline constexpr uint32_t kUser = 0x0400;  // the first user message
// Child windows re-read the frame size. Board document, user-interface thread, after new frame
// buffers were made. (0, 0).
inline constexpr uint32_t kFrameSize = kUser + 1;
// 1124: the line/frame rate pane. Grab engine: display thread (0, 0) every 500 ms, (0, 1) every
// 2nd displayed frame, (0, 2) when it ends; single shot (0, 2); the display thread's stop (1, 0).
inline constexpr uint32_t kRate = 0x464;
// 1126: the marker value pane. Grab engine with (0, 1) of kRate, the single shot and the display
// thread's end; the main view when the marker moves. (0, 0).
inline constexpr uint32_t kMarker = 0x466;
// 1127: redraw the line-profile windows. Grab engine: display thread every 4th displayed frame
// and at its end; single shot. (0, 0).
inline constexpr uint32_t kProfiles = 0x467;
// 1128: the continuous grab timed out (event 2 after event 4). Board-library callback thread.
// (0, 0).
inline constexpr uint32_t kGrabTimeout = 0x468;
// 1129: refresh the camera signal indicators; lParam selects the status word shown (1 the camera
// status just read, 2 the overlay's). Watch-dog thread (0, 1) on each check, single shot on
// failure (0, 1), display thread (0, 2) every 2nd displayed frame with the overlay drawn.
inline constexpr uint32_t kCameraStatus = 0x469;
// 1130: a frame arrived: forward it to the analysis dialogs; lParam 1 skips them. Grab engine:
// display thread every analysis-divisor-th frame and at its end; single shot. (0, 0).
inline constexpr uint32_t kFrameArrived = 0x46A;
// 1132: restart the camera-status timer. Grab engine, user-interface thread: a single shot ended,
// the callbacks were unregistered. (0, 0).
inline constexpr uint32_t kStatusTimer = 0x46C;
// 1136: refresh the ROI analytics dialog. Grab engine: display thread every 2nd displayed frame
// and at its end; single shot. (0, 0).
inline constexpr uint32_t kRoiRefresh = 0x470;
// 1140: the frames-grabbed pane. Grab engine: single shot completed. (0, 0).
inline constexpr uint32_t kFramesGrabbed = 0x474;
// 1141: wParam 1: frames were lost (board-library callback thread, event 3, at most every
// 100 ms); wParam 0: refresh the frame-lost pane (display thread every 2nd frame and at its end).
inline constexpr uint32_t kFrameLost = 0x475;
// 1142: the PCIe link pane. The main frame itself, user-interface thread, from timer 0x4000B.
// (0, 0).
inline constexpr uint32_t kPcieLink = 0x476;
// 1144: stop the continuous grab as "Grab (Stop)" does. Display thread when the pixel-capture
// condition is met; the analysis dialogs. (0, 0).
inline constexpr uint32_t kStopGrab = 0x478;
// 1155: the start prompt and version check. The main frame itself, once it is up. (0, 0).
inline constexpr uint32_t kStartPrompt = 0x483;
// 1174: a video recording result; lParam is the result code (0 to 3). Video recorder: its worker
// as its last act (0, code), or the callback thread when memory runs short (0, 1).
inline constexpr uint32_t kVideoResult = 0x496;
// 1184: a still image was saved. Image save worker, before it goes idle. (0, 0).
inline constexpr uint32_t kImageSaved = 0x4A0;
// The camera signal is gone: the owner of the grab engine runs the watch-dog's stop. Watch-dog
// thread, as its last act; wParam is the number of the grab it watched. Ours: the design had the
// watch-dog stop the grab on its own thread.
inline constexpr uint32_t kSignalLost = 0x4B0;
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
    // Queues the message for the main frame's thread; never blocks.
    virtual void post(uint32_t message, intptr_t wParam, intptr_t lParam) = 0;
};

// The answers of a box, numbered as the design's message boxes return them.
enum class PromptAnswer { kOk = 1, kCancel = 2, kYes = 6, kNo = 7 };

// A file dialog as the design describes one.
struct FileRequest {
    std::string title;             // "Open Configuration File"
    std::string filter;            // "Config File (*.vlcf)|*.vlcf||": name|pattern pairs
    std::string defaultExtension;  // added to a name typed without one
    std::string defaultName;       // what a save dialog proposes
    std::string folder;            // where the dialog opens; empty: where it was last
};

// Modal boxes, questions and file dialogs. The GUI shows them; tests and lumetra-cli answer them
// from a script or their arguments. An implementation that cannot ask answers "cancel".
// Thread: the user-interface thread.
class Prompt {
  public:
    virtual ~Prompt() = default;
    // An information box with the application's title.
    virtual void information(std::string_view text) = 0;
    // A yes/no/cancel question titled `title`.
    virtual PromptAnswer question(std::string_view text, std::string_view title);
    // The start prompt: "The software is running , Do you want to open the help document?" with
    // OK, Cancel and the "Always show" box, which alwaysShow sets on the way in and reads on the
    // way out (whatever the answer).
    virtual PromptAnswer startPrompt(bool& alwaysShow);
    // File dialogs; empty when cancelled.
    virtual std::optional<std::string> openFile(const FileRequest& request);
    virtual std::optional<std::string> saveFile(const FileRequest& request);
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
