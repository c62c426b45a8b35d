#include "SignalBank.h"

#include "OrvixBoard.h"

namespace orvix::sim {

uint32_t SignalEdge::event() const {
    return (1u << row) | (rising ? ORVIX_SIGNAL_RISING_EDGE : ORVIX_SIGNAL_FALLING_EDGE);
}

SignalBank::SignalBank(const std::array<uint32_t, kSignalCount>& ratesHz) : rates_(ratesHz) {}

void SignalBank::watch(uint32_t rowMask, Nanos now) {
    for (int r = 0; r < kSignalCount; ++r) {
        uint32_t bit = 1u << r;
        if ((rowMask & bit) != 0 && (watched_ & bit) == 0) {
            start_[r] = now;
            nextEdge_[r] = 0;
        }
    }
    watched_ = rowMask & 0xFFu;
}

Nanos SignalBank::edgeTime(int row, uint64_t index) const {
    // Edge i comes (i + 1) half-periods after the start.
    auto t = static_cast<unsigned __int128>(index + 1) * 1000000000u / (2u * uint64_t{rates_[row]});
    return start_[row] + Nanos{static_cast<int64_t>(t)};
}

std::optional<SignalEdge> SignalBank::next() const {
    std::optional<SignalEdge> best;
    for (int r = 0; r < kSignalCount; ++r) {
        if ((watched_ & (1u << r)) == 0 || rates_[r] == 0) {
            continue;
        }
        Nanos at = edgeTime(r, nextEdge_[r]);
        if (!best || at < best->at) {
            best = SignalEdge{r, nextEdge_[r] % 2 == 0, at};
        }
    }
    return best;
}

void SignalBank::pass(const SignalEdge& edge) {
    ++nextEdge_[edge.row];
}

void SignalBank::count(int row) {
    if (control_ == 0) {
        ++counters_[row];
    }
}

void SignalBank::setControl(uint32_t control) {
    if (control == 0) {
        counters_.fill(0);
    }
    control_ = control;
}

}  // namespace orvix::sim
