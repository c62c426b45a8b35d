// Histogram counting and the row/column statistics that the histogram and ROI analytics show.
//
// Histograms have 65536 bins per channel in this order: Red, Green, Blue, Clear, Gray. 8-bit frames
// use the first 256 bins; 16-bit frames keep their samples as they are (no shift is applied), so
// 10- to 16-bit data land in bins up to 65535. Gray is (299 R + 587 G + 114 B + 500) / 1000 in
// integer arithmetic; a mono frame counts its value into Gray only.
#pragma once

#include <array>
#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "analysis/frame_copy.h"

namespace lumetra {

enum HistogramChannel : int { kRed = 0, kGreen = 1, kBlue = 2, kClear = 3, kGray = 4 };
inline constexpr int kHistogramChannels = 5;
inline constexpr int kHistogramBins = 65536;

inline uint32_t GrayValue(uint32_t r, uint32_t g, uint32_t b) {
    return (299 * r + 587 * g + 114 * b + 500) / 1000;
}

// 8-bit colour pixels are split into planes before they are counted, by one of these: the
// portable one (SSE2 and up), or by hand with AVX-512 (VBMI and VNNI) where the processor has
// them. Counting uses the best the processor runs.
enum class SplitKernel { kPortable, kAvx512 };
bool KernelAvailable(SplitKernel kernel);

inline constexpr int kSplitChunk = 64;
// n (at most kSplitChunk) B, G, R (C == 3) or B, G, R, C (C == 4) pixels into planes 0 to C - 1 and
// their GrayValue into plane 4; an unavailable kernel falls back to the portable one.
template <int C>
void SplitRow8(const uint8_t* pixels, int n, uint8_t (*planes)[kSplitChunk], SplitKernel kernel);

// Five arrays of 65536 64-bit counters. bins() is how many are in use; every count above it is 0.
class HistogramSet {
  public:
    HistogramSet();
    // Zeroes the counters and sets the bins in use.
    void Clear(int bins);
    // Puts more bins in use without touching the counts.
    void Widen(int bins);
    // Adds other's counts (its bins in use) to this set.
    void Add(const HistogramSet& other);
    void CopyFrom(const HistogramSet& other);

    int bins() const { return bins_; }
    const uint64_t* channel(int c) const { return counts_[c].data(); }
    uint64_t* channel(int c) { return counts_[c].data(); }
    uint64_t at(int c, int bin) const { return counts_[c][bin]; }
    // Sum of value x count over the bins in use.
    uint64_t Sum(int c) const;
    uint64_t Total(int c) const;

  private:
    std::array<std::vector<uint64_t>, kHistogramChannels> counts_;
    int bins_ = 0;
};

// Histogram bins a frame needs: 256 for 8-bit samples, 65536 for 16-bit ones.
inline int BinsFor(const FrameCopy& frame) {
    return frame.depth() == 8 ? 256 : kHistogramBins;
}

// Rectangle of pixels, right and bottom exclusive.
struct PixelArea {
    int left = 0;
    int top = 0;
    int right = 0;
    int bottom = 0;
    int width() const { return right - left; }
    int height() const { return bottom - top; }
    bool empty() const { return right <= left || bottom <= top; }
    bool operator==(const PixelArea&) const = default;
};
// The area cut to the frame.
PixelArea ClipArea(PixelArea area, int width, int height);

// Called at the start of every row a worker walks (tests use it to stop a worker mid-frame).
using RowObserver = std::function<void(int row)>;

// The rows of one area handed out in blocks to the workers that count it together: each takes
// the next block until none is left, so a worker that starts late, or is held up by another
// thread, leaves its share to the others. Blocks are about 64 Ki pixels.
//
// Thread: Take() from any thread.
class RowBlocks {
  public:
    RowBlocks(PixelArea area, int frameWidth);
    // The next block of rows [top, bottom); false when every row is taken.
    bool Take(int& top, int& bottom);

