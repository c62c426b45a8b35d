#include "analysis/bad_pixel_detector.h"

#include <algorithm>
#include <system_error>

namespace lumetra {

BadPixelDetector::BadPixelDetector(MessageSink& sink, Prompt& prompt, BlockAllocator& allocator)
    : sink_(sink), prompt_(prompt), pool_(allocator) {}

BadPixelDetector::~BadPixelDetector() {
    Stop();
}

void BadPixelDetector::Stop() {
    running_.store(false);
    frameEvent_.set();
    if (thread_.joinable()) {
        thread_.join();
    }
    std::lock_guard lock(mutex_);
    pending_.reset();
    waitingForFrame_ = false;
}

bool BadPixelDetector::Calc(const BadPixelSettings& settings, FrameImage& frame) {
    Stop();
    frameEvent_.reset();
    const int frames = std::max(settings.frames, 1);
    AreaCheck check;
    int width = 0;
    int height = 0;
    bool copied = true;
    {
        std::lock_guard frameLock(frame.frameLock());
        std::lock_guard lock(mutex_);
        width = frame.raw().width();
        height = frame.raw().height();
        check = CheckBadPixelSettings(settings, width, height);
        if (check.error.empty() && frames == 1) {
            std::unique_ptr<FrameCopy> copy = pool_.Take();
            copied = FillFrameCopy(frame.raw(), frame.format().bitsPerPixel, *copy);
            pending_ = copied ? pool_.Share(std::move(copy)) : nullptr;
        }
        waitingForFrame_ = frames > 1;
    }
    if (!check.error.empty()) {
        prompt_.information(check.error);
        return false;
    }
    if (!copied) {
        prompt_.information(kCreateImageFailText);
        return false;
    }
    remaining_.store(frames);
    running_.store(true);
    try {
        thread_ = std::thread([this, settings, area = check.area, frames, width, height] {
            Run(settings, area, frames, width, height);
        });
    } catch (const std::system_error&) {
        running_.store(false);
        return false;
    }
    return true;
}

bool BadPixelDetector::NewFrame(FrameImage& frame) {
    if (!running_.load()) {
        return false;
    }
    bool copied = true;
    {
        std::lock_guard frameLock(frame.frameLock());
        std::lock_guard lock(mutex_);
        if (!waitingForFrame_ || pending_) {
            return false;  // the worker is still busy with the previous frame
        }
        std::unique_ptr<FrameCopy> copy = pool_.Take();
        copied = FillFrameCopy(frame.raw(), frame.format().bitsPerPixel, *copy);
        if (copied) {
            pending_ = pool_.Share(std::move(copy));
            waitingForFrame_ = false;
        }
    }
    if (!copied) {
        prompt_.information(kCreateImageFailText);
        return false;
    }
    frameEvent_.set();
    return true;
}

void BadPixelDetector::Run(BadPixelSettings settings, PixelArea area, int frames, int width,
                           int height) {
    BadPixelSearch search(settings, area, frames, width, height);
    const RowObserver* observer = observer_ ? &observer_ : nullptr;
    for (int i = 0; i < frames; ++i) {
        std::shared_ptr<const FrameCopy> frame;
        while (running_.load()) {
            {
                std::lock_guard lock(mutex_);
                frame = std::move(pending_);
                pending_.reset();
            }
            if (frame) {
                break;
            }
            frameEvent_.wait();
        }
        if (!frame || !search.AddFrame(*frame, &running_, observer)) {
            return;  // stopped
        }
        frame.reset();
        const int remaining = remaining_.fetch_sub(1) - 1;
        if (frames > 1) {
            {
                std::lock_guard lock(mutex_);
                waitingForFrame_ = remaining > 0;
            }
            sink_.post(analysis_msg::kBadPixelProgress, remaining, 0);
        }
    }
    BadPixelLists lists = search.Finish();
    const bool capped = lists.capped;
    {
        std::lock_guard lock(mutex_);
        results_ = std::move(lists);
    }
    running_.store(false);
    sink_.post(analysis_msg::kBadPixelDone, capped ? 1 : 0, 0);
}

BadPixelLists BadPixelDetector::results() const {
    std::lock_guard lock(mutex_);
    return results_;
}

}  // namespace lumetra
