#include "ParameterTable.h"

#include <algorithm>
#include <array>
#include <cstdio>

#include "OrvixBoard.h"

namespace orvix::sim {
namespace {

constexpr uint32_t kAny = 0xFFFFFFFFu;
constexpr std::array<uint32_t, 5> kDataFormats{8, 10, 12, 14, 16};
constexpr std::array<uint32_t, 6> kTapNumbers{1, 2, 3, 4, 8, 10};

constexpr uint32_t RO = kReadOnly;
constexpr uint32_t FROZEN = kFrozenWhileGrabbing;

constexpr ParameterInfo P(uint32_t id, const char* name, uint32_t def, uint32_t min, uint32_t max,
                          uint32_t flags = 0) {
    return ParameterInfo{id, name, def, min, max, {}, flags};
}
constexpr ParameterInfo C(uint32_t id, const char* name, uint32_t def,
                          std::span<const uint32_t> choices, uint32_t flags = 0) {
    return ParameterInfo{id, name, def, 0, kAny, choices, flags};
}

// Defaults of the geometry, format, version and serial come from the board's configuration; the
// values here are only the fall-back. The ranges are what the board's registers can hold.
const ParameterInfo kTable[] = {
    P(ORVIX_IMAGE_WIDTH, "image width", 1920, 1, 65535, FROZEN),
    P(ORVIX_IMAGE_HEIGHT, "image height", 1200, 1, 65535, FROZEN),
    C(ORVIX_DATA_FORMAT, "data format", 8, kDataFormats, FROZEN),
    P(ORVIX_SCAN_TYPE, "scan type", 0, 0, 1, FROZEN),
    P(ORVIX_BOARD_VERSION, "board version", 0, 0, kAny, RO),
    P(ORVIX_BOARD_STATE, "board state", 0, 0, 1, RO | kLive),
    P(ORVIX_FRAME_SIZE, "frame size", 0, 0, kAny, RO),
    P(ORVIX_IMAGE_TYPE, "image type", 0, 0, 4, FROZEN),
    P(ORVIX_BUFFER_COUNT, "buffer count", 8, 1, 256, FROZEN),
    P(ORVIX_ACQUISITION_MODE, "acquisition mode", 0, 0, 3),
    P(ORVIX_GRAB_CONTINUOUS, "grab continuous", 1, 0, 1),
    C(ORVIX_TAP_NUMBER, "tap number", 1, kTapNumbers),
    P(ORVIX_TAP_ARRANGEMENT, "tap arrangement", 0, 0, 15),
    P(ORVIX_BAYER_PATTERN, "bayer pattern", 0, 0, 4, FROZEN),
    P(ORVIX_PIXEL_CLOCK, "pixel clock", 0, 0, 15),
    P(ORVIX_DATA_VALID, "data valid", 0, 0, 15),
    P(ORVIX_CC1_SOURCE, "cc1 source", 0, 0, 15),
    P(ORVIX_CC2_SOURCE, "cc2 source", 0, 0, 15),
    P(ORVIX_CC3_SOURCE, "cc3 source", 0, 0, 15),
    P(ORVIX_CC4_SOURCE, "cc4 source", 0, 0, 15),
    P(ORVIX_BOARD_TRIGGER_MODE, "board trigger mode", 0, 0, 15, FROZEN),
    P(ORVIX_BOARD_TRIGGER_SOURCE, "board trigger source", 0, 0, 15),
    P(ORVIX_GENERAL_INPUT1_SAMPLE_MODE, "general input1 sample mode", 0, 0, 15),
    P(ORVIX_GENERAL_INPUT1_PROTECT_MODE, "general input1 protect mode", 0, 0, 15),
    P(ORVIX_GENERAL_INPUT2_SAMPLE_MODE, "general input2 sample mode", 0, 0, 15),
    P(ORVIX_GENERAL_INPUT2_PROTECT_MODE, "general input2 protect mode", 0, 0, 15),
    P(ORVIX_SHAFT_ENCODER1_PULSE_DROP, "shaft encoder1 pulse drop", 0, 0, 65535),
    P(ORVIX_SHAFT_ENCODER1_PROTECT_MODE, "shaft encoder1 protect mode", 0, 0, 15),
    P(ORVIX_SHAFT_ENCODER1_MIN_INTERVAL, "shaft encoder1 minimum interval", 0, 0, kAny),
    P(ORVIX_INTEGRATION_TRIGGER_SOURCE, "integration trigger source", 0, 0, 15),
    P(ORVIX_INTEGRATION_TRIGGER_FREQUENCY, "integration trigger frequency", 1000, 0, 100000000),
    P(ORVIX_STROBE_TRIGGER_SOURCE, "strobe trigger source", 0, 0, 15),
    P(ORVIX_BOARD_SYNC_OUTPUT1_SOURCE, "board sync output1 source", 0, 0, 15),
    P(ORVIX_BOARD_SYNC_OUTPUT2_SOURCE, "board sync output2 source", 0, 0, 15),
    P(ORVIX_GENERAL_OUTPUT1_SOURCE, "general output1 source", 0, 0, 15),
    P(ORVIX_GENERAL_OUTPUT2_SOURCE, "general output2 source", 0, 0, 15),
    P(ORVIX_INTEGRATION_METHOD, "integration method", 0, 0, 7),
    P(ORVIX_INTEGRATION_PARAM1, "integration param1", 0, 0, kAny),
    P(ORVIX_INTEGRATION_PARAM2, "integration param2", 0, 0, kAny),
    P(ORVIX_INTEGRATION_PARAM3, "integration param3", 0, 0, kAny),
    P(ORVIX_INTEGRATION_PARAM4, "integration param4", 0, 0, kAny),
    P(ORVIX_INTEGRATION_POLARITY1, "integration polarity1", 0, 0, 1),
    P(ORVIX_INTEGRATION_POLARITY2, "integration polarity2", 0, 0, 1),
    P(ORVIX_STROBE_METHOD, "strobe method", 0, 0, 7),
    P(ORVIX_STROBE_PARAM1, "strobe param1", 0, 0, kAny),
    P(ORVIX_STROBE_PARAM2, "strobe param2", 0, 0, kAny),
    P(ORVIX_STROBE_PARAM3, "strobe param3", 0, 0, kAny),
    P(ORVIX_STROBE_PARAM4, "strobe param4", 0, 0, kAny),
    P(ORVIX_STROBE_POLARITY, "strobe polarity", 0, 0, 1),
    P(ORVIX_GENERAL_OUTPUT1_POLARITY, "general output1 polarity", 0, 0, 1),
    P(ORVIX_GENERAL_OUTPUT1_DELAY, "general output1 delay", 0, 0, kAny),
    P(ORVIX_GENERAL_OUTPUT2_POLARITY, "general output2 polarity", 0, 0, 1),
    P(ORVIX_GENERAL_OUTPUT2_DELAY, "general output2 delay", 0, 0, kAny),
    P(ORVIX_GENERAL_INPUT1_TRIGGER_MODE, "general input1 trigger mode", 0, 0, 15),
    P(ORVIX_GENERAL_INPUT2_TRIGGER_MODE, "general input2 trigger mode", 0, 0, 15),
    P(ORVIX_BOARD_SYNC1_TRIGGER_MODE, "board sync1 trigger mode", 0, 0, 15),
    P(ORVIX_BOARD_SYNC2_TRIGGER_MODE, "board sync2 trigger mode", 0, 0, 15),
    P(ORVIX_SHAFT_ENCODER1_CHANNEL, "shaft encoder1 channel", 0, 0, 15),
    P(ORVIX_SHAFT_ENCODER1_MULTIPLY_FACTOR, "shaft encoder1 multiply factor", 1, 1, 255),
    P(ORVIX_LINE_VALID_FILTER, "line valid filter", 0, 0, 255),
    P(ORVIX_EXTERNAL_TRIGGER_TIMEOUT, "FPGA ecternal trigger timeout", 5000, 0, kAny),
    P(ORVIX_TAP_OFFSET_X, "tap offset x", 0, 0, 65535),
    P(ORVIX_GENERAL_INPUT1_POLARITY, "general input 1 polarity", 0, 0, 1),
    P(ORVIX_GENERAL_INPUT1_MIN_WIDTH, "general input 1 min width", 0, 0, kAny),
    P(ORVIX_GENERAL_INPUT2_POLARITY, "general input 2 polarity", 0, 0, 1),
    P(ORVIX_GENERAL_INPUT2_MIN_WIDTH, "general input 2 min width", 0, 0, kAny),
    P(ORVIX_PIXEL_CLOCK_MHZ, "pixel clock mhz", 85, 1, 1000),
    P(ORVIX_PCIE_KERNEL_BLOCK_SIZE, "pcie kernal block size", 1, 1, 256),
    P(ORVIX_SOFTWARE_TRIGGER_WIDTH, "software trigger width", 100, 0, kAny),
    P(ORVIX_SOFTWARE_TRIGGER_PERIOD, "software trigger period", 1000, 0, kAny),
    P(ORVIX_SOFTWARE_TRIGGER_COUNT, "software trigger count", 1, 0, kAny),
    P(ORVIX_SOFTWARE_TRIGGER_FIRE, "software trigger", 0, 0, 1, kTransient | kLive),
    P(ORVIX_SOFTWARE_TRIGGER_DELAY, "software trigger delay", 0, 0, kAny),
    P(ORVIX_SOFTWARE_TRIGGER_POLARITY, "software trigger polarity", 0, 0, 1),
    P(ORVIX_FRAME_VALID, "frame valid", 0, 0, 15),
    P(ORVIX_SYNC_MODE, "sync mode", 0, 0, 15),
    P(ORVIX_HW_TRIGGER_INPUT1_DELAY, "hardware trigger general input1 delay", 0, 0, kAny),
    P(ORVIX_HW_TRIGGER_INPUT2_DELAY, "hardware trigger general input2 delay", 0, 0, kAny),
    P(ORVIX_IMAGE_OFFSET_X, "image offset x", 0, 0, 65535),
    P(ORVIX_SHAFT_ENCODER1_MIN_WIDTH, "shaft encoder1 min width", 0, 0, kAny),
    P(ORVIX_SHAFT_ENCODER1_VALID_DIRECTION, "shaft encoder1 valid direction", 0, 0, 3),
    P(ORVIX_SHAFT_ENCODER1_REVERSE_COMPENSATION, "shaft encoder1 reverse compensation", 0, 0, 1),
    P(ORVIX_FRAME_SIZE_HIGH, "frame size high", 0, 0, kAny, RO),
    P(ORVIX_FRAME_SIZE_LOW, "frame size low", 0, 0, kAny, RO),
    P(ORVIX_BOARD_TRIGGER_FRAME_COUNT, "board trigger frame count", 1, 0, 65535),
    P(ORVIX_SHAFT_ENCODER1_QUAD_FREQUENCY_SOURCE, "shaft encoder1 quad frequency source type", 0, 0,
      15),
    P(ORVIX_MULTIPLE_LIGHT_COUNT, "Multiple light count", 0, 0, 255),
    P(ORVIX_RGBD_EXTENDED_MODE, "rgbd extended mode", 0, 0, 1),

    P(ORVIX_BOARD_SERIAL, "board serial", 0, 0, kAny, RO),
    P(ORVIX_PCIE_LINK, "pcie link", 0, 0, kAny, RO),
    P(ORVIX_FRAME_LOST, "frame lost", 0, 0, kAny, RO | kLive),
    P(ORVIX_HW_TRIGGER_INPUT_DELAY_MODE, "hardware trigger general input delay mode", 0, 0, 3),
    P(ORVIX_HW_TRIGGER_INPUT1_DELAY_LINES, "hardware trigger general input1 delay in lines", 0, 0,
      kAny),
    P(ORVIX_HW_TRIGGER_INPUT2_DELAY_LINES, "hardware trigger general input2 delay in lines", 0, 0,
      kAny),
    P(ORVIX_SIGNAL_COUNTER_BASE + 0, "internal trigger counter", 0, 0, kAny, RO | kLive),
    P(ORVIX_SIGNAL_COUNTER_BASE + 1, "general input1 counter", 0, 0, kAny, RO | kLive),
    P(ORVIX_SIGNAL_COUNTER_BASE + 2, "general input2 counter", 0, 0, kAny, RO | kLive),
    P(ORVIX_SIGNAL_COUNTER_BASE + 3, "shaft encoder A counter", 0, 0, kAny, RO | kLive),
    P(ORVIX_SIGNAL_COUNTER_BASE + 4, "shaft encoder B counter", 0, 0, kAny, RO | kLive),
    P(ORVIX_SIGNAL_COUNTER_BASE + 5, "board sync counter", 0, 0, kAny, RO | kLive),
    P(ORVIX_SIGNAL_COUNTER_BASE + 6, "integration signal1 counter", 0, 0, kAny, RO | kLive),
    P(ORVIX_SIGNAL_COUNTER_BASE + 7, "integration signal2 counter", 0, 0, kAny, RO | kLive),
    P(ORVIX_BOARD_TRIGGER_RECEIVE_MODE, "board trigger receive mode", 0, 0, 15),
    P(ORVIX_SIGNAL_COUNTER_CONTROL, "signal counter control", 0, 0, 1, kTransient | kLive),
    P(ORVIX_SHAFT_ENCODER1_REVERSE_COMPENSATION_LIMIT, "shaft encoder1 reverse compensation limit",
      0, 0, kAny),
    P(ORVIX_SHAFT_ENCODER1_CLOCK_DUTY_COMPENSATION_TYPE,
      "shaft encoder1 clock duty compensation type", 0, 0, 15),
    P(ORVIX_SHAFT_ENCODER1_CLOCK_DUTY_COMPENSATION_WIDTH,
      "shaft encoder1 clock duty compensation width", 0, 0, kAny),
    P(ORVIX_CL_VALID_COLUMN, "cl valid column", 0, 0, kAny),
    P(ORVIX_CL_SIGNAL_ENHANCE_MODE, "cl signal enhance mode", 0, 0, 3),
    P(ORVIX_CL_LONG_CABLE_MODE, "cl long cable working mode", 0, 0, 1),

    P(ORVIX_CXP_TRIGGER, "cxp Trigger", 0, 0, 15),
    P(ORVIX_BOARD_TRIGGER_FRAME_ACTIVE_MODE, "board trigger frame active mode", 0, 0, 15),
    P(ORVIX_JPEG_COMPRESS_ENABLE, "jpeg compress enable", 0, 0, 1, FROZEN),
    P(ORVIX_JPEG_COMPRESS_QUALITY, "jpeg compress quality", 90, 1, 100),
};

}  // namespace

bool ParameterInfo::accepts(uint32_t value) const {
    if (!choices.empty()) {
        return std::find(choices.begin(), choices.end(), value) != choices.end();
    }
    return value >= min && value <= max;
}

std::string ParameterInfo::legalValues() const {
    std::string out;
    if (!choices.empty()) {
        for (size_t i = 0; i < choices.size(); ++i) {
            if (i > 0) {
                out += i + 1 == choices.size() ? " or " : ", ";
            }
            out += std::to_string(choices[i]);
        }
        return out;
    }
    return std::to_string(min) + ".." + std::to_string(max);
}

std::span<const ParameterInfo> parameterTable() {
    return kTable;
}

const ParameterInfo* findParameter(uint32_t id) {
    for (const ParameterInfo& info : kTable) {
        if (info.id == id) {
            return &info;
        }
    }
    return nullptr;
}

std::string describeParameter(uint32_t id) {
    char hex[16];
    std::snprintf(hex, sizeof hex, "0x%08X", id);
    const ParameterInfo* info = findParameter(id);
    if (info == nullptr) {
        return std::string("parameter ") + hex;
    }
    return std::string(info->name) + " (" + hex + ")";
}

}  // namespace orvix::sim