  private:
    std::atomic<int> next_;
    const int bottom_;
    const int rowsPerBlock_;
};

// Per-worker counting memory (32-bit sub-histograms), kept between frames.
class HistogramScratch {
  public:
    HistogramScratch();
    ~HistogramScratch();
    HistogramScratch(const HistogramScratch&) = delete;
    HistogramScratch& operator=(const HistogramScratch&) = delete;

  private:
    friend bool CountHistograms(const FrameCopy&, PixelArea, bool, HistogramSet*, HistogramScratch&,
                                const std::atomic<bool>*, const RowObserver*, RowBlocks*);
    struct Tables;
    std::unique_ptr<Tables> tables_;
};

// Counts the pixels of area (clipped to the frame); with blocks, only the rows it takes from them.
// Without parity everything goes into sets[0]; with it, even image columns go into sets[0] and odd
// ones into sets[1]. The sets are added to, not cleared. running is checked before every row:
// false when the count was abandoned.
bool CountHistograms(const FrameCopy& frame, PixelArea area, bool splitParity, HistogramSet* sets,
                     HistogramScratch& scratch, const std::atomic<bool>* running = nullptr,
                     const RowObserver* observer = nullptr, RowBlocks* blocks = nullptr);

// Channel means (Red, Green, Blue, Clear): each channel's sum over the frame divided by width x
// height (integer division). A mono frame's mean is in the Red slot, the row the dialogs label
// "Gray:". pixels is the divisor; 0 gives 0.
std::array<uint64_t, 4> ChannelMeans(const HistogramSet& set, int frameChannels, uint64_t pixels);

// Statistics of one row or column (or any run of samples).
struct LineStatistics {
    uint32_t minimum = 65536;
    uint32_t maximum = 0;
    int64_t range = -65536;  // maximum - minimum; stays -65536 when nothing was counted
    uint64_t sum = 0;
    uint64_t sumSquares = 0;
    uint64_t count = 0;
    double average = 0.0;
    double deviation = 0.0;  // square root of |sumSquares / count - average^2|

    void Add(uint32_t v) {
        minimum = v < minimum ? v : minimum;
        maximum = v > maximum ? v : maximum;
        sum += v;
        sumSquares += uint64_t{v} * v;
        ++count;
    }
    // Works out range, average and deviation from the sums.
    void Finish();
};

// Samples of channel c along row y over columns [x0, x1), or along column x over rows [y0, y1);
// the spans are clipped to the frame. running is checked at every sample of a row and at every
// row of a column; false when abandoned.
bool RowStatistics(const FrameCopy& frame, int y, int c, int x0, int x1, LineStatistics& out,
                   const std::atomic<bool>* running = nullptr);
bool ColumnStatistics(const FrameCopy& frame, int x, int c, int y0, int y1, LineStatistics& out,
                      const std::atomic<bool>* running = nullptr);

// The read-outs as the dialogs show them: "%d" for minimum, maximum, max - min and the average
// (truncated), "%.2f" for the standard deviation.
struct StatisticsTexts {
    std::string minimum, maximum, range, average, deviation;
};
StatisticsTexts FormatStatistics(const LineStatistics& s);

// Uniformity of a row or column inside a ROI: maximum / minimum with a verdict.
enum class Verdict : int { kNone = 0, kFail = 1, kPass = 2 };
struct RatioVerdict {
    double ratio = 0.0;
    Verdict verdict = Verdict::kNone;
};
inline constexpr double kPassRatio = 1.67;
// Minimum 0 gives ratio 0 and verdict kNone; a ratio of at most 1.67 passes, above it fails.
RatioVerdict RatioOf(uint32_t minimum, uint32_t maximum);
// The same for a row or column; nothing counted gives kNone.
RatioVerdict RatioOf(const LineStatistics& s);
std::string FormatRatio(double ratio);  // "%.3f"

// A row or column edit checked against the frame: values at or beyond extent become extent - 1,
// negative ones 0; changed tells the dialog to show kOutOfRangeText.
struct Clamped {
    int value = 0;
    bool changed = false;
};
Clamped ClampToFrame(int value, int extent);

}  // namespace lumetra
