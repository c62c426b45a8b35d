// Statistical bad-pixel detection: the range test, the search over one frame or a run of frames,
// the Single / Horizontal Cluster / Vertical Cluster lists, their CSV export and the rows of the
// result list.
//
// The lists are exactly those of walking two ordered maps of the bad pixels, one keyed
// row x 65536 + column and one keyed column x 65536 + row: every bad pixel goes into Single in
// row-key order; each run of consecutive row keys (a run never continues onto the next row) whose
// length reaches the horizontal count becomes one Horizontal Cluster record keyed at its first
// pixel with its length, in row-key order; runs of consecutive column keys give the Vertical
// Clusters the same way, in column-key order. No map is built: the frame is scanned in row order,
// which is row-key order already, horizontal runs are closed as the scan passes them, and vertical
// runs are followed per column and sorted by their key at the end. Frames are at most 65535 pixels
// wide and high, as the keys require.
#pragma once

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "analysis/frame_copy.h"
#include "analysis/histogram.h"

namespace lumetra {

inline constexpr std::string_view kClusterRangeText = "Please reset the cluster count range!";
inline constexpr std::string_view kCreateImageFailText =
    "Create Image Fail:Allocate Virtual Memory Fail!";
inline constexpr std::string_view kTooMuchBadDataText =
    "There's too much bad data, just the first 1000000 shows!";
inline constexpr std::string_view kNoBadPixelDataText = "No Bad Pixel Data.";

inline constexpr std::size_t kBadPixelCap = 1000000;

// Range modes, as the combo box lists them.
enum RangeMode : int {
    kInRange = 0,          // "In of Range": L < v < H
    kInRangeEqual = 1,     // "In of Range(Contain Equal)": L <= v <= H
    kOutOfRange = 2,       // "Out of Range": v < L or v > H
    kOutOfRangeEqual = 3,  // "Out of Range(Contain Equal)": v <= L or v >= H
};
// The range test of the four modes; any other mode finds nothing.
bool IsBadSample(int mode, int64_t value, int64_t low, int64_t high);

// The same test reduced to one interval of sample values: bad when the value lies inside
// [lo, hi] (or outside it, for the out-of-range modes), for samples 0..maxValue.
struct RangeTest {
    bool badInside = true;
    uint32_t lo = 1;
    uint32_t hi = 0;  // lo > hi: an empty interval
    static RangeTest For(int mode, int64_t low, int64_t high, uint32_t maxValue);
    bool bad(uint32_t v) const { return (v - lo <= hi - lo && lo <= hi) == badInside; }
};

struct BadPixelRecord {
    uint64_t key = 0;    // row x 65536 + column (vertical clusters: column x 65536 + row)
    uint64_t count = 0;  // 1 (frames the pixel was bad in, over a run of frames) or run length
    // Channel samples in the frame's order; a mono pixel fills the first and 65535 the rest;
    // clusters hold 65535 in all four.
    std::array<uint16_t, 4> values{65535, 65535, 65535, 65535};
    bool operator==(const BadPixelRecord&) const = default;
};

enum class BadPixelList : int { kSingle = 0, kHorizontal = 1, kVertical = 2 };

struct BadPixelLists {
    std::vector<BadPixelRecord> single;
    std::vector<BadPixelRecord> horizontal;
    std::vector<BadPixelRecord> vertical;
    int channels = 1;     // of the frames searched, for the "Pixel" column
    bool capped = false;  // a list reached kBadPixelCap and dropped records
    const std::vector<BadPixelRecord>& list(BadPixelList which) const;
};

struct BadPixelSettings {
    bool useRoi = false;  // "ROI": search roi; "All": the whole frame
    PixelArea roi;        // right and bottom exclusive
    int mode = kInRange;
    int64_t low = 0;
    int64_t high = 0;
    int horizontalCount = 0;
    int verticalCount = 0;
    int frames = 1;
};

// "Calc" checks: cluster counts within 0..width and 0..height, and each edge of the search area
// within 0..width or 0..height. The search area, or kClusterRangeText.
struct AreaCheck {
    PixelArea area;
    std::string_view error;  // empty when the settings pass
};
AreaCheck CheckBadPixelSettings(const BadPixelSettings& settings, int width, int height);

// The slider limit of the range for a frame of this depth: 255 for 8-bit samples, else the
// line-profile limit of its bit depth.
int RangeLimit(int depth, int bitsPerPixel, int channels);

// The search. One frame, or several merged: a pixel bad in more than one frame is listed once, at
// its position, with the channel values of the first frame it was bad in and count = the number of
// frames it was bad in; clusters are the runs of the merged set. A colour pixel is bad when any of
// its channels is. Thread: one owner.
class BadPixelSearch {
  public:
    // capacity: frames x width x height, capped at kBadPixelCap.
    BadPixelSearch(const BadPixelSettings& settings, PixelArea area, int frames, int width,
                   int height);
    ~BadPixelSearch();
    BadPixelSearch(BadPixelSearch&&) noexcept;
    BadPixelSearch& operator=(BadPixelSearch&&) noexcept;
    // Scans one frame (the area clipped to it). running is checked on every row: false when
    // abandoned, and the search is then unusable.
    bool AddFrame(const FrameCopy& frame, const std::atomic<bool>* running = nullptr,
                  const RowObserver* observer = nullptr);
    // The lists; the search is spent afterwards.
    BadPixelLists Finish();

  private:
    struct Hit {
        uint64_t key;
        uint32_t count;
        std::array<uint16_t, 4> values;
    };
    class Walk;
    template <class Out>
    bool scan(const FrameCopy& frame, const std::atomic<bool>* running, const RowObserver* observer,
              Out&& out);

    BadPixelSettings settings_;
    PixelArea area_;
    int frames_;
    std::size_t capacity_;
    int channels_ = 1;
    int framesAdded_ = 0;
    std::vector<Hit> merged_;
    std::vector<Hit> scratch_;
    std::unique_ptr<Walk> walk_;  // one frame: fed while scanning
};

// CSV export: a header line, then one record per line, fields separated by commas, lines ending
// in CR LF. Single: "Col,Row"; Horizontal: "Row,Col(Start),Col(End),Size"; Vertical:
// "Col,Row(Start),Row(End),Size".
std::string BadPixelCsv(const std::vector<BadPixelRecord>& records, BadPixelList which);
// Writes the file; an empty list gives kNoBadPixelDataText and writes nothing. The empty text on
// success, or the reason.
std::string ExportBadPixelCsv(const std::string& path, const std::vector<BadPixelRecord>& records,
                              BadPixelList which);
// Save-dialog filter: "CSV File(*.csv)|*.csv||" for Single, "Lut(*.csv)|*.csv||" for clusters.
std::string_view ExportFilter(BadPixelList which);

// The result list: column titles per tab and the cells of one record ("ID" is index + 1).
std::vector<std::string> ResultColumns(BadPixelList which);
std::vector<std::string> ResultCells(const BadPixelRecord& record, std::size_t index,
                                     BadPixelList which, int channels);
// "%d", "%d,%d,%d" or "%d,%d,%d,%d" by channel count.
std::string PixelText(const BadPixelRecord& record, int channels);

}  // namespace lumetra
