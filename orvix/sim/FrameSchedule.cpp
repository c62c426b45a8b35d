#include "FrameSchedule.h"

#include <algorithm>

namespace orvix::sim {

Nanos Period::times(uint64_t k) const {
    unsigned __int128 t = static_cast<unsigned __int128>(k) * num / den;
    return Nanos{static_cast<int64_t>(t)};
}

FrameSchedule FrameSchedule::freeRun(Nanos start, Period period, uint64_t limit) {
    FrameSchedule s;
    s.start_ = start;
    s.period_ = period;
    s.limit_ = limit;
    return s;
}

FrameSchedule FrameSchedule::triggered(Period period) {
    FrameSchedule s;
    s.triggered_ = true;
    s.period_ = period;
    return s;
}

void FrameSchedule::trigger(Nanos at, uint32_t frames) {
    if (!triggered_ || frames == 0) {
        return;
    }
    Nanos first = at;
    if (last_ && *last_ + period_.times(1) > at) {
        first = *last_ + period_.times(1);
    }
    for (uint32_t i = 0; i < frames; ++i) {
        pending_.push_back(first + period_.times(i));
    }
    last_ = pending_.back();
}

std::optional<Nanos> FrameSchedule::due(uint64_t k) const {
    if (triggered_) {
        if (k < first_ || k - first_ >= pending_.size()) {
            return std::nullopt;
        }
        return pending_[k - first_];
    }
    if (limit_ != 0 && k >= limit_) {
        return std::nullopt;
    }
    return start_ + period_.times(k + 1);
}

uint64_t FrameSchedule::dueCount(Nanos t) const {
    if (triggered_) {
        auto end = std::upper_bound(pending_.begin(), pending_.end(), t);
        return first_ + static_cast<uint64_t>(end - pending_.begin());
    }
    if (t < start_) {
        return 0;
    }
    // Frame k is due when floor((k + 1) * num / den) <= t - start, i.e. when
    // (k + 1) * num <= (t - start + 1) * den - 1.
    auto elapsed = static_cast<unsigned __int128>((t - start_).count());
    unsigned __int128 count = ((elapsed + 1) * period_.den - 1) / period_.num;
    if (limit_ != 0 && count > limit_) {
        count = limit_;
    }
    return static_cast<uint64_t>(count);
}

void FrameSchedule::forget(uint64_t k) {
    while (triggered_ && first_ < k && !pending_.empty()) {
        pending_.pop_front();
        ++first_;
    }
    if (triggered_ && pending_.empty()) {
        first_ = std::max(first_, k);
    }
}

}  // namespace orvix::sim
