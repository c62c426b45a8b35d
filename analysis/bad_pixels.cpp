#include "analysis/bad_pixels.h"

#include <algorithm>
#include <bit>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <memory>

#if defined(__SSE2__)
#include <emmintrin.h>
#endif

namespace lumetra {

bool IsBadSample(int mode, int64_t v, int64_t low, int64_t high) {
    switch (mode) {
        case kInRange:
            return low < v && v < high;
        case kInRangeEqual:
            return low <= v && v <= high;
        case kOutOfRange:
            return v < low || v > high;
        case kOutOfRangeEqual:
            return v <= low || v >= high;
        default:
            return false;
    }
}

RangeTest RangeTest::For(int mode, int64_t low, int64_t high, uint32_t maxValue) {
    int64_t a = 1;
    int64_t b = 0;
    bool inside = true;
    switch (mode) {
        case kInRange:
            a = low + 1, b = high - 1;
            break;
        case kInRangeEqual:
            a = low, b = high;
            break;
        case kOutOfRange:
            a = low, b = high, inside = false;
            break;
        case kOutOfRangeEqual:
            a = low + 1, b = high - 1, inside = false;
            break;
        default:
            break;
    }
    // Samples only take 0..maxValue, so cutting the interval to that keeps every answer.
    a = std::max<int64_t>(a, 0);
    b = std::min<int64_t>(b, maxValue);
    RangeTest t;
    t.badInside = inside;
    if (a <= b) {
        t.lo = static_cast<uint32_t>(a);
        t.hi = static_cast<uint32_t>(b);
    }
    return t;
}

const std::vector<BadPixelRecord>& BadPixelLists::list(BadPixelList which) const {
    switch (which) {
        case BadPixelList::kHorizontal:
            return horizontal;
        case BadPixelList::kVertical:
            return vertical;
        default:
            return single;
    }
}

AreaCheck CheckBadPixelSettings(const BadPixelSettings& s, int width, int height) {
    AreaCheck check;
    if (s.horizontalCount < 0 || s.horizontalCount > width || s.verticalCount < 0 ||
        s.verticalCount > height) {
        check.error = kClusterRangeText;
        return check;
    }
    const PixelArea a = s.useRoi ? s.roi : PixelArea{0, 0, width, height};
    auto within = [](int v, int limit) { return v >= 0 && v <= limit; };
    if (!within(a.left, width) || !within(a.right, width) || !within(a.top, height) ||
        !within(a.bottom, height)) {
        check.error = kClusterRangeText;
        return check;
    }
    check.area = a;
    return check;
}

int RangeLimit(int depth, int bitsPerPixel, int channels) {
    return depth == 8 ? 255 : ProfileScale(bitsPerPixel, channels).limit;
}

// Turns bad pixels, given in row-key order, into the three lists.
class BadPixelSearch::Walk {
  public:
    Walk(int horizontalCount, int verticalCount, std::size_t capacity, int columns)
        : hCount_(static_cast<uint64_t>(std::max(horizontalCount, 1))),
          vCount_(static_cast<uint32_t>(std::max(verticalCount, 1))),
          capacity_(capacity),
          vStart_(static_cast<std::size_t>(std::max(columns, 0)), 0),
          vLast_(static_cast<std::size_t>(std::max(columns, 0)), 0),
          vLength_(static_cast<std::size_t>(std::max(columns, 0)), 0) {}

    void Add(uint64_t key, uint32_t count, const std::array<uint16_t, 4>& values) {
        if (lists_.single.size() < capacity_) {
            lists_.single.push_back({key, count, values});
        } else {
            lists_.capped = true;
        }
        // A row step adds 65536 to the key, so a run never continues onto the next row.
        if (hLength_ > 0 && key == hLast_ + 1) {
            ++hLength_;
        } else {
            closeHorizontal();
            hStart_ = key;
            hLength_ = 1;
        }
        hLast_ = key;

        const auto row = static_cast<uint32_t>(key >> 16);
        const auto column = static_cast<std::size_t>(key & 0xFFFF);
        if (vLength_[column] > 0 && vLast_[column] + 1 == row) {
            ++vLength_[column];
        } else {
            closeVertical(column);
            vStart_[column] = row;
            vLength_[column] = 1;
        }
        vLast_[column] = row;
    }

    BadPixelLists Finish() {
        closeHorizontal();
        for (std::size_t c = 0; c < vLength_.size(); ++c) {
            closeVertical(c);
        }
        std::sort(vertical_.begin(), vertical_.end(),
                  [](const BadPixelRecord& a, const BadPixelRecord& b) { return a.key < b.key; });
        if (vertical_.size() > capacity_) {
            vertical_.resize(capacity_);
            lists_.capped = true;
        }
        lists_.vertical = std::move(vertical_);
        return std::move(lists_);
    }

