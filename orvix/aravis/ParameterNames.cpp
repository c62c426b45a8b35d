#include "ParameterNames.h"

#include <cstdio>
#include <utility>

#include "OrvixBoard.h"

namespace orvix::aravis {
namespace {

constexpr std::pair<uint32_t, const char*> kNames[] = {
    {ORVIX_IMAGE_WIDTH, "image width"},
    {ORVIX_IMAGE_HEIGHT, "image height"},
    {ORVIX_DATA_FORMAT, "data format"},
    {ORVIX_SCAN_TYPE, "scan type"},
    {ORVIX_BOARD_VERSION, "board version"},
    {ORVIX_BOARD_STATE, "board state"},
    {ORVIX_FRAME_SIZE, "frame size"},
    {ORVIX_IMAGE_TYPE, "image type"},
    {ORVIX_BUFFER_COUNT, "buffer count"},
    {ORVIX_ACQUISITION_MODE, "acquisition mode"},
    {ORVIX_GRAB_CONTINUOUS, "grab continuous"},
    {ORVIX_TAP_NUMBER, "tap number"},
    {ORVIX_TAP_ARRANGEMENT, "tap arrangement"},
    {ORVIX_BAYER_PATTERN, "bayer pattern"},
    {ORVIX_PIXEL_CLOCK, "pixel clock"},
    {ORVIX_DATA_VALID, "data valid"},
    {ORVIX_CC1_SOURCE, "cc1 source"},
    {ORVIX_CC2_SOURCE, "cc2 source"},
    {ORVIX_CC3_SOURCE, "cc3 source"},
    {ORVIX_CC4_SOURCE, "cc4 source"},
    {ORVIX_BOARD_TRIGGER_MODE, "board trigger mode"},
    {ORVIX_BOARD_TRIGGER_SOURCE, "board trigger source"},
    {ORVIX_GENERAL_INPUT1_SAMPLE_MODE, "general input1 sample mode"},
    {ORVIX_GENERAL_INPUT1_PROTECT_MODE, "general input1 protect mode"},
    {ORVIX_GENERAL_INPUT2_SAMPLE_MODE, "general input2 sample mode"},
    {ORVIX_GENERAL_INPUT2_PROTECT_MODE, "general input2 protect mode"},
    {ORVIX_SHAFT_ENCODER1_PULSE_DROP, "shaft encoder1 pulse drop"},
    {ORVIX_SHAFT_ENCODER1_PROTECT_MODE, "shaft encoder1 protect mode"},
    {ORVIX_SHAFT_ENCODER1_MIN_INTERVAL, "shaft encoder1 minimum interval"},
    {ORVIX_INTEGRATION_TRIGGER_SOURCE, "integration trigger source"},
    {ORVIX_INTEGRATION_TRIGGER_FREQUENCY, "integration trigger frequency"},
    {ORVIX_STROBE_TRIGGER_SOURCE, "strobe trigger source"},
    {ORVIX_BOARD_SYNC_OUTPUT1_SOURCE, "board sync output1 source"},
    {ORVIX_BOARD_SYNC_OUTPUT2_SOURCE, "board sync output2 source"},
    {ORVIX_GENERAL_OUTPUT1_SOURCE, "general output1 source"},
    {ORVIX_GENERAL_OUTPUT2_SOURCE, "general output2 source"},
    {ORVIX_INTEGRATION_METHOD, "integration method"},
    {ORVIX_INTEGRATION_PARAM1, "integration param1"},
    {ORVIX_INTEGRATION_PARAM2, "integration param2"},
    {ORVIX_INTEGRATION_PARAM3, "integration param3"},
    {ORVIX_INTEGRATION_PARAM4, "integration param4"},
    {ORVIX_INTEGRATION_POLARITY1, "integration polarity1"},
    {ORVIX_INTEGRATION_POLARITY2, "integration polarity2"},
    {ORVIX_STROBE_METHOD, "strobe method"},
    {ORVIX_STROBE_PARAM1, "strobe param1"},
    {ORVIX_STROBE_PARAM2, "strobe param2"},
    {ORVIX_STROBE_PARAM3, "strobe param3"},
    {ORVIX_STROBE_PARAM4, "strobe param4"},
    {ORVIX_STROBE_POLARITY, "strobe polarity"},
    {ORVIX_GENERAL_OUTPUT1_POLARITY, "general output1 polarity"},
    {ORVIX_GENERAL_OUTPUT1_DELAY, "general output1 delay"},
    {ORVIX_GENERAL_OUTPUT2_POLARITY, "general output2 polarity"},
    {ORVIX_GENERAL_OUTPUT2_DELAY, "general output2 delay"},
    {ORVIX_GENERAL_INPUT1_TRIGGER_MODE, "general input1 trigger mode"},
    {ORVIX_GENERAL_INPUT2_TRIGGER_MODE, "general input2 trigger mode"},
    {ORVIX_BOARD_SYNC1_TRIGGER_MODE, "board sync1 trigger mode"},
    {ORVIX_BOARD_SYNC2_TRIGGER_MODE, "board sync2 trigger mode"},
    {ORVIX_SHAFT_ENCODER1_CHANNEL, "shaft encoder1 channel"},
    {ORVIX_SHAFT_ENCODER1_MULTIPLY_FACTOR, "shaft encoder1 multiply factor"},
    {ORVIX_LINE_VALID_FILTER, "line valid filter"},
    {ORVIX_EXTERNAL_TRIGGER_TIMEOUT, "external trigger timeout"},
    {ORVIX_TAP_OFFSET_X, "tap offset x"},
    {ORVIX_GENERAL_INPUT1_POLARITY, "general input 1 polarity"},
    {ORVIX_GENERAL_INPUT1_MIN_WIDTH, "general input 1 min width"},
    {ORVIX_GENERAL_INPUT2_POLARITY, "general input 2 polarity"},
    {ORVIX_GENERAL_INPUT2_MIN_WIDTH, "general input 2 min width"},
    {ORVIX_PIXEL_CLOCK_MHZ, "pixel clock MHz"},
    {ORVIX_PCIE_KERNEL_BLOCK_SIZE, "pcie kernel block size"},
    {ORVIX_SOFTWARE_TRIGGER_WIDTH, "software trigger width"},
    {ORVIX_SOFTWARE_TRIGGER_PERIOD, "software trigger period"},
    {ORVIX_SOFTWARE_TRIGGER_COUNT, "software trigger count"},
    {ORVIX_SOFTWARE_TRIGGER_FIRE, "software trigger"},
    {ORVIX_SOFTWARE_TRIGGER_DELAY, "software trigger delay"},
    {ORVIX_SOFTWARE_TRIGGER_POLARITY, "software trigger polarity"},
    {ORVIX_FRAME_VALID, "frame valid"},
    {ORVIX_SYNC_MODE, "sync mode"},
    {ORVIX_HW_TRIGGER_INPUT1_DELAY, "hardware trigger general input1 delay"},
    {ORVIX_HW_TRIGGER_INPUT2_DELAY, "hardware trigger general input2 delay"},
    {ORVIX_IMAGE_OFFSET_X, "image offset x"},
    {ORVIX_SHAFT_ENCODER1_MIN_WIDTH, "shaft encoder1 min width"},
    {ORVIX_SHAFT_ENCODER1_VALID_DIRECTION, "shaft encoder1 valid direction"},
    {ORVIX_SHAFT_ENCODER1_REVERSE_COMPENSATION, "shaft encoder1 reverse compensation"},
    {ORVIX_FRAME_SIZE_HIGH, "frame size high"},
    {ORVIX_FRAME_SIZE_LOW, "frame size low"},
    {ORVIX_BOARD_TRIGGER_FRAME_COUNT, "board trigger frame count"},
    {ORVIX_SHAFT_ENCODER1_QUAD_FREQUENCY_SOURCE, "shaft encoder1 quad frequency source type"},
    {ORVIX_MULTIPLE_LIGHT_COUNT, "multiple light count"},
    {ORVIX_RGBD_EXTENDED_MODE, "rgbd extended mode"},
    {ORVIX_BOARD_SERIAL, "board serial"},
    {ORVIX_PCIE_LINK, "pcie link"},
    {ORVIX_FRAME_LOST, "frame lost"},
    {ORVIX_HW_TRIGGER_INPUT_DELAY_MODE, "hardware trigger general input delay mode"},
    {ORVIX_HW_TRIGGER_INPUT1_DELAY_LINES, "hardware trigger general input1 delay in lines"},
    {ORVIX_HW_TRIGGER_INPUT2_DELAY_LINES, "hardware trigger general input2 delay in lines"},
    {ORVIX_SIGNAL_COUNTER_BASE, "signal counter 0"},
    {ORVIX_SIGNAL_COUNTER_BASE + 1, "signal counter 1"},
    {ORVIX_SIGNAL_COUNTER_BASE + 2, "signal counter 2"},
    {ORVIX_SIGNAL_COUNTER_BASE + 3, "signal counter 3"},
    {ORVIX_SIGNAL_COUNTER_BASE + 4, "signal counter 4"},
    {ORVIX_SIGNAL_COUNTER_BASE + 5, "signal counter 5"},
    {ORVIX_SIGNAL_COUNTER_BASE + 6, "signal counter 6"},
    {ORVIX_SIGNAL_COUNTER_BASE + 7, "signal counter 7"},
    {ORVIX_BOARD_TRIGGER_RECEIVE_MODE, "board trigger receive mode"},
    {ORVIX_SIGNAL_COUNTER_CONTROL, "signal counter control"},
    {ORVIX_SHAFT_ENCODER1_REVERSE_COMPENSATION_LIMIT, "shaft encoder1 reverse compensation limit"},
    {ORVIX_SHAFT_ENCODER1_CLOCK_DUTY_COMPENSATION_TYPE,
     "shaft encoder1 clock duty compensation type"},
    {ORVIX_SHAFT_ENCODER1_CLOCK_DUTY_COMPENSATION_WIDTH,
     "shaft encoder1 clock duty compensation width"},
    {ORVIX_CL_VALID_COLUMN, "cl valid column"},
    {ORVIX_CL_SIGNAL_ENHANCE_MODE, "cl signal enhance mode"},
    {ORVIX_CL_LONG_CABLE_MODE, "cl long cable working mode"},
    {ORVIX_CXP_TRIGGER, "cxp trigger"},
    {ORVIX_BOARD_TRIGGER_FRAME_ACTIVE_MODE, "board trigger frame active mode"},
    {ORVIX_JPEG_COMPRESS_ENABLE, "jpeg compress enable"},
    {ORVIX_JPEG_COMPRESS_QUALITY, "jpeg compress quality"},
};

const char* nameOf(uint32_t id) {
    for (const auto& [known, name] : kNames) {
        if (known == id) {
            return name;
        }
    }
    return nullptr;
}

}  // namespace

bool isKnownParameter(uint32_t id) {
    return nameOf(id) != nullptr;
}

std::string describeParameter(uint32_t id) {
    char hex[24];
    std::snprintf(hex, sizeof hex, "0x%08X", id);
    const char* name = nameOf(id);
    return name != nullptr ? std::string(name) + " (" + hex + ")" : std::string("parameter ") + hex;
}

}  // namespace orvix::aravis
