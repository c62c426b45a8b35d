// The status bar's texts and decisions, and the application's settings with their two quirks.
#include <gtest/gtest.h>

#include "base/settings.h"
#include "workbench/app_settings.h"
#include "workbench/status_texts.h"

namespace lumetra {
namespace {

TEST(StatusTexts, PanesInOrderWithTheirIds) {
    const auto& panes = StatusPanes();
    ASSERT_EQ(panes.size(), 21u);
    const int ids[] = {61214, 61208, 61215, 61208, 61210, 61208, 61211, 61208, 32815, 61208, 61213,
                       117,   61216, 61208, 61212, 61208, 61205, 61208, 61206, 61208, 61207};
    for (size_t i = 0; i < panes.size(); ++i) {
        EXPECT_EQ(panes[i].index, static_cast<int>(i));
        EXPECT_EQ(panes[i].id, ids[i]) << i;
    }
    EXPECT_STREQ(panes[pane::kMarker].initialText,
                 "Marker(x,y)=(10000,10000) Value(RGBC)=10000 10000 10000 10000");
}

TEST(StatusTexts, CountersRatesAndPorts) {
    EXPECT_EQ(FramesGrabbedText(0), "Frame Grabbed: 0");
    EXPECT_EQ(FramesGrabbedText(4294967295u), "Frame Grabbed: 4294967295");
    EXPECT_EQ(RateText(59.94, false), "Frame Rate  59.94 fps ");
    EXPECT_EQ(RateText(50000, true), "Line Rate 50000.00 lps ");
    EXPECT_EQ(PixelClockText(85), "Pixel Clock 85 MHz ");
    EXPECT_EQ(SerialPortText(3), "Serial Port: COM 3");
    EXPECT_EQ(SerialPortText({}), "Serial Port:    NULL");
    const PaneText normal = FrameLostPane(false);
    const PaneText lost = FrameLostPane(true);
    EXPECT_EQ(normal.text, "");
    EXPECT_EQ(normal.colour, 0x3F7F00u);
    EXPECT_EQ(lost.text, "Frame Lost");
    EXPECT_EQ(lost.colour, 0x1500FFu);
}

// The link word holds the speed code in its low four bits and the lanes above; the warning's
// decision table by board.
TEST(StatusTexts, PcieLinkTextsAndTheInsufficientLinkTable) {
    EXPECT_EQ(PcieStateText(PcieLink::Of(0x41)), "PCIe State: 2.5GT/s x4");
    EXPECT_EQ(PcieStateText(PcieLink::Of(0x82)), "PCIe State: 5.0GT/s x8");
    EXPECT_EQ(PcieStateText(PcieLink::Of(0x83)), "PCIe State: 8.0GT/s x8");
    EXPECT_EQ(PcieStateText(PcieLink::Of(0x80)), "") << "an unknown speed keeps the pane";
    const struct {
        uint32_t word;
        bool coaxpress;
        int model;
        bool insufficient;
    } cases[] = {
        {0x83, true, 10, false}, {0x82, true, 10, true}, {0x23, true, 10, true},
        {0x42, false, 5, false}, {0x41, false, 5, true}, {0x32, false, 5, true},
        {0x41, false, 3, false}, {0x21, false, 3, true}, {0x82, false, 0, false},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(PcieLinkInsufficient(PcieLink::Of(c.word), c.coaxpress, c.model), c.insufficient)
            << std::hex << c.word << " cxp " << c.coaxpress << " model " << std::dec << c.model;
    }
}

TEST(StatusTexts, CameraLinkIndicatorsAndTheirLogLines) {
    const SignalPanes all = CameraSignalPanes(0x7, true, false, false);
    EXPECT_EQ(all.pixelClock.text, "Pixel Clock");
    EXPECT_EQ(all.pixelClock.colour, kSignalPresentColour);
    EXPECT_EQ(all.lineValid.colour, kSignalPresentColour);
    EXPECT_EQ(all.frameValid.colour, kSignalPresentColour);
    EXPECT_TRUE(all.logLines.empty());

    // Bit 0 pixel clock, bit 1 frame valid, bit 2 line valid.
    const SignalPanes some = CameraSignalPanes(0x2, true, false, false);
    EXPECT_EQ(some.pixelClock.colour, kSignalAbsentColour);
    EXPECT_EQ(some.frameValid.colour, kSignalPresentColour);
    EXPECT_EQ(some.lineValid.colour, kSignalAbsentColour);
    EXPECT_EQ(some.logLines,
              (std::vector<std::string>{"Pixel clock signal invalid\n", "Line signal invalid\n"}));
    EXPECT_TRUE(CameraSignalPanes(0x2, true, false, true).logLines.empty()) << "while grabbing";
    EXPECT_EQ(CameraSignalPanes(0x11FF, false, false, false).logLines.front(),
              "Can't get the camera signal\n");
}

TEST(StatusTexts, CoaXPressLinkSpeedsAndDisconnect) {
    const struct {
        int32_t status;
        const char* text;
        uint32_t colour;
    } cases[] = {
        {0x10, "1.25G", kSignalPresentColour},     {0x11, "2.5Gbps", kSignalPresentColour},
        {0x12, "3.125Gbps", kSignalPresentColour}, {0x13, "5Gbps", kSignalPresentColour},
        {0x14, "6.25Gbps", kSignalPresentColour},  {0x04, "Disconncet", kSignalAbsentColour},
        {0x00, "Disconncet", kSignalAbsentColour}};
    for (const auto& c : cases) {
        const SignalPanes p = CameraSignalPanes(c.status, true, true, false);
        EXPECT_EQ(p.pixelClock.text, c.text) << c.status;
        EXPECT_EQ(p.pixelClock.colour, c.colour) << c.status;
        EXPECT_TRUE(p.logLines.empty());
    }
}

TEST(StatusTexts, SignalProblemsAreLoggedOnceWhileTheyLast) {
    SignalLogFilter filter;
    const std::vector<std::string> clock = {"Pixel clock signal invalid\n"};
    const std::vector<std::string> both = {"Pixel clock signal invalid\n",
                                           "Frame signal invalid\n"};
    EXPECT_EQ(filter.Filter(clock), clock);
    EXPECT_TRUE(filter.Filter(clock).empty());
    EXPECT_EQ(filter.Filter(both), std::vector<std::string>{"Frame signal invalid\n"});
    EXPECT_TRUE(filter.Filter({}).empty());
    EXPECT_EQ(filter.Filter(clock), clock) << "back after it cleared";
}

TEST(StatusTexts, RatesFromTheCountersAndTheTitle) {
    FrameRateMeter meter;
    EXPECT_EQ(meter.Update(10.0, 100, 50).acquired, 0.0) << "the first reading";
    const auto r = meter.Update(10.5, 130, 65);
    EXPECT_DOUBLE_EQ(r.acquired, 60.0);
    EXPECT_DOUBLE_EQ(r.displayed, 30.0);
    EXPECT_EQ(meter.Update(11.0, 5, 2).acquired, 0.0) << "a new grab started its counters again";
    EXPECT_EQ(WindowTitle("Lumetra", true, r), "Lumetra - 60.0 fps acquired, 30.0 fps displayed");
    EXPECT_EQ(WindowTitle("Lumetra", false, r), "Lumetra");
}

TEST(AppSettings, DefaultsWhenMissing) {
    MemorySettings s;
    const AppSettings a = AppSettings::Load(s, "/home/u/Pictures");
    EXPECT_EQ(a.onePixelLength, 1000);
    EXPECT_DOUBLE_EQ(a.pixelLength(), 1.0);
    EXPECT_EQ(a.bufferCount, 5);
    EXPECT_EQ(a.bufferAuto, 1);
    EXPECT_EQ(a.tifDpiX, 96);
    EXPECT_EQ(a.frameRate, 30);
    EXPECT_EQ(a.startupInfo, 1);
    EXPECT_EQ(a.savePath, "/home/u/Pictures");
}

// Written back at exit: every value under its own name, except the two deliberate quirks, so
// that a flag turned off comes back on at the next start.
TEST(AppSettings, RoundTripWithTheTwoQuirks) {
    MemorySettings s;
    AppSettings a = AppSettings::Load(s, "/pictures");
    a.onePixelLength = 2500;
    a.tifCompression = 1;
    a.marker = 0;
    a.frameLost = 0;
    a.connect = 0;
    a.startupInfo = 0;
    a.savePath = "/data/shots";
    a.Save(s);
    const AppSettings b = AppSettings::Load(s, "/pictures");
    EXPECT_EQ(b.onePixelLength, 2500);
    EXPECT_EQ(b.tifCompression, 1);
    EXPECT_EQ(b.marker, 0);
    EXPECT_EQ(b.startupInfo, 0);
    EXPECT_EQ(b.savePath, "/data/shots");
    EXPECT_EQ(b.frameLost, 1) << "written as \"Frame Lost\", read from \"FrameLost\"";
    EXPECT_EQ(b.connect, 1) << "written to Connect/FrameValid, read from StatusInfo/Connect";
    EXPECT_EQ(s.readInt("StatusInfo", "Frame Lost", -1), 0);
    EXPECT_EQ(s.readInt("Connect", "FrameValid", -1), 0);
    EXPECT_EQ(s.readInt("StatusInfo", "FrameValid", -1), 1) << "the real FrameValid untouched";
}

}  // namespace
}  // namespace lumetra
