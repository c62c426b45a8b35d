#include "workbench/status_texts.h"

#include <cstdio>

namespace lumetra {
namespace {

std::string Format(const char* format, auto... values) {
    char text[128];
    std::snprintf(text, sizeof text, format, values...);
    return text;
}

PaneText Indicator(const char* text, bool present) {
    return {text, present ? kSignalPresentColour : kSignalAbsentColour};
}

}  // namespace

const std::vector<StatusPane>& StatusPanes() {
    static const std::vector<StatusPane> panes = {
        {0, 61214, "Line Rate 000000.00lps\t "},
        {1, 61208, "|"},
        {2, 61215, "Pixel Clock 0 MHz      "},
        {3, 61208, "|"},
        {4, 61210, "Serial Port:    NULL      "},
        {5, 61208, "|"},
        {6, 61211, "Frame Grabbed :          0"},
        {7, 61208, "|"},
        {8, 32815, "Marker(x,y)=(10000,10000) Value(RGBC)=10000 10000 10000 10000"},
        {9, 61208, "|"},
        {10, 61213, "Frame Lost"},
        {11, 117, "          "},
        {12, 61216, "Temp: 30 C          0"},
        {13, 61208, "|"},
        {14, 61212, "PCIe State:          0"},
        {15, 61208, "|"},
        {16, 61205, "Pixel Clock"},
        {17, 61208, "|"},
        {18, 61206, "Line Valid"},
        {19, 61208, "|"},
        {20, 61207, "Frame Valid"},
    };
    return panes;
}

std::string FramesGrabbedText(uint32_t frames) {
    return Format("Frame Grabbed: %u", frames);
}

PaneText FrameLostPane(bool lost) {
    return lost ? PaneText{"Frame Lost", kSignalAbsentColour} : PaneText{"", kSignalPresentColour};
}

std::string RateText(double rate, bool lineScan) {
    return Format(lineScan ? "Line Rate %6.2f lps " : "Frame Rate %6.2f fps ", rate);
}

std::string PixelClockText(int megahertz) {
    return Format("Pixel Clock %d MHz ", megahertz);
}

std::string SerialPortText(std::optional<int> port) {
    return port ? Format("Serial Port: COM %d", *port) : std::string("Serial Port:    NULL");
}

std::string PcieStateText(const PcieLink& link) {
    switch (link.speedCode) {
        case 1:
            return Format("PCIe State: 2.5GT/s x%d", link.lanes);
        case 2:
            return Format("PCIe State: 5.0GT/s x%d", link.lanes);
        case 3:
            return Format("PCIe State: 8.0GT/s x%d", link.lanes);
        default:
            return {};
    }
}

bool PcieLinkInsufficient(const PcieLink& link, bool coaxpress, int modelCode) {
    const int neededSpeed = coaxpress ? 3 : modelCode == 3 ? 1 : 2;
    return link.lanes < 4 || link.speedCode < neededSpeed;
}

SignalPanes CameraSignalPanes(int32_t status, bool readable, bool coaxpress, bool grabbing) {
    SignalPanes p;
    if (!readable) {
        p.logLines.push_back("Can't get the camera signal\n");
    }
    const auto s = static_cast<uint32_t>(status);
    if (coaxpress) {
        static constexpr const char* kSpeeds[] = {"1.25G", "2.5Gbps", "3.125Gbps", "5Gbps",
                                                  "6.25Gbps"};
        const bool up = (s & 0x10) != 0;
        const uint32_t code = s & 0xF;
        p.pixelClock = Indicator(up ? (code < 5 ? kSpeeds[code] : "") : "Disconncet", up);
        p.lineValid = Indicator("Line Valid", up);
        p.frameValid = Indicator("Frame Valid", up);
        return p;
    }
    const bool clock = (s & 0x1) != 0;
    const bool frame = (s & 0x2) != 0;
    const bool line = (s & 0x4) != 0;
    p.pixelClock = Indicator("Pixel Clock", clock);
    p.lineValid = Indicator("Line Valid", line);
    p.frameValid = Indicator("Frame Valid", frame);
    if (readable && !grabbing) {
        if (!clock) {
            p.logLines.push_back("Pixel clock signal invalid\n");
        }
        if (!frame) {
            p.logLines.push_back("Frame signal invalid\n");
        }
        if (!line) {
            p.logLines.push_back("Line signal invalid\n");
        }
    }
    return p;
}

FrameRateMeter::Rates FrameRateMeter::Update(double seconds, uint32_t grabbed, uint32_t displayed) {
    Rates r;
    if (have_ && seconds > seconds_ && grabbed >= grabbed_ && displayed >= displayed_) {
        const double span = seconds - seconds_;
        r.acquired = (grabbed - grabbed_) / span;
        r.displayed = (displayed - displayed_) / span;
    }
    have_ = true;
    seconds_ = seconds;
    grabbed_ = grabbed;
    displayed_ = displayed;
    return r;
}

std::string WindowTitle(const std::string& application, bool grabbing,
                        const FrameRateMeter::Rates& rates) {
    if (!grabbing) {
        return application;
    }
    return application +
           Format(" - %.1f fps acquired, %.1f fps displayed", rates.acquired, rates.displayed);
}

std::vector<std::string> SignalLogFilter::Filter(const std::vector<std::string>& lines) {
    std::vector<std::string> fresh;
    for (const std::string& line : lines) {
        bool seen = false;
        for (const std::string& old : last_) {
            seen = seen || old == line;
        }
        if (!seen) {
            fresh.push_back(line);
        }
    }
    last_ = lines;
    return fresh;
}

}  // namespace lumetra
