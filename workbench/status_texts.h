// What the status bar shows: the texts and colours of its panes, and the decisions behind them,
// without the bar itself.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace lumetra {

// Colours as 0x00BBGGRR values, as the bar's panes take them.
inline constexpr uint32_t kSignalPresentColour = 0x3F7F00;
inline constexpr uint32_t kSignalAbsentColour = 0x1500FF;

// The panes in order: index, id and the text that sizes the pane.
struct StatusPane {
    int index;
    int id;
    const char* initialText;
};
const std::vector<StatusPane>& StatusPanes();

namespace pane {
inline constexpr int kRate = 0;
inline constexpr int kPixelClockNum = 2;
inline constexpr int kSerialPort = 4;
inline constexpr int kFramesGrabbed = 6;
inline constexpr int kMarker = 8;
inline constexpr int kFrameLost = 10;
inline constexpr int kTemperature = 12;
inline constexpr int kPcieState = 14;
inline constexpr int kPixelClock = 16;
inline constexpr int kLineValid = 18;
inline constexpr int kFrameValid = 20;
inline constexpr int kCount = 21;
}  // namespace pane

struct PaneText {
    std::string text;
    uint32_t colour = kSignalPresentColour;
};

// "Frame Grabbed: %u".
std::string FramesGrabbedText(uint32_t frames);
// The frame-lost pane: empty in the present colour, or "Frame Lost" in the absent colour.
PaneText FrameLostPane(bool lost);
// "Line Rate %6.2f lps " for line scan, "Frame Rate %6.2f fps " otherwise.
std::string RateText(double rate, bool lineScan);
// "Pixel Clock %d MHz ".
std::string PixelClockText(int megahertz);
// "Serial Port: COM %d", or "Serial Port:    NULL" without a port.
std::string SerialPortText(std::optional<int> port);

// The PCIe link word 0x20000002: speed code in the low four bits, lanes above them.
struct PcieLink {
    int speedCode = 0;
    int lanes = 0;
    static PcieLink Of(uint32_t word) {
        return {static_cast<int>(word & 0xF), static_cast<int>(word >> 4)};
    }
};
// "PCIe State: 2.5GT/s x%d", "5.0GT/s", "8.0GT/s" for codes 1 to 3; empty for other codes (the
// pane then keeps its text).
std::string PcieStateText(const PcieLink& link);
// Whether the link is below what the board needs. Every board needs at least four lanes; the
// speed it needs follows what it moves:
//   CoaXPress boards (up to four 6.25 Gbit/s links)   8.0 GT/s (code 3)
//   CameraLink boards of model 3 (base and medium)    2.5 GT/s (code 1)
//   other CameraLink boards (full, 80-bit)            5.0 GT/s (code 2)
bool PcieLinkInsufficient(const PcieLink& link, bool coaxpress, int modelCode);
inline constexpr const char* kPcieWarningText =
    "Warning : The line link is insufficient. It is recommended to replace the board or slot.";

// The camera signal indicators from a status word (0x11FF before a successful read).
struct SignalPanes {
    PaneText pixelClock;  // pane 16: "Pixel Clock", or the CoaXPress link speed / "Disconncet"
    PaneText lineValid;   // pane 18 (CameraLink only)
    PaneText frameValid;  // pane 20 (CameraLink only)
    // What the log says about the signals: only for CameraLink, only while no grab runs.
    std::vector<std::string> logLines;
};
// readable: whether the status could be read at all ("Can't get the camera signal\n" when not).
SignalPanes CameraSignalPanes(int32_t status, bool readable, bool coaxpress, bool grabbing);

// Acquired and displayed frames per second, side by side: from the two counters, over the time
// between two readings.
class FrameRateMeter {
  public:
    struct Rates {
        double acquired = 0;
        double displayed = 0;
    };
    // seconds: a steady time in seconds. The first reading, and one after the counters went
    // back (a new grab), give 0.
    Rates Update(double seconds, uint32_t grabbed, uint32_t displayed);
    void Reset() { have_ = false; }

  private:
    bool have_ = false;
    double seconds_ = 0;
    uint32_t grabbed_ = 0;
    uint32_t displayed_ = 0;
};

// The window title: "Lumetra" alone while idle; with the rates while a grab runs:
// "Lumetra - 59.9 fps acquired, 30.0 fps displayed".
std::string WindowTitle(const std::string& application, bool grabbing,
                        const FrameRateMeter::Rates& rates);

// The camera status is polled five times a second: each signal problem is logged once when it
// appears, not on every poll while it lasts.
class SignalLogFilter {
  public:
    std::vector<std::string> Filter(const std::vector<std::string>& lines);

  private:
    std::vector<std::string> last_;
};

}  // namespace lumetra
