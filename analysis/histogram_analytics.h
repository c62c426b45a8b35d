// The engine behind the "Analytics", "Advanced Analytics" and "ROI Analytics" dialogs.
//
// For every new frame the dialog calls NewFrame(): the frame is copied under the frame lock and
// then the engine's own lock, both are released, and the workers are woken. Two workers count the
// histograms, taking blocks of rows until none is left (so that one held up by another thread
// leaves its rows to the other), and the second to finish publishes the sum; one worker
// each computes the row and the column statistics. The advanced engine adds a worker for the
// per-column figures and one for the whole-frame figures and comparison count, which run only
// between StartStatistics() and StopStatistics(). Every result is published under the engine's
// lock and announced by one posted message per frame (analysis_messages.h). Workers check their
// running flag on every row, so Close() stops them mid-frame.
//
// Thread: every public member is for the dialog's thread; results may be read from any thread.
#pragma once

#include <array>
#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <vector>

#include "analysis/analysis_messages.h"
#include "analysis/frame_copy.h"
#include "analysis/histogram.h"
#include "analysis/roi.h"
#include "analysis/worker.h"
#include "base/messages.h"
#include "imaging/frame_image.h"

namespace lumetra {

enum class AnalyticsKind { kBasic, kAdvanced, kRoi };

// wParam of analysis_msg::kStatisticsReady.
enum StatisticsKind : int {
    kRowStatistics = 0,
    kColumnStatistics = 1,
    kColumnFigures = 2,
    kFrameFigures = 3
};

// ROI analytics column selection: radio buttons "Frame", "X Odd", "X Even". Parity counts from
// image column 0.
enum ColumnSelection : int { kAllColumns = 0, kOddColumns = 1, kEvenColumns = 2 };

// The frame a result was computed from.
struct FrameFacts {
    int width = 0;
    int height = 0;
    int channels = 0;  // image type: 1, 3 or 4
    int depth = 8;
    int bitsPerPixel = 0;
    int shift = 0;    // HistogramShift
    int limit = 256;  // ProfileScale limit, the chart's last bin
    // ROI analytics: 256 shifted left by shift, the bins the chart shows.
    int shownBins() const { return 256 << shift; }
};

struct HistogramResult {
    uint64_t sequence = 0;  // 0: nothing published yet
    FrameFacts frame;
    // The basic and advanced engines fill sets[kAllColumns]; the ROI engine fills all three.
    std::array<HistogramSet, 3> sets;
    std::array<uint64_t, 4> means{};  // Red, Green, Blue, Clear over the counted pixels
};

struct LineResult {
    uint64_t sequence = 0;
    int index = 0;    // row or column
    int channel = 0;  // sample index in the frame's order
    LineStatistics statistics;
    RatioVerdict ratio;  // ROI engine only
};

// Per column of the selected channel, over all rows: the average, and the RMS deviation about it,
// sqrt(|sum of squares / rows - average^2|), the row statistics' formula applied to each column.
struct ColumnFigures {
    uint64_t sequence = 0;
    int channel = 0;
    std::vector<double> average;
    std::vector<double> rms;
};

// "Greater" / "Less" with "Value": pixels of the selected channel above, below and equal to it.
enum class CompareMode : int { kGreater = 0, kLess = 1 };
struct FrameFigures {
    uint64_t sequence = 0;
    int channel = 0;
    LineStatistics statistics;  // over every pixel of the channel
    uint32_t value = 0;
    uint64_t greater = 0;
    uint64_t less = 0;
    uint64_t equal = 0;
    CompareMode mode = CompareMode::kGreater;
    uint64_t shown() const { return mode == CompareMode::kGreater ? greater : less; }
};

class HistogramAnalytics {
  public:
    // sink reaches the dialog; prompt shows its information boxes. Starts the workers.
    HistogramAnalytics(AnalyticsKind kind, MessageSink& sink, Prompt& prompt,
                       BlockAllocator& allocator = DefaultBlockAllocator());
    ~HistogramAnalytics();
    HistogramAnalytics(const HistogramAnalytics&) = delete;
    HistogramAnalytics& operator=(const HistogramAnalytics&) = delete;

