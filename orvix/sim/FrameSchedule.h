// When each frame of a grab is due. Free-running grabs follow an exact rational period from the
// start (no drift, no rounding build-up); triggered grabs get their frames from the triggers.
// Thread: not synchronised; the streamer guards it with its own lock.
#pragma once

#include <cstdint>
#include <deque>
#include <optional>

#include "Clock.h"

namespace orvix::sim {

// num / den nanoseconds, e.g. 1e9 / fps, or 1e9 * height / line rate.
struct Period {
    uint64_t num = 1000000000;
    uint64_t den = 1;

    // k periods, rounded down to the nanosecond.
    Nanos times(uint64_t k) const;
    static Period perSecond(uint64_t rate) { return Period{1000000000, rate}; }
};

class FrameSchedule {
  public:
    // Frame k is due one period after frame k - 1, frame 0 one period after start. limit 0:
    // endless.
    static FrameSchedule freeRun(Nanos start, Period period, uint64_t limit);
    // No frame until trigger() schedules some.
    static FrameSchedule triggered(Period period);

    // Schedules `frames` frames one period apart: the first at `at`, or one period after the
    // last one already scheduled when that is later.
    void trigger(Nanos at, uint32_t frames);

    // When frame k is due; nothing when it is not scheduled (yet).
    std::optional<Nanos> due(uint64_t k) const;
    // How many frames, counted from frame 0, are due at or before t.
    uint64_t dueCount(Nanos t) const;
    // Frames before k will not be asked for again.
    void forget(uint64_t k);

  private:
    bool triggered_ = false;
    Nanos start_{0};
    Period period_;
    uint64_t limit_ = 0;
    // Triggered frames: due times of frames first_, first_ + 1, ...
    std::deque<Nanos> pending_;
    uint64_t first_ = 0;
    std::optional<Nanos> last_;
};

}  // namespace orvix::sim
