#include "FrameSequence.h"

namespace orvix::aravis {
namespace {

constexpr size_t kRateWindow = 32;
constexpr uint64_t kShortIdMax = 0xFFFF;
// Ids this far behind the last are late or stale; further behind, the camera started again.
constexpr int64_t kLateWindow = 1024;

}  // namespace

int64_t frameIdDistance(uint64_t last, uint64_t next) {
    if (last <= kShortIdMax && next <= kShortIdMax && last != 0 && next != 0) {
        // 1 .. 65535 and round again; 0 is never sent.
        constexpr int64_t kCycle = kShortIdMax;
        int64_t d = (static_cast<int64_t>(next) - static_cast<int64_t>(last)) % kCycle;
        if (d > kCycle / 2) {
            d -= kCycle;
        } else if (d < -kCycle / 2) {
            d += kCycle;
        }
        return d;
    }
    return static_cast<int64_t>(next - last);
}

uint64_t framesLostBetween(uint64_t last, uint64_t next) {
    const int64_t d = frameIdDistance(last, next);
    // More than half the 16-bit range ahead is a restarted camera, not lost frames.
    return d > 1 && d <= static_cast<int64_t>(kShortIdMax / 2) ? static_cast<uint64_t>(d - 1) : 0;
}

FrameSequence::Step FrameSequence::arrive(uint64_t frameId) {
    Step s;
    if (!lastId_) {
        lastId_ = frameId;
    } else {
        const int64_t d = frameIdDistance(*lastId_, frameId);
        if (d > 0 || d < -kLateWindow) {
            s.lost = framesLostBetween(*lastId_, frameId);
            lastId_ = frameId;
        }
    }
    lostTotal_ += s.lost;
    next_ += s.lost;
    s.number = static_cast<uint32_t>(next_);
    ++next_;
    return s;
}

void FrameSequence::stamp(uint64_t timestampNs) {
    stamps_.push_back(timestampNs);
    if (stamps_.size() > kRateWindow) {
        stamps_.pop_front();
    }
}

double FrameSequence::rate() const {
    if (stamps_.size() < 2 || stamps_.back() <= stamps_.front()) {
        return 0.0;
    }
    const double span = static_cast<double>(stamps_.back() - stamps_.front());
    return 1e9 * static_cast<double>(stamps_.size() - 1) / span;
}

}  // namespace orvix::aravis