    // Copies the frame's raw image and wakes the workers. When no copy can be had, shows
    // kAllocateFailText, still wakes the workers (which compute nothing for that frame) and
    // returns false.
    bool NewFrame(FrameImage& frame);
    // Hands over a frame that is already a private copy (files, benchmarks).
    void Submit(std::shared_ptr<const FrameCopy> frame);

    // Row and column edits, checked against the frame (or the ROI in force) with the dialogs'
    // texts; the value kept is returned and the statistics worker woken.
    int SetRow(int row);
    int SetColumn(int column);
    // Sample index of the "Color Selector" (0 blue, 1 green, 2 red, 3 clear; 0 for mono). A new
    // image type resets it to 0.
    void SetChannel(int channel);
    int row() const;
    int column() const;
    int channel() const;

    // ROI analytics: the rectangle in force (checked by the caller with CheckRoiEdit).
    void SetRoi(const RoiRect& roi);
    RoiRect roi() const;

    // Advanced analytics: "Start" / "Stop" of the per-column and whole-frame figures.
    void StartStatistics();
    void StopStatistics();
    bool statisticsRunning() const;
    void SetCompare(CompareMode mode, uint32_t value);

    // Clears every running flag and wakes the workers without waiting (safe from a worker).
    void RequestClose();
    // RequestClose, then waits for the workers. Idempotent.
    void Close();

    HistogramResult histograms() const;
    // Calls f(result) under the engine's lock, for painting without a copy.
    template <class F>
    void ReadHistograms(F&& f) const {
        std::lock_guard lock(mutex_);
        f(static_cast<const HistogramResult&>(*published_));
    }
    LineResult rowStatistics() const;
    LineResult columnStatistics() const;
    ColumnFigures columnFigures() const;
    FrameFigures frameFigures() const;
    FrameFacts frameFacts() const;

    // Test hook: called by every worker at the start of each row it walks; set before the first
    // frame.
    void setRowObserver(RowObserver observer) { observer_ = std::move(observer); }

  private:
    struct Band;
    void StartWorkers();
    void WakeFrameWorkers();
    void RunBand(int index);
    void RunLine(bool row);
    void RunColumnFigures();
    void RunFrameFigures();
    const RowObserver* observer() const { return observer_ ? &observer_ : nullptr; }
    // Under mutex_: the area the engine walks in frame f.
    PixelArea areaLocked(const FrameCopy& f) const;
    void noteFrameLocked();
    bool figuresActive() const { return statisticsRunning_.load(std::memory_order_relaxed); }

    const AnalyticsKind kind_;
    MessageSink& sink_;
    Prompt& prompt_;
    RowObserver observer_;

    mutable std::mutex mutex_;  // the engine's own lock
    FrameSlot slot_;
    FrameFacts facts_;
    int row_ = 0;
    int column_ = 0;
    int channel_ = 0;
    RoiRect roi_;
    std::atomic<bool> statisticsRunning_{false};
    // Bumped by every new frame and ROI change; the two histogram halves are summed only when
    // both were counted for the same one.
    uint64_t generation_ = 0;
    uint64_t publishedGeneration_ = 0;
    // The rows of the newest generation a histogram worker has begun, shared by both.
    std::shared_ptr<RowBlocks> rowBlocks_;
    uint64_t rowBlocksGeneration_ = 0;
    CompareMode compareMode_ = CompareMode::kGreater;
    uint32_t compareValue_ = 0;

    std::unique_ptr<HistogramResult> published_;
    LineResult rowResult_;
    LineResult columnResult_;
    ColumnFigures columnFigures_;
    FrameFigures frameFigures_;

    std::array<std::unique_ptr<Band>, 2> bands_;
    Worker rowWorker_;
    Worker columnWorker_;
    Worker columnFiguresWorker_;
    Worker frameFiguresWorker_;
};

}  // namespace lumetra
