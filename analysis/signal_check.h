// "Check Signal": counts the edges seen on the board's eight input signals through the board
// library's event callbacks ("Statistical"), or reads the board's own counters ("Record
// Statistical").
//
// Row 0 (Internal Trigger) is shown like the others but Start, Stop, the timer and "Select All"
// work on rows 1 to 7 only: it is never examined, registered or counted. That is how the tool has
// always behaved and it is kept.
//
// "Record Statistical" starts exactly like "Statistical" (the callbacks are registered, so that the
// board delivers the signals' events); its timer tick then shows the board's counters,
// 0x20000009..0x2000000F, instead of the callback counts. 0x20000011 = 0 clears and runs those
// counters at Start, 1 holds them at Stop.
//
// Thread: the dialog's thread, except the callbacks, which only increment a counter.
#pragma once

#include <array>
#include <atomic>
#include <cstdint>
#include <string>
#include <string_view>

#include "acquisition/board_library.h"
#include "base/messages.h"

namespace lumetra {

inline constexpr int kSignalCount = 8;
inline constexpr std::string_view kOpenCardText = "Please open the collection card";
inline constexpr std::string_view kSelectSignalText = "Select the signal you want to check !";
inline constexpr int kSignalTimerId = 300;
inline constexpr int kSignalTimerMs = 300;
inline constexpr uint32_t kSignalCounterControl = 0x20000011;
inline constexpr uint32_t kSignalCounterBase = 0x20000008;  // + row
inline constexpr uint32_t kRisingPolarityBit = 0x800000;
inline constexpr uint32_t kOtherPolarityBit = 0x400000;

// "Internal Trigger", "General Input 1", ... "Integration Signal 2".
std::string_view SignalName(int row);
// Event base 1 << row.
inline uint32_t SignalEventBase(int row) {
    return 1u << row;
}
// Base + 0x800000 for the polarity combo's first item, + 0x400000 for any other.
uint32_t SignalEventId(int row, int polarityIndex);
// "Resister callback <name> failure", spelt as the tool has always spelt it.
std::string RegisterFailureText(int row);
// Items of the "Polarity:" combo.
inline constexpr std::array<std::string_view, 2> kPolarityItems = {"Rising Edge", "Falling Edge"};

enum class SignalMethod : int { kStatistical = 0, kRecordStatistical = 1 };

struct SignalControlsState {
    bool start = false;
    bool stop = false;
    bool methods = false;  // the two method buttons
    bool rows = false;     // every row's check box and polarity combo
};

class SignalCheck {
  public:
    // library may be null and handle ORVIX_INVALID_HANDLE (or 0): no board is open.
    SignalCheck(BoardLibrary* library, OrvixHandle handle, Prompt& prompt);
    ~SignalCheck();  // stops a running check
    SignalCheck(const SignalCheck&) = delete;
    SignalCheck& operator=(const SignalCheck&) = delete;

    // A signal check box: "Select All" follows, checked exactly when all eight are.
    void SetChecked(int row, bool checked);
    // "Select All": sets rows 1 to 7 to its own state.
    void SetSelectAll(bool checked);
    bool checked(int row) const { return checked_[row]; }
    bool selectAll() const { return selectAll_; }
    void SetPolarity(int row, int index) { polarity_[row] = index; }
    int polarity(int row) const { return polarity_[row]; }
    void SetMethod(SignalMethod method) { method_ = method; }
    SignalMethod method() const { return method_; }

    // "Start": true when the check runs (the front end then starts timer 300 every 300 ms).
    bool Start();
    // "Stop".
    void Stop();
    // Timer 300: refreshes the counters (board counters in "Record Statistical") and returns
    // what the read-outs show.
    std::array<uint32_t, kSignalCount> TimerTick();

    bool running() const { return running_; }
    bool timerActive() const { return timerActive_; }
    bool hasBoard() const;
    SignalControlsState controls() const;
    // The read-outs as last shown.
    const std::array<uint32_t, kSignalCount>& shown() const { return shown_; }
    uint32_t callbackCount(int row) const { return callbackCounts_[row].load(); }

  private:
    template <int Row>
    static void OnSignal(uint32_t event, void* context);

    BoardLibrary* library_;
    OrvixHandle handle_;
    Prompt& prompt_;
    std::array<bool, kSignalCount> checked_{};
    std::array<int, kSignalCount> polarity_{};
    bool selectAll_ = false;
    SignalMethod method_ = SignalMethod::kStatistical;
    bool running_ = false;
    bool timerActive_ = false;
    std::array<std::atomic<uint32_t>, kSignalCount> callbackCounts_{};
    std::array<uint32_t, kSignalCount> boardCounts_{};
    std::array<uint32_t, kSignalCount> shown_{};
};

}  // namespace lumetra
