#include "analysis/signal_check.h"

namespace lumetra {

namespace {

constexpr std::array<std::string_view, kSignalCount> kNames = {
    "Internal Trigger", "General Input 1", "General Input 2",      "Shaft Encoder A",
    "Shaft Encoder B",  "Board Sync",      "Integration Signal 1", "Integration Signal 2"};

// Rows 1 to 7: the rows Start, Stop, the timer and "Select All" work on.
constexpr int kFirstCountedRow = 1;

}  // namespace

std::string_view SignalName(int row) {
    return row >= 0 && row < kSignalCount ? kNames[static_cast<std::size_t>(row)]
                                          : std::string_view{};
}

uint32_t SignalEventId(int row, int polarityIndex) {
    return SignalEventBase(row) + (polarityIndex == 0 ? kRisingPolarityBit : kOtherPolarityBit);
}

std::string RegisterFailureText(int row) {
    return "Resister callback " + std::string(SignalName(row)) + " failure";
}

SignalCheck::SignalCheck(BoardLibrary* library, OrvixHandle handle, Prompt& prompt)
    : library_(library), handle_(handle), prompt_(prompt) {}

SignalCheck::~SignalCheck() {
    if (running_) {
        Stop();
    }
}

bool SignalCheck::hasBoard() const {
    return library_ != nullptr && handle_ != ORVIX_INVALID_HANDLE && handle_ != 0;
}

void SignalCheck::SetChecked(int row, bool checked) {
    if (row < 0 || row >= kSignalCount) {
        return;
    }
    checked_[static_cast<std::size_t>(row)] = checked;
    bool all = true;
    for (bool c : checked_) {
        all = all && c;
    }
    selectAll_ = all;
}

void SignalCheck::SetSelectAll(bool checked) {
    selectAll_ = checked;
    for (int row = kFirstCountedRow; row < kSignalCount; ++row) {
        checked_[static_cast<std::size_t>(row)] = checked;
    }
}

template <int Row>
void SignalCheck::OnSignal(uint32_t, void* context) {
    static_cast<SignalCheck*>(context)->callbackCounts_[Row].fetch_add(1,
                                                                       std::memory_order_relaxed);
}

namespace {

using Callback = void (*)(uint32_t, void*);

}  // namespace

bool SignalCheck::Start() {
    if (!hasBoard()) {
        prompt_.information(kOpenCardText);
        return false;
    }
    bool any = false;
    for (int row = kFirstCountedRow; row < kSignalCount; ++row) {
        any = any || checked_[static_cast<std::size_t>(row)];
    }
    if (!any) {
        prompt_.information(kSelectSignalText);
        return false;
    }

    for (auto& c : callbackCounts_) {
        c.store(0);
    }
    boardCounts_.fill(0);
    shown_.fill(0);
    running_ = false;
    library_->SetInfo(handle_, kSignalCounterControl, 0);

    static constexpr std::array<Callback, kSignalCount> kCallbacks = {
        &OnSignal<0>, &OnSignal<1>, &OnSignal<2>, &OnSignal<3>,
        &OnSignal<4>, &OnSignal<5>, &OnSignal<6>, &OnSignal<7>};
    bool anySuccess = false;
    for (int row = kFirstCountedRow; row < kSignalCount; ++row) {
        const auto r = static_cast<std::size_t>(row);
        bool success = true;  // an unchecked row counts as a success
        if (checked_[r]) {
            success = library_->RegisterCallback(handle_, SignalEventId(row, polarity_[r]),
                                                 kCallbacks[r], this) == ORVIX_SUCCESS;
            if (!success) {
                prompt_.information(RegisterFailureText(row));
            }
        }
        anySuccess = anySuccess || success;
    }
    running_ = anySuccess;
    timerActive_ = running_;
    return running_;
}

void SignalCheck::Stop() {
    if (hasBoard()) {
        for (int row = kFirstCountedRow; row < kSignalCount; ++row) {
            const auto r = static_cast<std::size_t>(row);
            if (checked_[r]) {
                library_->UnRegisterCallback(handle_, SignalEventId(row, polarity_[r]));
            }
        }
    }
    timerActive_ = false;
    running_ = false;
    if (hasBoard()) {
        library_->SetInfo(handle_, kSignalCounterControl, 1);
    }
}

std::array<uint32_t, kSignalCount> SignalCheck::TimerTick() {
    for (int row = kFirstCountedRow; row < kSignalCount; ++row) {
        const auto r = static_cast<std::size_t>(row);
        if (!checked_[r]) {
            continue;
        }
        if (method_ == SignalMethod::kRecordStatistical && hasBoard()) {
            uint32_t value = 0;
            if (library_->GetInfo(handle_, kSignalCounterBase + static_cast<uint32_t>(row),
                                  &value) == ORVIX_SUCCESS) {
                boardCounts_[r] = value;
            }
        }
    }
    for (int row = 0; row < kSignalCount; ++row) {
        const auto r = static_cast<std::size_t>(row);
        shown_[r] = method_ == SignalMethod::kRecordStatistical
                        ? boardCounts_[r]
                        : callbackCounts_[r].load(std::memory_order_relaxed);
    }
    return shown_;
}

SignalControlsState SignalCheck::controls() const {
    SignalControlsState s;
    s.methods = !running_;
    s.rows = !running_;
    if (hasBoard()) {
        s.start = !running_;
        s.stop = running_;
    }
    return s;
}

}  // namespace lumetra
