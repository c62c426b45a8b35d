// The eight input signals of the signal check. A watched signal (a callback of either polarity is
// registered) runs as a square wave at its configured rate from the moment it became watched: a
// rising edge every period, a falling edge half a period later. Each delivered edge counts in the
// signal's hardware counter while the counters run (control 0); control 1 holds them.
// Thread: not synchronised; the streamer guards it with its own lock.
#pragma once

#include <array>
#include <cstdint>
#include <optional>

#include "BoardConfig.h"
#include "Clock.h"

namespace orvix::sim {

struct SignalEdge {
    int row = 0;
    bool rising = false;
    Nanos at{0};
    // The event id a callback registers for: base plus polarity bit.
    uint32_t event() const;
};

class SignalBank {
  public:
    explicit SignalBank(const std::array<uint32_t, kSignalCount>& ratesHz);

    // Rows (bit r = row r) watched from now on; newly watched rows start their wave at `now`.
    void watch(uint32_t rowMask, Nanos now);
    uint32_t watched() const { return watched_; }

    // The next edge of any watched row, earliest first (lower row first on a tie).
    std::optional<SignalEdge> next() const;
    // Moves past `edge` (which next() returned).
    void pass(const SignalEdge& edge);

    void count(int row);
    uint32_t counter(int row) const { return counters_[row]; }
    // 0 clears and runs the counters, 1 holds them.
    void setControl(uint32_t control);
    uint32_t control() const { return control_; }

  private:
    Nanos edgeTime(int row, uint64_t index) const;

    std::array<uint32_t, kSignalCount> rates_;
    std::array<Nanos, kSignalCount> start_{};
    std::array<uint64_t, kSignalCount> nextEdge_{};  // even: rising, odd: falling
    std::array<uint32_t, kSignalCount> counters_{};
    uint32_t watched_ = 0;
    uint32_t control_ = 0;
};

}  // namespace orvix::sim
