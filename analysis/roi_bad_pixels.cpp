#include "analysis/roi_bad_pixels.h"

#include <system_error>

namespace lumetra {

PixelArea RoiBadPixelRect(const RoiBadPixelSettings& s, int w, int h) {
    const int hw = w / 2;
    const int hh = h / 2;
    switch (s.area) {
        case kQuadrantA:
            return {0, 0, hw, hh};
        case kQuadrantB:
            return {hw, 0, 2 * hw, hh};
        case kQuadrantC:
            return {0, hh, hw, 2 * hh};
        case kQuadrantD:
            return {hw, hh, 2 * hw, 2 * hh};
        case kWholeArea:
            return {0, 0, w, h};
        default:
            return {s.xStart, s.yStart, s.xStart + s.width, s.yStart + s.height};
    }
}

bool RoiBadPixelRectFits(const PixelArea& a, int width, int height) {
    return a.left >= 0 && a.top >= 0 && a.right <= width && a.bottom <= height;
}

namespace {

// The slider that limits each sample of the frame: "R", "G", "B", "C" against samples in blue,
// green, red, clear order.
constexpr int kRangeOfSample[4] = {2, 1, 0, 3};

template <class Sample>
bool search(const FrameCopy& f, const PixelArea& a, const std::array<ChannelRange, 4>& ranges,
            RoiBadPixelResult& out, const std::atomic<bool>* running, const RowObserver* observer) {
    const int channels = f.channels();
    int64_t low[4];
    int64_t high[4];
    for (int c = 0; c < channels; ++c) {
        const ChannelRange& r = ranges[channels == 1 ? 0 : kRangeOfSample[c]];
        low[c] = r.low();
        high[c] = r.high();
    }
    std::array<uint64_t, 4> sums{};
    for (int y = a.top; y < a.bottom; ++y) {
        if (running != nullptr && !running->load(std::memory_order_relaxed)) {
            return false;
        }
        if (observer != nullptr && *observer) {
            (*observer)(y);
        }
        const auto* row = reinterpret_cast<const Sample*>(f.row(y));
        for (int x = a.left; x < a.right; ++x) {
            const Sample* px = row + static_cast<std::size_t>(x) * channels;
            bool bad = false;
            for (int c = 0; c < channels; ++c) {
                sums[c] += px[c];
                bad = bad || px[c] < low[c] || px[c] > high[c];
            }
            if (!bad) {
                continue;
            }
            if (out.pixels.size() >= kBadPixelCap) {
                out.capped = true;
                continue;
            }
            BadPixelRecord r;
            r.key = (static_cast<uint64_t>(y) << 16) + static_cast<uint64_t>(x);
            r.count = 1;
            for (int c = 0; c < channels; ++c) {
                r.values[c] = static_cast<uint16_t>(px[c]);
            }
            out.pixels.push_back(r);
        }
    }
    const double pixels = static_cast<double>(a.width()) * a.height();
    for (int c = 0; c < channels && pixels > 0; ++c) {
        out.average[c] = static_cast<double>(sums[c]) / pixels;
    }
    return true;
}

}  // namespace

bool FindRoiBadPixels(const FrameCopy& frame, const PixelArea& area,
                      const std::array<ChannelRange, 4>& ranges, RoiBadPixelResult& out,
                      const std::atomic<bool>* running, const RowObserver* observer) {
    out = RoiBadPixelResult{};
    out.channels = frame.channels();
    const PixelArea a = ClipArea(area, frame.width(), frame.height());
    return frame.depth() == 8 ? search<uint8_t>(frame, a, ranges, out, running, observer)
                              : search<uint16_t>(frame, a, ranges, out, running, observer);
}

RoiBadPixelDetector::RoiBadPixelDetector(MessageSink& sink, Prompt& prompt,
                                         BlockAllocator& allocator)
    : sink_(sink), prompt_(prompt), pool_(allocator) {}

RoiBadPixelDetector::~RoiBadPixelDetector() {
    Stop();
}

void RoiBadPixelDetector::Stop() {
    running_.store(false);
    if (thread_.joinable()) {
        thread_.join();
    }
}

bool RoiBadPixelDetector::Start(const RoiBadPixelSettings& settings, FrameImage& frame) {
    Stop();
    std::shared_ptr<const FrameCopy> copy;
    PixelArea area;
    bool fits = false;
    {
        std::lock_guard frameLock(frame.frameLock());
        const int w = frame.raw().width();
        const int h = frame.raw().height();
        area = RoiBadPixelRect(settings, w, h);
        fits = RoiBadPixelRectFits(area, w, h);
        if (fits) {
            std::lock_guard lock(mutex_);
            std::unique_ptr<FrameCopy> block = pool_.Take();
            if (FillFrameCopy(frame.raw(), frame.format().bitsPerPixel, *block)) {
                copy = pool_.Share(std::move(block));
            }
        }
    }
    if (!fits) {
        prompt_.information(kOutOfRangeText);
        return false;
    }
    if (!copy) {
        prompt_.information(kAllocateFailText);
        return false;
    }
    running_.store(true);
    try {
        thread_ = std::thread([this, copy, area, ranges = settings.ranges] {
            RoiBadPixelResult result;
            const RowObserver* observer = observer_ ? &observer_ : nullptr;
            if (!FindRoiBadPixels(*copy, area, ranges, result, &running_, observer)) {
                return;
            }
            const bool capped = result.capped;
            {
                std::lock_guard lock(mutex_);
                result_ = std::move(result);
            }
            running_.store(false);
            sink_.post(analysis_msg::kRoiBadPixelDone, capped ? 1 : 0, 0);
        });
    } catch (const std::system_error&) {
        running_.store(false);  // the dialog is idle again
        return false;
    }
    return true;
}

RoiBadPixelResult RoiBadPixelDetector::result() const {
    std::lock_guard lock(mutex_);
    return result_;
}

}  // namespace lumetra
