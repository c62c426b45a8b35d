// The main frame's side of video recording, shared by the workbench and lumetra-cli: "Start Save
// Video", "Stop Save Video" and the handling of message 0x496. Thread: the user-interface thread.
#pragma once

#include <cstdint>
#include <ctime>
#include <string>
#include <string_view>

#include "acquisition/board_document.h"
#include "base/messages.h"
#include "base/settings.h"
#include "recording/video_recorder.h"

namespace lumetra {

inline constexpr std::string_view kVideoRateZeroText = "Frame rate is 0, exit save";
inline constexpr std::string_view kVideoCreateFailedText = "Failed to create video file";

// The name the save dialog offers: "Video_YYYYMMDD_hhmmss.h264" at the given local time.
std::string DefaultVideoFileName(const std::tm& localTime);

// The log line for a result code, by the stop-on-error flag; empty for unknown codes.
std::string_view VideoResultText(int code, bool stopOnError);

struct VideoGeometry {
    int width = 0;
    int height = 0;
    int imageType = 0;
    int bitsPerSample = 8;  // total bits per pixel / channels
};

// What the recording commands need from the board document.
class VideoHost {
  public:
    virtual ~VideoHost() = default;
    // Frames per second as the board measures them (a line rate is divided by the height); 0
    // when unknown.
    virtual double frameRate() = 0;
    virtual VideoGeometry geometry() = 0;
    virtual bool continuousGrabRunning() = 0;
    // The board's frame compression parameter (0x3000002F) as read at the grab start.
    virtual bool boardCompresses() = 0;
};

class DocumentVideoHost final : public VideoHost {
  public:
    explicit DocumentVideoHost(CKELM_PCIE_VexCardDoc& doc) : doc_(doc) {}
    double frameRate() override;
    VideoGeometry geometry() override;
    bool continuousGrabRunning() override;
    bool boardCompresses() override;

  private:
    CKELM_PCIE_VexCardDoc& doc_;
};

class VideoController {
  public:
    VideoController(VideoRecorder& recorder, VideoHost& host, Settings& settings, MessageLog& log,
                    Prompt& prompt)
        : recorder_(recorder), host_(host), settings_(settings), log_(log), prompt_(prompt) {}

    // After each continuous grab start: the recorder learns whether frames come compressed.
    void OnContinuousGrabStarted();
    // "Start Save Video" with the file the save dialog returned. False when refused (the box
    // said why).
    bool Start(const std::string& path);
    // "Stop Save Video".
    void Stop() { recorder_.Stop(); }
    // Message 0x496: logs the result and, with capping on and the grab still running, goes on in
    // the next numbered file at half the rate.
    void HandleResult(intptr_t code);

    // Menu states.
    bool canStart() const { return !recorder_.running() && !recorder_.boardCompresses(); }
    bool canStop() { return host_.continuousGrabRunning() && recorder_.running(); }

    const std::string& basePath() const { return basePath_; }
    // Results other than success handled since the last Start: a recording that went on in a
    // new file after a failure still lost frames.
    int failures() const { return failures_; }

  private:
    bool Open(const std::string& path, double rate);

    VideoRecorder& recorder_;
    VideoHost& host_;
    Settings& settings_;
    MessageLog& log_;
    Prompt& prompt_;
    std::string basePath_;
    int failures_ = 0;
};

}  // namespace lumetra
