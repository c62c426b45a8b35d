#include "ParameterStore.h"

#include <algorithm>

#include "OrvixBoard.h"
#include "ParameterTable.h"

namespace orvix::sim {
namespace {

bool listed(const std::vector<uint32_t>& ids, uint32_t id) {
    return std::find(ids.begin(), ids.end(), id) != ids.end();
}

// Model 10 boards carry the JPEG encoder.
constexpr uint32_t kJpegModel = 10;

}  // namespace

ParameterStore::ParameterStore(const BoardConfig& config) : config_(config) {
    for (const ParameterInfo& info : parameterTable()) {
        if ((info.flags & kLive) == 0) {
            values_[info.id] = info.defaultValue;
        }
    }
    values_[ORVIX_IMAGE_WIDTH] = config.width;
    values_[ORVIX_IMAGE_HEIGHT] = config.height;
    values_[ORVIX_IMAGE_TYPE] = config.imageType;
    values_[ORVIX_DATA_FORMAT] = config.dataFormat;
    values_[ORVIX_TAP_NUMBER] = config.taps;
    values_[ORVIX_BAYER_PATTERN] = config.bayer;
    values_[ORVIX_SCAN_TYPE] = config.scanType;
    values_[ORVIX_BUFFER_COUNT] = config.buffers;
    values_[ORVIX_BOARD_VERSION] = config.version;
    values_[ORVIX_BOARD_SERIAL] = config.serial;
    values_[ORVIX_PCIE_LINK] = config.pcieLink;
}

FrameFormat ParameterStore::frameFormat() const {
    FrameFormat f;
    f.width = value(ORVIX_IMAGE_WIDTH);
    f.height = value(ORVIX_IMAGE_HEIGHT);
    f.imageType = value(ORVIX_IMAGE_TYPE);
    f.bits = value(ORVIX_DATA_FORMAT);
    f.bayer = value(ORVIX_BAYER_PATTERN);
    return f;
}

uint32_t ParameterStore::value(uint32_t id) const {
    auto it = values_.find(id);
    return it == values_.end() ? 0 : it->second;
}

Status ParameterStore::get(uint32_t id, uint32_t& value) const {
    const ParameterInfo* info = findParameter(id);
    if (info == nullptr || (info->flags & kLive) != 0) {
        return Status::fail(ORVIX_ERR_INVALID_PARAMETER,
                            "Get " + describeParameter(id) + ": unknown parameter", id);
    }
    if (listed(config_.failGet, id)) {
        return Status::fail(ORVIX_ERR_REFUSED,
                            "Get " + describeParameter(id) + ": refused by the board", id);
    }
    uint64_t bytes = frameBytes();
    switch (id) {
        case ORVIX_FRAME_SIZE_HIGH:
            value = static_cast<uint32_t>(bytes >> 32);
            break;
        case ORVIX_FRAME_SIZE_LOW:
        case ORVIX_FRAME_SIZE:
            // The 32-bit size wraps like the low word; readers of large frames use the pair.
            value = static_cast<uint32_t>(bytes);
            break;
        default:
            value = this->value(id);
    }
    return Status::success();
}

Status ParameterStore::checkValue(uint32_t id, uint32_t value) const {
    const ParameterInfo* info = findParameter(id);
    if (info == nullptr || (info->flags & kLive) != 0) {
        return Status::fail(ORVIX_ERR_INVALID_PARAMETER,
                            "Set " + describeParameter(id) + ": unknown parameter", id);
    }
    if (info->readOnly()) {
        return Status::fail(ORVIX_ERR_REFUSED,
                            "Set " + describeParameter(id) + ": the parameter is read-only", id);
    }
    if (!info->accepts(value)) {
        return Status::fail(ORVIX_ERR_OUT_OF_RANGE,
                            "Set " + describeParameter(id) + ": " + std::to_string(value) +
                                " is out of range (" + info->legalValues() + ")",
                            id);
    }
    if (id == ORVIX_JPEG_COMPRESS_ENABLE && value != 0 && modelCode() != kJpegModel) {
        return Status::fail(ORVIX_ERR_REFUSED,
                            "Set " + describeParameter(id) + ": this board has no JPEG encoder",
                            id);
    }
    return Status::success();
}

Status ParameterStore::check(uint32_t id, uint32_t value) const {
    Status s = checkValue(id, value);
    if (s.ok() && listed(config_.failSet, id)) {
        return Status::fail(ORVIX_ERR_REFUSED,
                            "Set " + describeParameter(id) + ": refused by the board", id);
    }
    return s;
}

Status ParameterStore::set(uint32_t id, uint32_t value) {
    Status s = check(id, value);
    if (s.ok()) {
        values_[id] = value;
    }
    return s;
}

ParameterValues ParameterStore::persistentValues() const {
    ParameterValues out;
    for (const ParameterInfo& info : parameterTable()) {
        if (info.persistent()) {
            out.emplace_back(info.id, value(info.id));
        }
    }
    return out;
}

Status ParameterStore::applyAll(const ParameterValues& values) {
    for (const auto& [id, v] : values) {
        Status s = v == value(id) ? checkValue(id, v) : check(id, v);
        if (!s.ok()) {
            return s;
        }
    }
    for (const auto& [id, v] : values) {
        values_[id] = v;
    }
    return Status::success();
}

}  // namespace orvix::sim