  private:
    void closeHorizontal() {
        if (hLength_ >= hCount_) {
            if (lists_.horizontal.size() < capacity_) {
                lists_.horizontal.push_back({hStart_, hLength_, {65535, 65535, 65535, 65535}});
            } else {
                lists_.capped = true;
            }
        }
        hLength_ = 0;
    }
    void closeVertical(std::size_t column) {
        if (vLength_[column] >= vCount_) {
            vertical_.push_back({(uint64_t{column} << 16) + vStart_[column],
                                 vLength_[column],
                                 {65535, 65535, 65535, 65535}});
        }
        vLength_[column] = 0;
    }

    uint64_t hCount_;
    uint32_t vCount_;
    std::size_t capacity_;
    BadPixelLists lists_;
    uint64_t hStart_ = 0;
    uint64_t hLast_ = 0;
    uint64_t hLength_ = 0;
    std::vector<uint32_t> vStart_;
    std::vector<uint32_t> vLast_;
    std::vector<uint32_t> vLength_;
    std::vector<BadPixelRecord> vertical_;
};

namespace {

std::size_t capacityFor(int frames, int width, int height) {
    const uint64_t all = static_cast<uint64_t>(std::max(frames, 0)) *
                         static_cast<uint64_t>(std::max(width, 0)) *
                         static_cast<uint64_t>(std::max(height, 0));
    return static_cast<std::size_t>(std::min<uint64_t>(all, kBadPixelCap));
}

// Bit k set when sample k of the 16 at p lies in [lo, lo + span]: one compare for all 16 where
// the machine has SSE2, sample by sample elsewhere.
inline uint32_t insideMask(const uint8_t* p, uint8_t lo, uint8_t span) {
#if defined(__SSE2__)
    const __m128i v = _mm_loadu_si128(reinterpret_cast<const __m128i*>(p));
    const __m128i t = _mm_sub_epi8(v, _mm_set1_epi8(static_cast<char>(lo)));
    const __m128i in = _mm_cmpeq_epi8(_mm_min_epu8(t, _mm_set1_epi8(static_cast<char>(span))), t);
    return static_cast<uint32_t>(_mm_movemask_epi8(in));
#else
    uint32_t m = 0;
    for (int k = 0; k < 16; ++k) {
        m |= uint32_t{static_cast<uint8_t>(p[k] - lo) <= span} << k;
    }
    return m;
#endif
}

inline uint32_t insideMask(const uint16_t* p, uint16_t lo, uint16_t span) {
#if defined(__SSE2__)
    const __m128i low = _mm_set1_epi16(static_cast<short>(lo));
    const __m128i top = _mm_set1_epi16(static_cast<short>(span));
    const __m128i zero = _mm_setzero_si128();
    const __m128i a = _mm_sub_epi16(_mm_loadu_si128(reinterpret_cast<const __m128i*>(p)), low);
    const __m128i b = _mm_sub_epi16(_mm_loadu_si128(reinterpret_cast<const __m128i*>(p + 8)), low);
    // t <= span exactly when t - span saturates to 0.
    const __m128i inA = _mm_cmpeq_epi16(_mm_subs_epu16(a, top), zero);
    const __m128i inB = _mm_cmpeq_epi16(_mm_subs_epu16(b, top), zero);
    return static_cast<uint32_t>(_mm_movemask_epi8(_mm_packs_epi16(inA, inB)));
#else
    uint32_t m = 0;
    for (int k = 0; k < 16; ++k) {
        m |= uint32_t{static_cast<uint16_t>(p[k] - lo) <= span} << k;
    }
    return m;
#endif
}

// Tests 16 samples at a time and visits only the bad ones.
template <class Sample, class Emit>
void scanMonoRow(const Sample* p, int x0, int n, const RangeTest& t, Emit&& emit) {
    const auto lo = static_cast<Sample>(t.lo);
    const auto span = static_cast<Sample>(t.hi - t.lo);
    const uint32_t flip = t.badInside ? 0 : 0xFFFF;
    int i = 0;
    for (; i + 16 <= n; i += 16) {
        uint32_t bad = insideMask(p + i, lo, span) ^ flip;
        while (bad != 0) {
            const int k = std::countr_zero(bad);
            emit(x0 + i + k, p + i + k);
            bad &= bad - 1;
        }
    }
    for (; i < n; ++i) {
        if (t.bad(p[i])) {
            emit(x0 + i, p + i);
        }
    }
}

}  // namespace

BadPixelSearch::BadPixelSearch(const BadPixelSettings& settings, PixelArea area, int frames,
                               int width, int height)
    : settings_(settings),
      area_(ClipArea(area, width, height)),
      frames_(std::max(frames, 1)),
      capacity_(capacityFor(frames_, width, height)) {}

template <class Out>
bool BadPixelSearch::scan(const FrameCopy& frame, const std::atomic<bool>* running,
                          const RowObserver* observer, Out&& out) {
    const PixelArea a = ClipArea(area_, frame.width(), frame.height());
    const int channels = frame.channels();
    const uint32_t maxValue = frame.depth() == 8 ? 255 : 65535;
    const RangeTest test = RangeTest::For(settings_.mode, settings_.low, settings_.high, maxValue);
    const bool everything = test.lo > test.hi && !test.badInside;
    const bool nothing = test.lo > test.hi && test.badInside;

    for (int y = a.top; y < a.bottom; ++y) {
        if (running != nullptr && !running->load(std::memory_order_relaxed)) {
            return false;
        }
        if (observer != nullptr && *observer) {
            (*observer)(y);
        }
        if (nothing) {
            continue;
        }
        const uint64_t rowKey = static_cast<uint64_t>(y) << 16;
        auto emit = [&](int x, auto sample) {
            std::array<uint16_t, 4> values{65535, 65535, 65535, 65535};
            for (int c = 0; c < channels; ++c) {
                values[c] = static_cast<uint16_t>(sample[c]);
            }
            out(rowKey + static_cast<uint64_t>(x), values);
        };
        if (frame.depth() == 8) {
            const uint8_t* row = frame.row(y);
            if (channels == 1 && !everything) {
                scanMonoRow(row + a.left, a.left, a.width(), test, emit);
            } else {
                for (int x = a.left; x < a.right; ++x) {
                    const uint8_t* px = row + static_cast<std::size_t>(x) * channels;
                    bool bad = everything;
                    for (int c = 0; c < channels && !bad; ++c) {
                        bad = test.bad(px[c]);
                    }
                    if (bad) {
                        emit(x, px);
                    }
                }
            }
        } else {
            const auto* row = reinterpret_cast<const uint16_t*>(frame.row(y));
            if (channels == 1 && !everything) {
                scanMonoRow(row + a.left, a.left, a.width(), test, emit);
            } else {
                for (int x = a.left; x < a.right; ++x) {
                    const uint16_t* px = row + static_cast<std::size_t>(x) * channels;
                    bool bad = everything;
                    for (int c = 0; c < channels && !bad; ++c) {
                        bad = test.bad(px[c]);
                    }
                    if (bad) {
                        emit(x, px);
                    }
                }
            }
        }
    }
    return true;
}

BadPixelSearch::~BadPixelSearch() = default;
BadPixelSearch::BadPixelSearch(BadPixelSearch&&) noexcept = default;
BadPixelSearch& BadPixelSearch::operator=(BadPixelSearch&&) noexcept = default;

bool BadPixelSearch::AddFrame(const FrameCopy& frame, const std::atomic<bool>* running,
                              const RowObserver* observer) {
    if (framesAdded_ >= frames_) {
        return false;  // the run is complete
    }
    if (framesAdded_ == 0) {
        channels_ = frame.channels();
    }
    ++framesAdded_;
    if (frames_ == 1) {
        // One frame: straight into the walk, without holding every bad pixel.
        if (!walk_) {
            walk_ = std::make_unique<Walk>(settings_.horizontalCount, settings_.verticalCount,
                                           capacity_, std::max(area_.right, 0));
        }
        return scan(frame, running, observer,
                    [this](uint64_t key, const std::array<uint16_t, 4>& values) {
                        walk_->Add(key, 1, values);
                    });
    }
    scratch_.clear();
    if (!scan(frame, running, observer,
              [this](uint64_t key, const std::array<uint16_t, 4>& values) {
                  scratch_.push_back({key, 1, values});
              })) {
        return false;
    }
    if (merged_.empty()) {
        merged_.swap(scratch_);
        return true;
    }
    // Both lists are in key order: merge them, counting a position seen again and keeping the
    // values it had when first found.
    std::vector<Hit> out;
    out.reserve(merged_.size() + scratch_.size());
    std::size_t i = 0;
    std::size_t j = 0;
    while (i < merged_.size() && j < scratch_.size()) {
        if (merged_[i].key < scratch_[j].key) {
            out.push_back(merged_[i++]);
        } else if (scratch_[j].key < merged_[i].key) {
            out.push_back(scratch_[j++]);
        } else {
            Hit h = merged_[i++];
            h.count += scratch_[j++].count;
            out.push_back(h);
        }
    }
    out.insert(out.end(), merged_.begin() + static_cast<std::ptrdiff_t>(i), merged_.end());
    out.insert(out.end(), scratch_.begin() + static_cast<std::ptrdiff_t>(j), scratch_.end());
    merged_.swap(out);
    return true;
}

BadPixelLists BadPixelSearch::Finish() {
    if (!walk_) {
        walk_ = std::make_unique<Walk>(settings_.horizontalCount, settings_.verticalCount,
                                       capacity_, std::max(area_.right, 0));
        for (const Hit& h : merged_) {
            walk_->Add(h.key, h.count, h.values);
        }
        merged_.clear();
        merged_.shrink_to_fit();
    }
    BadPixelLists lists = walk_->Finish();
    walk_.reset();
    lists.channels = channels_;
    return lists;
}

namespace {

int highOf(uint64_t key) {
    return static_cast<int>(key >> 16);
}
int lowOf(uint64_t key) {
    return static_cast<int>(key & 0xFFFF);
}

}  // namespace

std::string BadPixelCsv(const std::vector<BadPixelRecord>& records, BadPixelList which) {
    std::string out;
    out.reserve(32 + records.size() * 24);
    char line[96];
    switch (which) {
        case BadPixelList::kSingle:
            out += "Col,Row\r\n";
            for (const BadPixelRecord& r : records) {
                std::snprintf(line, sizeof line, "%d,%d\r\n", lowOf(r.key), highOf(r.key));
                out += line;
            }
            break;
        case BadPixelList::kHorizontal:
        case BadPixelList::kVertical:
            // Horizontal keys hold the row high and the first column low; vertical keys the
            // column high and the first row low: the same four fields either way.
            out += which == BadPixelList::kHorizontal ? "Row,Col(Start),Col(End),Size\r\n"
                                                      : "Col,Row(Start),Row(End),Size\r\n";
            for (const BadPixelRecord& r : records) {
                const int start = lowOf(r.key);
                std::snprintf(line, sizeof line, "%d,%d,%lld,%llu\r\n", highOf(r.key), start,
                              static_cast<long long>(start) + static_cast<long long>(r.count) - 1,
                              static_cast<unsigned long long>(r.count));
                out += line;
            }
            break;
    }
    return out;
}

std::string ExportBadPixelCsv(const std::string& path, const std::vector<BadPixelRecord>& records,
                              BadPixelList which) {
    if (records.empty()) {
        return std::string(kNoBadPixelDataText);
    }
    const std::string text = BadPixelCsv(records, which);
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    if (!out) {
        return "Cannot write " + path;
    }
    out.write(text.data(), static_cast<std::streamsize>(text.size()));
    out.close();
    if (!out) {
        return "Cannot write " + path;
    }
    return {};
}

std::string_view ExportFilter(BadPixelList which) {
    return which == BadPixelList::kSingle ? "CSV File(*.csv)|*.csv||" : "Lut(*.csv)|*.csv||";
}

std::vector<std::string> ResultColumns(BadPixelList which) {
    switch (which) {
        case BadPixelList::kHorizontal:
            return {"ID", "Row", "Col(Start)", "Col(End)", "Size"};
        case BadPixelList::kVertical:
            return {"ID", "Col", "Row(Start)", "Row(End)", "Size"};
        default:
            return {"ID", "Col", "Row", "Pixel"};
    }
}

std::string PixelText(const BadPixelRecord& r, int channels) {
    char buf[64];
    if (channels == 4) {
        std::snprintf(buf, sizeof buf, "%d,%d,%d,%d", r.values[0], r.values[1], r.values[2],
                      r.values[3]);
    } else if (channels == 3) {
        std::snprintf(buf, sizeof buf, "%d,%d,%d", r.values[0], r.values[1], r.values[2]);
    } else {
        std::snprintf(buf, sizeof buf, "%d", r.values[0]);
    }
    return buf;
}

std::vector<std::string> ResultCells(const BadPixelRecord& r, std::size_t index, BadPixelList which,
                                     int channels) {
    std::vector<std::string> cells{std::to_string(index + 1)};
    const int high = highOf(r.key);
    const int low = lowOf(r.key);
    if (which == BadPixelList::kSingle) {
        cells.push_back(std::to_string(low));
        cells.push_back(std::to_string(high));
        cells.push_back(PixelText(r, channels));
    } else {
        cells.push_back(std::to_string(high));
        cells.push_back(std::to_string(low));
        cells.push_back(
            std::to_string(static_cast<long long>(low) + static_cast<long long>(r.count) - 1));
        cells.push_back(std::to_string(r.count));
    }
    return cells;
}

}  // namespace lumetra
