#include "acquisition/board_parameters.h"

#include <array>
#include <string>

namespace lumetra {
namespace {

enum class When { Always, WidthRetry, Model10, Cxp, Cl };

struct Row {
    uint32_t id;
    std::string_view name;
    When when;
};

// The fixed order of the apply sequence up to the integration method. Names are the board's own
// spelling, slips included.
constexpr std::array kRows = {
    Row{0x10000002, "image height", When::Always},
    Row{0x10000050, "tap offset x", When::Always},
    Row{0x10000069, "image offset x", When::Always},
    Row{0x20000016, "cl valid column", When::Always},
    Row{0x20000017, "cl signal enhance mode", When::Always},
    Row{0x10000056, "pcie kernal block size", When::Always},
    Row{0x1000000A, "image type", When::Always},
    Row{0x10000015, "bayer pattern", When::Always},
    Row{0x10000001, "image width", When::WidthRetry},
    Row{0x3000002F, "jpeg compress enable", When::Model10},
    Row{0x30000030, "jpeg compress quality", When::Model10},
    Row{0x1000007F, "rgbd extended mode", When::Always},
    Row{0x10000003, "data format", When::Always},
    Row{0x10000006, "scan type", When::Always},
    Row{0x10000013, "tap number", When::Always},
    Row{0x10000014, "tap arrangement", When::Always},
    Row{0x10000015, "bayer pattern", When::Always},
    Row{0x10000016, "pixel clock", When::Always},
    Row{0x10000017, "data valid", When::Always},
    Row{0x10000064, "frame valid", When::Always},
    Row{0x10000046, "line valid filter", When::Always},
    Row{0x20000020, "cl long cable working mode", When::Always},
    Row{0x10000049, "FPGA ecternal trigger timeout", When::Always},
    Row{0x1000001D, "board trigger source", When::Always},
    Row{0x1000001C, "board trigger mode", When::Always},
    Row{0x10000075, "board trigger frame count", When::Always},
    Row{0x3000002E, "board trigger frame active mode", When::Always},
    Row{0x20000010, "board trigger receive mode", When::Always},
    Row{0x20000005, "hardware trigger general input delay mode", When::Always},
    Row{0x20000006, "hardware trigger general input1 delay in lines", When::Always},
    Row{0x20000007, "hardware trigger general input2 delay in lines", When::Always},
    Row{0x10000067, "hardware trigger general input1 delay", When::Always},
    Row{0x10000068, "hardware trigger general input2 delay", When::Always},
    Row{0x1000007D, "Multiple light count", When::Always},
    Row{0x1000001E, "general input1 sample mode", When::Always},
    Row{0x1000001F, "general input1 protect mode", When::Always},
    Row{0x10000021, "general input2 sample mode", When::Always},
    Row{0x10000022, "general input2 protect mode", When::Always},
    Row{0x1000003F, "general input1 trigger mode", When::Always},
    Row{0x10000040, "general input2 trigger mode", When::Always},
    Row{0x10000051, "general input 1 polarity", When::Always},
    Row{0x10000052, "general input 1 min width", When::Always},
    Row{0x10000053, "general input 2 polarity", When::Always},
    Row{0x10000054, "general input 2 min width", When::Always},
    Row{0x10000025, "shaft encoder1 protect mode", When::Always},
    Row{0x10000024, "shaft encoder1 pulse drop", When::Always},
    Row{0x10000070, "shaft encoder1 min width", When::Always},
    Row{0x10000026, "shaft encoder1 minimum interval", When::Always},
    Row{0x10000043, "shaft encoder1 channel", When::Always},
    Row{0x10000076, "shaft encoder1 quad frequency source type", When::Always},
    Row{0x10000044, "shaft encoder1 multiply factor", When::Always},
    Row{0x10000071, "shaft encoder1 valid direction", When::Always},
    Row{0x10000072, "shaft encoder1 reverse compensation", When::Always},
    Row{0x20000013, "shaft encoder1 reverse compensation limit", When::Always},
    Row{0x20000014, "shaft encoder1 clock duty compensation type", When::Always},
    Row{0x20000015, "shaft encoder1 clock duty compensation width", When::Always},
    Row{0x1000002A, "board sync output1 source", When::Always},
    Row{0x1000002B, "board sync output2 source", When::Always},
    Row{0x10000041, "board sync1 trigger mode", When::Always},
    Row{0x10000042, "board sync2 trigger mode", When::Always},
    Row{0x1000002C, "general output1 source", When::Always},
    Row{0x1000003B, "general output1 polarity", When::Always},
    Row{0x1000003C, "general output1 delay", When::Always},
    Row{0x1000002D, "general output2 source", When::Always},
    Row{0x1000003D, "general output2 polarity", When::Always},
    Row{0x1000003E, "general output2 delay", When::Always},
    Row{0x10000027, "integration trigger source", When::Always},
    Row{0x10000028, "integration trigger frequency", When::Always},
    Row{0x10000029, "strobe trigger source", When::Always},
    Row{0x30000002, "cxp Trigger", When::Cxp},
    Row{0x10000018, "cc1 source", When::Cl},
    Row{0x10000019, "cc2 source", When::Cl},
    Row{0x1000001A, "cc3 source", When::Cl},
    Row{0x1000001B, "cc4 source", When::Cl},
    Row{0x1000002E, "integration method", When::Always},
};

constexpr ParameterWrite kPolarity1{0x10000033, 0x10000033, "integration polarity1"};
constexpr ParameterWrite kPolarity2{0x10000034, 0x10000034, "integration polarity2"};
constexpr ParameterWrite kParam1{0x1000002F, 0x1000002F, "integration param1"};
constexpr ParameterWrite kParam2{0x10000030, 0x10000030, "integration param2"};
constexpr ParameterWrite kParam3{0x10000031, 0x10000031, "integration param3"};
constexpr ParameterWrite kParam4{0x10000032, 0x10000032, "integration param4"};

// The software-trigger values are cached under the CameraLink ids; CoaXPress boards take them
// through the integration ids.
struct TriggerRow {
    uint32_t clId;
    uint32_t cxpId;
    std::string_view name;
};
constexpr std::array kTriggerRows = {
    TriggerRow{0x10000062, 0x10000062, "software trigger polarity"},
    TriggerRow{0x10000066, 0x10000066, "sync mode"},
    TriggerRow{0x10000058, 0x1000002F, "software trigger period"},
    TriggerRow{0x10000057, 0x10000030, "software trigger width"},
    TriggerRow{0x10000061, 0x10000031, "software trigger delay"},
    TriggerRow{0x10000059, 0x10000032, "software trigger count"},
};

constexpr std::array kStrobeRows = {
    ParameterWrite{0x10000035, 0x10000035, "strobe method"},
    ParameterWrite{0x1000003A, 0x1000003A, "strobe polarity"},
    ParameterWrite{0x10000036, 0x10000036, "strobe param1"},
    ParameterWrite{0x10000037, 0x10000037, "strobe param2"},
    ParameterWrite{0x10000038, 0x10000038, "strobe param3"},
    ParameterWrite{0x10000039, 0x10000039, "strobe param4"},
};

// Values a fresh cache holds before the first read-back: the image-format defaults, one tap.
constexpr std::array<std::pair<uint32_t, uint32_t>, 5> kCacheDefaults = {{
    {ORVIX_IMAGE_WIDTH, 1024},
    {ORVIX_IMAGE_HEIGHT, 643},
    {ORVIX_IMAGE_TYPE, 1},
    {ORVIX_DATA_FORMAT, 8},
    {ORVIX_TAP_NUMBER, 1},
}};

bool rowApplies(When when, const BoardIdentity& board, bool widthFailed) {
    switch (when) {
        case When::Always:
            return true;
        case When::WidthRetry:
            return widthFailed;
        case When::Model10:
            return board.modelCode == 10;
        case When::Cxp:
            return board.coaxpress;
        case When::Cl:
            return !board.coaxpress;
    }
    return false;
}

void integrationWrites(uint32_t method, std::vector<ParameterWrite>& out) {
    switch (method) {
        case 0:
            out.insert(out.end(), {kParam1, kParam2});
            break;
        case 1:
        case 3:
            out.insert(out.end(), {kPolarity1, kParam1, kParam2});
            break;
        case 2:
            out.insert(out.end(), {kPolarity1, kPolarity2});
            break;
        case 4:
            out.insert(out.end(), {kPolarity1, kPolarity2, kParam1, kParam2, kParam3, kParam4});
            break;
        default:
            break;
    }
}

}  // namespace

BoardParameters::BoardParameters() {
    for (const Row& row : kRows) {
        values_[row.id] = 0;
    }
    for (const auto& w : {kPolarity1, kPolarity2, kParam1, kParam2, kParam3, kParam4}) {
        values_[w.id] = 0;
    }
    for (const TriggerRow& row : kTriggerRows) {
        values_[row.clId] = 0;
    }
    for (const ParameterWrite& w : kStrobeRows) {
        values_[w.id] = 0;
    }
    for (auto [id, value] : kCacheDefaults) {
        values_[id] = value;
    }
}

uint32_t BoardParameters::get(uint32_t id) const {
    auto it = values_.find(id);
    return it == values_.end() ? 0 : it->second;
}

uint32_t ChannelsOfImageType(uint32_t imageType) {
    switch (imageType) {
        case 0:
            return 1;
        case 1:
        case 3:
            return 3;
        case 2:
        case 4:
            return 4;
        default:
            return 0;
    }
}

std::vector<ParameterWrite> ParameterApplyWrites(const BoardParameters& cache,
                                                 const BoardIdentity& board,
                                                 bool firstWidthWriteFailed) {
    std::vector<ParameterWrite> out;
    out.reserve(kRows.size() + 16);
    for (const Row& row : kRows) {
        if (rowApplies(row.when, board, firstWidthWriteFailed)) {
            out.push_back({row.id, row.id, row.name});
        }
    }
    integrationWrites(cache.get(ORVIX_INTEGRATION_METHOD), out);
    if (board.coaxpress) {
        out.push_back({ORVIX_INTEGRATION_METHOD, ORVIX_INTEGRATION_METHOD, "integration method"});
    }
    for (const TriggerRow& row : kTriggerRows) {
        out.push_back({board.coaxpress ? row.cxpId : row.clId, row.clId, row.name});
    }
    out.insert(out.end(), kStrobeRows.begin(), kStrobeRows.end());
    return out;
}

void ApplyParameters(BoardLibrary& lib, OrvixHandle handle, const BoardParameters& cache,
                     const BoardIdentity& board, MessageLog& log) {
    lib.SetInfo(handle, ORVIX_TAP_NUMBER, 1);
    const bool widthFailed = lib.SetInfo(handle, ORVIX_IMAGE_WIDTH, cache.width()) != ORVIX_SUCCESS;
    for (const ParameterWrite& w : ParameterApplyWrites(cache, board, widthFailed)) {
        if (lib.SetInfo(handle, w.id, cache.get(w.source)) != ORVIX_SUCCESS) {
            log.log("Set " + std::string(w.name) + " failed");
        }
    }
}

void ReadBackParameters(BoardLibrary& lib, OrvixHandle handle, const BoardIdentity& board,
                        BoardParameters& cache, ImageFormatRecord& format) {
    auto read = [&](uint32_t id, uint32_t source) {
        uint32_t v = cache.get(source);
        if (lib.GetInfo(handle, id, &v) == ORVIX_SUCCESS) {
            cache.set(source, v);
        }
    };
    read(ORVIX_IMAGE_WIDTH, ORVIX_IMAGE_WIDTH);
    for (const Row& row : kRows) {
        if (row.when == When::WidthRetry || row.id == ORVIX_RGBD_EXTENDED_MODE) {
            continue;
        }
        if (row.id == ORVIX_SHAFT_ENCODER1_MIN_INTERVAL &&
            cache.get(ORVIX_SHAFT_ENCODER1_PROTECT_MODE) != 0) {
            continue;  // only meaningful without protection
        }
        read(row.id, row.id);
    }
    for (const auto& w : {kPolarity1, kPolarity2, kParam1, kParam2, kParam3, kParam4}) {
        read(w.id, w.source);
    }
    for (const TriggerRow& row : kTriggerRows) {
        read(board.coaxpress ? row.cxpId : row.clId, row.clId);
    }
    for (const ParameterWrite& w : kStrobeRows) {
        read(w.id, w.source);
    }

    // The flag is taken only when the read fails; kept as the board software has always done.
    uint32_t rgbd = cache.get(ORVIX_RGBD_EXTENDED_MODE);
    if (lib.GetInfo(handle, ORVIX_RGBD_EXTENDED_MODE, &rgbd) != ORVIX_SUCCESS) {
        format.rgbdExtended = rgbd != 0;
    } else {
        cache.set(ORVIX_RGBD_EXTENDED_MODE, rgbd);
    }

    if (cache.get(ORVIX_CL_SIGNAL_ENHANCE_MODE) == 3) {
        cache.set(ORVIX_CL_SIGNAL_ENHANCE_MODE, 1);
    }
    if (uint32_t channels = ChannelsOfImageType(cache.imageType()); channels != 0) {
        cache.channels = channels;
    }
    cache.bitsPerPixel = cache.channels * cache.dataFormat();
    cache.bayerEnabled = cache.bayerPattern() != 0;
    switch (cache.taps()) {
        case 1:
            cache.clConfigIndex = 0;
            break;
        case 2:
            cache.clConfigIndex = cache.imageType() != 0 ? 1 : 0;
            break;
        case 3:
        case 8:
            cache.clConfigIndex = 2;
            break;
        case 4:
            cache.clConfigIndex = 1;
            break;
        case 10:
            cache.clConfigIndex = 3;
            break;
        default:
            break;
    }

    format.width = cache.width();
    format.height = cache.height();
    format.channels = cache.channels;
    format.bitsPerPixel = cache.bitsPerPixel;
    format.bitsPerPixelDisplay = cache.bitsPerPixel;
    if (board.modelCode == 10) {
        format.jpegCompression = cache.get(ORVIX_JPEG_COMPRESS_ENABLE) != 0;
    }
}

uint32_t ParameterIdOfShortName(std::string_view name) {
    static constexpr std::array<std::pair<std::string_view, uint32_t>, 9> kNames = {{
        {"width", ORVIX_IMAGE_WIDTH},
        {"height", ORVIX_IMAGE_HEIGHT},
        {"taps", ORVIX_TAP_NUMBER},
        {"imageType", ORVIX_IMAGE_TYPE},
        {"dataFormat", ORVIX_DATA_FORMAT},
        {"bayer", ORVIX_BAYER_PATTERN},
        {"offsetX", ORVIX_IMAGE_OFFSET_X},
        {"triggerMode", ORVIX_BOARD_TRIGGER_MODE},
        {"triggerSource", ORVIX_BOARD_TRIGGER_SOURCE},
    }};
    for (auto [n, id] : kNames) {
        if (n == name) {
            return id;
        }
    }
    return 0;
}

std::string_view ParameterDisplayName(uint32_t id) {
    for (const Row& row : kRows) {
        if (row.id == id) {
            return row.name;
        }
    }
    for (const auto& w : {kPolarity1, kPolarity2, kParam1, kParam2, kParam3, kParam4}) {
        if (w.id == id) {
            return w.name;
        }
    }
    for (const TriggerRow& row : kTriggerRows) {
        if (row.clId == id) {
            return row.name;
        }
    }
    for (const ParameterWrite& w : kStrobeRows) {
        if (w.id == id) {
            return w.name;
        }
    }
    return {};
}

}  // namespace lumetra
