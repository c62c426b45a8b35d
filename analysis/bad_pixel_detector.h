// The worker side of "Image Bad Pixel": "Calc" checks the settings, copies the frame under the
// frame lock and then the detector's own lock, releases both and starts one worker thread. With
// several frames the worker takes each new frame offered through NewFrame() in turn, counting
// the remaining frames down. The end is posted (analysis_msg::kBadPixelDone, wParam 1 when a list
// was capped: the dialog then shows kTooMuchBadDataText); the result list is read after that. The
// post is the worker's last act: its handler finds the lists in place and running() false.
//
// Thread: the public members are for the dialog's thread.
#pragma once

#include <atomic>
#include <memory>
#include <mutex>
#include <thread>

#include "analysis/analysis_messages.h"
#include "analysis/bad_pixels.h"
#include "analysis/frame_copy.h"
#include "base/auto_reset_event.h"
#include "base/messages.h"
#include "imaging/frame_image.h"

namespace lumetra {

class BadPixelDetector {
  public:
    BadPixelDetector(MessageSink& sink, Prompt& prompt,
                     BlockAllocator& allocator = DefaultBlockAllocator());
    ~BadPixelDetector();
    BadPixelDetector(const BadPixelDetector&) = delete;
    BadPixelDetector& operator=(const BadPixelDetector&) = delete;

    // Stops a search still running, checks the settings against the frame (kClusterRangeText),
    // and starts. One frame is copied now (kCreateImageFailText when it cannot be); several are
    // taken from NewFrame(). False when nothing started.
    bool Calc(const BadPixelSettings& settings, FrameImage& frame);
    // Offers the current frame to a search over several frames; taken only while the worker
    // waits for its next frame. True when taken.
    bool NewFrame(FrameImage& frame);
    // Clears the running flag and waits for the worker; the lists are left as they were.
    void Stop();

    bool running() const { return running_.load(); }
    int remainingFrames() const { return remaining_.load(); }
    // The lists of the last search that finished.
    BadPixelLists results() const;

    // Test hook: called by the worker at the start of every row; set before Calc.
    void setRowObserver(RowObserver observer) { observer_ = std::move(observer); }

  private:
    void Run(BadPixelSettings settings, PixelArea area, int frames, int width, int height);

    MessageSink& sink_;
    Prompt& prompt_;
    RowObserver observer_;

    mutable std::mutex mutex_;  // the detector's own lock
    FramePool pool_;
    std::shared_ptr<const FrameCopy> pending_;
    bool waitingForFrame_ = false;
    BadPixelLists results_;

    AutoResetEvent frameEvent_;
    std::atomic<bool> running_{false};
    std::atomic<int> remaining_{0};
    std::thread thread_;
};

}  // namespace lumetra
