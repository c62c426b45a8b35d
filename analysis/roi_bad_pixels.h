// "ROI Bad Pixel": one area of the frame (a user rectangle, a quadrant or the whole frame)
// searched for pixels whose channel values fall outside per-channel limits.
//
// The limits are absolute sample values: a pixel is bad when any of its channels lies below its
// channel's low limit or above its high limit. The "Average:" read-out is the mean of each channel
// over the area. The result list uses the Single tab's records (column, row, channel values); it
// stops at kBadPixelCap records like the statistical search's lists.
#pragma once

#include <array>
#include <atomic>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

#include "analysis/analysis_messages.h"
#include "analysis/bad_pixels.h"
#include "analysis/frame_copy.h"
#include "base/messages.h"
#include "imaging/frame_image.h"

namespace lumetra {

// "Area:" choices.
enum RoiBadPixelArea : int {
    kRoiArea = 0,    // X Start, Y Start, Width, Height
    kQuadrantA = 1,  // the quadrants, A B over C D
    kQuadrantB = 2,
    kQuadrantC = 3,
    kQuadrantD = 4,
    kWholeArea = 5,  // "All": the whole frame
};

// A range slider pair with its sign option: the limits are (a, b), or (-b, -a) with the option.
struct ChannelRange {
    int64_t a = 0;
    int64_t b = 255;
    bool negative = false;
    int64_t low() const { return negative ? -b : a; }
    int64_t high() const { return negative ? -a : b; }
};

struct RoiBadPixelSettings {
    int area = kRoiArea;
    int xStart = 0;
    int yStart = 0;
    int width = 1000;
    int height = 1000;
    // "R", "G", "B", "C" for colour frames; a mono frame uses the first, shown as "Gray".
    std::array<ChannelRange, 4> ranges;
};

// The search rectangle (right and bottom exclusive), halves by integer division: quadrant B ends
// at 2 x (W / 2), one column short of an odd-width frame's last column.
PixelArea RoiBadPixelRect(const RoiBadPixelSettings& settings, int width, int height);
// Whether the rectangle may be searched: right at most the width, bottom at most the height (and
// no edge before the frame's start). Otherwise the dialog shows kOutOfRangeText.
bool RoiBadPixelRectFits(const PixelArea& area, int width, int height);

struct RoiBadPixelResult {
    std::vector<BadPixelRecord> pixels;  // row-key order
    std::array<double, 4> average{};     // per channel, in the frame's channel order
    int channels = 1;
    bool capped = false;
};

// The search itself; false when running was cleared.
bool FindRoiBadPixels(const FrameCopy& frame, const PixelArea& area,
                      const std::array<ChannelRange, 4>& ranges, RoiBadPixelResult& out,
                      const std::atomic<bool>* running = nullptr,
                      const RowObserver* observer = nullptr);

// "Start" / "Stop" with one worker thread per start; the end is posted as
// analysis_msg::kRoiBadPixelDone, the worker's last act: its handler finds the result in place and
// running() false. Thread: the public members are for the dialog's thread.
class RoiBadPixelDetector {
  public:
    RoiBadPixelDetector(MessageSink& sink, Prompt& prompt,
                        BlockAllocator& allocator = DefaultBlockAllocator());
    ~RoiBadPixelDetector();
    RoiBadPixelDetector(const RoiBadPixelDetector&) = delete;
    RoiBadPixelDetector& operator=(const RoiBadPixelDetector&) = delete;

    // Computes the rectangle, checks it (kOutOfRangeText), copies the frame (kAllocateFailText)
    // and starts the worker. False when nothing started.
    bool Start(const RoiBadPixelSettings& settings, FrameImage& frame);
    void Stop();
    bool running() const { return running_.load(); }
    RoiBadPixelResult result() const;

    void setRowObserver(RowObserver observer) { observer_ = std::move(observer); }

  private:
    MessageSink& sink_;
    Prompt& prompt_;
    RowObserver observer_;
    mutable std::mutex mutex_;
    FramePool pool_;
    RoiBadPixelResult result_;
    std::atomic<bool> running_{false};
    std::thread thread_;
};

}  // namespace lumetra
