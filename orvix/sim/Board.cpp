#include "Board.h"

#include "ConfigurationFile.h"
#include "ParameterTable.h"

namespace orvix::sim {

Board::Board(BoardConfig config)
    : config_(std::move(config)),
      params_(config_),
      registers_(config_.version, config_.serial),
      streamer_(std::make_unique<Streamer>(ring_, callbacks_, config_.signalRates)) {
    if (config_.virtualClock) {
        streamer_->setVirtualClock(true);
    }
}

Board::~Board() {
    // The thread must be gone before the ring and the callbacks it uses.
    streamer_.reset();
}

Status Board::getInfo(uint32_t id, uint32_t& value) {
    const ParameterInfo* info = findParameter(id);
    if (info != nullptr && (info->flags & kLive) != 0) {
        {
            std::lock_guard lock(mutex_);
            for (uint32_t failing : config_.failGet) {
                if (failing == id) {
                    return Status::fail(ORVIX_ERR_REFUSED,
                                        "Get " + describeParameter(id) + ": refused by the board",
                                        id);
                }
            }
        }
        if (id == ORVIX_BOARD_STATE) {
            value = streamer_->grabbing() ? 1 : 0;
        } else if (id == ORVIX_FRAME_LOST) {
            value = streamer_->lostFrames();
        } else if (id == ORVIX_SIGNAL_COUNTER_CONTROL) {
            value = streamer_->counterControl();
        } else if (id >= ORVIX_SIGNAL_COUNTER_BASE &&
                   id < ORVIX_SIGNAL_COUNTER_BASE + kSignalCount) {
            value = streamer_->signalCounter(static_cast<int>(id - ORVIX_SIGNAL_COUNTER_BASE));
        } else {
            value = 0;  // the software trigger reads as idle
        }
        return Status::success();
    }
    std::lock_guard lock(mutex_);
    return params_.get(id, value);
}

Status Board::setInfo(uint32_t id, uint32_t value) {
    const ParameterInfo* info = findParameter(id);
    if (info != nullptr && (info->flags & kLive) != 0) {
        std::lock_guard lock(mutex_);
        if (info->readOnly()) {
            return Status::fail(ORVIX_ERR_REFUSED,
                                "Set " + describeParameter(id) + ": the parameter is read-only",
                                id);
        }
        for (uint32_t failing : config_.failSet) {
            if (failing == id) {
                return Status::fail(ORVIX_ERR_REFUSED,
                                    "Set " + describeParameter(id) + ": refused by the board", id);
            }
        }
        if (!info->accepts(value)) {
            return Status::fail(ORVIX_ERR_OUT_OF_RANGE,
                                "Set " + describeParameter(id) + ": " + std::to_string(value) +
                                    " is out of range (" + info->legalValues() + ")",
                                id);
        }
        if (id == ORVIX_SOFTWARE_TRIGGER_FIRE) {
            if (value == 1) {
                streamer_->softwareTrigger();
            }
        } else {
            streamer_->setCounterControl(value);
        }
        return Status::success();
    }
    std::lock_guard lock(mutex_);
    if (info != nullptr && (info->flags & kFrozenWhileGrabbing) != 0 && streamer_->grabbing()) {
        return Status::fail(ORVIX_ERR_GRAB_RUNNING,
                            "Set " + describeParameter(id) + ": not while a grab is running", id);
    }
    return params_.set(id, value);
}

Status Board::registerCallback(uint32_t event, OrvixCallback function, void* context) {
    Status s = callbacks_.add(event, function, context);
    if (s.ok() && CallbackRegistry::isSignalEvent(event)) {
        streamer_->callbacksChanged();
    }
    return s;
}

Status Board::unregisterCallback(uint32_t event) {
    if (!CallbackRegistry::isValidEvent(event)) {
        return Status::fail(ORVIX_ERR_INVALID_ARGUMENT,
                            "Unregister callback: unknown event " + std::to_string(event), event);
    }
    callbacks_.remove(event);
    if (CallbackRegistry::isSignalEvent(event)) {
        streamer_->callbacksChanged();
    }
    return Status::success();
}

GrabSetup Board::grabSetup() const {
    GrabSetup g;
    const BoardConfig& c = config_;
    g.producer.format = params_.frameFormat();
    g.producer.pattern = c.pattern;
    g.producer.level = c.level.value_or(PatternGenerator::halfRange(g.producer.format));
    g.producer.defects = c.defects;
    g.producer.jpeg = c.modelCode() == 10 && params_.value(ORVIX_JPEG_COMPRESS_ENABLE) == 1;
    g.producer.jpegQuality = static_cast<int>(params_.value(ORVIX_JPEG_COMPRESS_QUALITY));
    g.bufferCount = params_.value(ORVIX_BUFFER_COUNT);
    if (params_.value(ORVIX_SCAN_TYPE) == 1) {
        g.period = Period{uint64_t{1000000000} * g.producer.format.height, c.lineRate};
        g.linesPerFrame = g.producer.format.height;
    } else {
        g.period = Period::perSecond(c.fps);
    }
    g.triggered = params_.value(ORVIX_BOARD_TRIGGER_MODE) != 0;
    g.framesPerTrigger = params_.value(ORVIX_BOARD_TRIGGER_FRAME_COUNT);
    g.triggerTimeout = std::chrono::milliseconds(params_.value(ORVIX_EXTERNAL_TRIGGER_TIMEOUT));
    g.timeoutEvery = c.timeoutEvery;
    g.signalLossAfter = std::chrono::milliseconds(c.signalLossAfterMs);
    g.stopFailures = c.stopFailures;
    return g;
}

Status Board::startGrab(uint32_t frameCount) {
    streamer_->quiesce();
    {
        std::lock_guard lock(mutex_);
        if (frameCount == 1 && config_.singleShotError != 0) {
            return Status::fail(
                static_cast<int32_t>(config_.singleShotError),
                "Single shot failed (error " + std::to_string(config_.singleShotError) + ")");
        }
        // Under the board's lock, so that no format change slips in between.
        Status s = streamer_->begin(grabSetup(), frameCount);
        if (!s.ok()) {
            return s;
        }
    }
    return frameCount == 1 ? streamer_->awaitSingleShot() : Status::success();
}

Status Board::stopGrab() {
    return streamer_->stop();
}

Status Board::ensureRing() {
    streamer_->quiesce();
    std::lock_guard lock(mutex_);
    if (streamer_->grabbing() || streamer_->delivering()) {
        // The grab sized the ring; a callback of a grab being stopped still reads the ring it
        // was given.
        return Status::success();
    }
    Status s = streamer_->prepareRing(params_.value(ORVIX_BUFFER_COUNT), params_.frameBytes());
    return s.code == ORVIX_ERR_GRAB_RUNNING ? Status::success() : s;
}

Status Board::bufferAddress(uint32_t index, void*& address) {
    Status s = ensureRing();
    if (!s.ok()) {
        return s;
    }
    return ring_.address(index, address);
}

Status Board::bufferStatus(uint32_t index, OrvixBufferStatus& status) {
    Status s = ensureRing();
    if (!s.ok()) {
        return s;
    }
    return ring_.status(index, status);
}

int32_t Board::cameraStatus() const {
    const bool present = streamer_->cameraSignalPresent();
    if (config_.isCoaXPress()) {
        return present ? static_cast<int32_t>(ORVIX_CXP_LINK_UP |
                                              (config_.cxpSpeed & ORVIX_CXP_SPEED_MASK))
                       : 0;
    }
    return present ? static_cast<int32_t>(ORVIX_CL_PIXEL_CLOCK | ORVIX_CL_FRAME_VALID |
                                          ORVIX_CL_LINE_VALID)
                   : 0;
}

double Board::frameRate() const {
    return streamer_->frameRate();
}

Status Board::loadConfiguration(const std::string& path) {
    std::lock_guard lock(mutex_);
    if (streamer_->grabbing()) {
        return Status::fail(ORVIX_ERR_GRAB_RUNNING,
                            "Load configuration: not while a grab is running");
    }
    return orvix::sim::loadConfiguration(params_, path);
}

Status Board::saveConfiguration(const std::string& path) {
    std::lock_guard lock(mutex_);
    return orvix::sim::saveConfiguration(params_, config_.name, path);
}

Status Board::readRegister(uint32_t address, uint32_t& value) {
    return registers_.read(address, value);
}

Status Board::writeRegister(uint32_t address, uint32_t value) {
    return registers_.write(address, value);
}

}  // namespace orvix::sim
