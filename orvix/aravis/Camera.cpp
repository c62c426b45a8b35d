#include "Camera.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <iterator>

#include "ConfigurationDump.h"
#include "FeatureDump.h"
#include "ParameterNames.h"
#include "PixelFormats.h"

namespace orvix::aravis {
namespace {

constexpr uint32_t kMaxBuffers = 256;

Status lacks(const char* op, uint32_t id) {
    if (!isKnownParameter(id)) {
        return Status::fail(ORVIX_ERR_INVALID_PARAMETER,
                            std::string(op) + " " + describeParameter(id) + ": unknown parameter",
                            id);
    }
    return Status::fail(
        ORVIX_ERR_INVALID_PARAMETER,
        std::string(op) + " " + describeParameter(id) + ": a camera has no such setting", id);
}

Status outOfRange(uint32_t id, uint32_t value, const std::string& legal) {
    return Status::fail(ORVIX_ERR_OUT_OF_RANGE,
                        "Set " + describeParameter(id) + ": " + std::to_string(value) +
                            " is out of range (" + legal + ")",
                        id);
}

bool readOnly(uint32_t id) {
    switch (id) {
        case ORVIX_BOARD_VERSION:
        case ORVIX_BOARD_SERIAL:
        case ORVIX_BOARD_STATE:
        case ORVIX_FRAME_LOST:
        case ORVIX_FRAME_SIZE:
        case ORVIX_FRAME_SIZE_HIGH:
        case ORVIX_FRAME_SIZE_LOW:
            return true;
        default:
            return false;
    }
}

// What changes the frames or the ring: refused while a grab runs, as on a board.
bool frozenWhileGrabbing(uint32_t id) {
    switch (id) {
        case ORVIX_IMAGE_WIDTH:
        case ORVIX_IMAGE_HEIGHT:
        case ORVIX_IMAGE_OFFSET_X:
        case ORVIX_IMAGE_TYPE:
        case ORVIX_DATA_FORMAT:
        case ORVIX_BAYER_PATTERN:
        case ORVIX_SCAN_TYPE:
        case ORVIX_BUFFER_COUNT:
        case ORVIX_BOARD_TRIGGER_MODE:
            return true;
        default:
            return false;
    }
}

// Trigger sources: 1 is the software trigger, as the workbench's Software Trigger command takes
// it; 0 is the camera's first input line, Line0, and n >= 2 the line Line<n-1>.
std::string triggerSourceName(uint32_t value) {
    if (value == 1) {
        return "Software";
    }
    return "Line" + std::to_string(value == 0 ? 0 : value - 1);
}

bool triggerSourceValue(const std::string& name, uint32_t& value) {
    if (name == "Software") {
        value = 1;
        return true;
    }
    if (name.rfind("Line", 0) == 0 && name.size() > 4) {
        char* end = nullptr;
        const unsigned long line = std::strtoul(name.c_str() + 4, &end, 10);
        if (*end == '\0' && line < 0xFFFFFFFEul) {
            value = line == 0 ? 0 : static_cast<uint32_t>(line + 1);
            return true;
        }
    }
    return false;
}

Status writeFileAtomically(const std::string& path, const std::string& text) {
    const std::string temp = path + ".tmp";
    const int fd = ::open(temp.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    if (fd < 0) {
        return Status::fail(ORVIX_ERR_FILE_IO,
                            "Save configuration '" + path + "': " + std::strerror(errno));
    }
    std::string_view rest = text;
    while (!rest.empty()) {
        const ssize_t n = ::write(fd, rest.data(), rest.size());
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n < 0) {
            const int err = errno;
            ::close(fd);
            ::unlink(temp.c_str());
            return Status::fail(ORVIX_ERR_FILE_IO,
                                "Save configuration '" + path + "': " + std::strerror(err));
        }
        rest.remove_prefix(static_cast<size_t>(n));
    }
    if (::fsync(fd) != 0 || ::close(fd) != 0 || ::rename(temp.c_str(), path.c_str()) != 0) {
        const int err = errno;
        ::unlink(temp.c_str());
        return Status::fail(ORVIX_ERR_FILE_IO,
                            "Save configuration '" + path + "': " + std::strerror(err));
    }
    return Status::success();
}

}  // namespace

Camera::Camera(std::string id, std::unique_ptr<Connection> connection, Reaper& reaper,
               CameraOptions options)
    : id_(std::move(id)), identity_(connection->identity()), reaper_(reaper), options_(options) {
    std::lock_guard lock(deviceMutex_);
    adoptLocked(std::move(connection));
}

Camera::~Camera() {
    shutdown();
    std::lock_guard lock(deviceMutex_);
    if (connection_ && connection_->lost()) {
        // Closing a connection to a camera that is gone waits for time-outs.
        std::shared_ptr<Connection> gone = std::move(connection_);
        reaper_.post([gone] {});
    }
    connection_.reset();
}

void Camera::adoptLocked(std::unique_ptr<Connection> connection) {
    lostFlags_.push_back(connection->lostFlag());
    lostFlag_ = lostFlags_.back().get();
    connection_ = std::move(connection);
    suspect_ = false;
}

bool Camera::onDeliveryThread() const {
    std::lock_guard lock(stateMutex_);
    return (session_.acquisition && session_.acquisition->onDeliveryThread()) ||
           (pending_.acquisition && pending_.acquisition->onDeliveryThread());
}

Status Camera::connectedLocked(const char* op) {
    if (connection_ && !connection_->lost() && !suspect_) {
        return Status::success();
    }
    // A camera that is gone is told at once, not after the old link's time-outs.
    if (!gigeCameraAnswers(id_, kAnswerWait)) {
        return Status::fail(ORVIX_ERR_TIMEOUT,
                            std::string(op) + ": camera " + id_ + " does not answer");
    }
    // What was started on the old link must be over before a new one talks to the camera.
    if (connection_) {
        std::shared_ptr<Connection> old = std::move(connection_);
        reaper_.post([old] {});
    }
    reaper_.drain();
    std::unique_ptr<Connection> fresh;
    Status s = Connection::open(id_, fresh);
    if (!s.ok()) {
        s.text = std::string(op) + ": camera " + id_ + " does not answer";
        s.code = ORVIX_ERR_TIMEOUT;
        return s;
    }
    adoptLocked(std::move(fresh));
    return Status::success();
}

Status Camera::frameLayoutLocked(uint32_t& width, uint32_t& height, uint32_t& pfnc) {
    int64_t w = 0, h = 0;
    Status s = connection_->getInteger("Width", w, ORVIX_IMAGE_WIDTH);
    if (s.ok()) {
        s = connection_->getInteger("Height", h, ORVIX_IMAGE_HEIGHT);
    }
    if (!s.ok()) {
        return s;
    }
    GError* error = nullptr;
    pfnc = arv_camera_get_pixel_format(connection_->camera(), &error);
    s = connection_->take(error, "Get PixelFormat");
    width = static_cast<uint32_t>(w);
    height = static_cast<uint32_t>(h);
    return s;
}

uint64_t Camera::frameBytes(Status& status) {
    {
        std::lock_guard lock(stateMutex_);
        if (session_.acquisition) {
            status = Status::success();
            return session_.acquisition->setup().frameBytes;
        }
    }
    std::lock_guard lock(deviceMutex_);
    status = connectedLocked("Get frame size");
    uint32_t w = 0, h = 0, pfnc = 0;
    if (status.ok()) {
        status = frameLayoutLocked(w, h, pfnc);
    }
    if (!status.ok()) {
        return 0;
    }
    const PixelFormatInfo* f = findPixelFormat(pfnc);
    if (f == nullptr) {
        status = Status::fail(ORVIX_ERR_REFUSED,
                              "Get frame size: the camera's pixel format " + pixelFormatName(pfnc) +
                                  " is not supported",
                              ORVIX_FRAME_SIZE);
        return 0;
    }
    return uint64_t{w} * h * f->bytesPerPixel;
}

// ---- parameters ----

Status Camera::getInfo(uint32_t id, uint32_t& value) {
    switch (id) {
        case ORVIX_BOARD_VERSION:
            value = versionWordOf(identity_.version);
            return Status::success();
        case ORVIX_BOARD_SERIAL:
            value = serialWordOf(identity_.serial);
            return Status::success();
        case ORVIX_TAP_NUMBER:
            value = 1;
            return Status::success();
        case ORVIX_JPEG_COMPRESS_ENABLE:
        case ORVIX_SOFTWARE_TRIGGER_FIRE:
        case ORVIX_INTEGRATION_METHOD:
            value = 0;
            return Status::success();
        case ORVIX_FRAME_SIZE:
        case ORVIX_FRAME_SIZE_HIGH:
        case ORVIX_FRAME_SIZE_LOW: {
            Status s;
            const uint64_t bytes = frameBytes(s);
            value = id == ORVIX_FRAME_SIZE_HIGH ? static_cast<uint32_t>(bytes >> 32)
                                                : static_cast<uint32_t>(bytes);
            return s;
        }
        default:
            break;
    }
    {
        std::lock_guard lock(stateMutex_);
        switch (id) {
            case ORVIX_BOARD_STATE:
                value = grab_ != GrabKind::kIdle ? 1 : 0;
                return Status::success();
            case ORVIX_FRAME_LOST:
                value = last_ ? last_->lost() : 0;
                return Status::success();
            case ORVIX_BUFFER_COUNT:
                value = bufferCount_;
                return Status::success();
            case ORVIX_ACQUISITION_MODE:
                value = acquisitionMode_;
                return Status::success();
            case ORVIX_GRAB_CONTINUOUS:
                value = grabContinuous_;
                return Status::success();
            case ORVIX_EXTERNAL_TRIGGER_TIMEOUT:
                value = triggerTimeoutMs_;
                return Status::success();
            default:
                break;
        }
    }
    std::lock_guard lock(deviceMutex_);
    Status s = connectedLocked("Get info");
    return s.ok() ? getCameraInfoLocked(id, value) : s;
}

Status Camera::getCameraInfoLocked(uint32_t id, uint32_t& value) {
    Connection& c = *connection_;
    int64_t v = 0;
    Status s;
    switch (id) {
        case ORVIX_IMAGE_WIDTH:
            s = c.getInteger("Width", v, id);
            break;
        case ORVIX_IMAGE_HEIGHT:
            s = c.getInteger("Height", v, id);
            break;
        case ORVIX_IMAGE_OFFSET_X:
            s = c.getInteger("OffsetX", v, id);
            break;
        case ORVIX_IMAGE_TYPE:
        case ORVIX_DATA_FORMAT:
        case ORVIX_BAYER_PATTERN: {
            GError* error = nullptr;
            const uint32_t pfnc = arv_camera_get_pixel_format(c.camera(), &error);
            s = c.take(error, "Get " + describeParameter(id), id);
            if (!s.ok()) {
                return s;
            }
            uint32_t colour = 1;
            {
                std::lock_guard lock(stateMutex_);
                colour = colourType_;
            }
            const std::optional<FrameLayout> layout = layoutOf(pfnc, colour);
            if (!layout) {
                return Status::fail(ORVIX_ERR_REFUSED,
                                    "Get " + describeParameter(id) +
                                        ": the camera's pixel format " + pixelFormatName(pfnc) +
                                        " is not supported",
                                    id);
            }
            v = id == ORVIX_IMAGE_TYPE    ? layout->imageType
                : id == ORVIX_DATA_FORMAT ? layout->dataFormat
                                          : layout->bayer;
            break;
        }
        case ORVIX_SCAN_TYPE: {
            if (!c.implemented("DeviceScanType")) {
                v = 0;
                break;
            }
            std::string scan;
            s = c.getString("DeviceScanType", scan, id);
            v = scan == "Linescan" ? 1 : 0;
            break;
        }
        case ORVIX_BOARD_TRIGGER_MODE: {
            if (c.implemented("TriggerSelector")) {
                c.setString("TriggerSelector", "FrameStart", id);
            }
            std::string mode;
            s = c.getString("TriggerMode", mode, id);
            v = mode == "On" ? 1 : 0;
            break;
        }
        case ORVIX_BOARD_TRIGGER_SOURCE: {
            if (c.implemented("TriggerSelector")) {
                c.setString("TriggerSelector", "FrameStart", id);
            }
            std::string source;
            s = c.getString("TriggerSource", source, id);
            uint32_t number = 0;
            if (s.ok() && !triggerSourceValue(source, number)) {
                return Status::fail(ORVIX_ERR_REFUSED,
                                    "Get " + describeParameter(id) + ": the trigger source " +
                                        source + " has no number here",
                                    id);
            }
            v = number;
            break;
        }
        case ORVIX_INTEGRATION_PARAM1: {
            GError* error = nullptr;
            const double us = arv_camera_get_exposure_time(c.camera(), &error);
            s = c.take(error, "Get " + describeParameter(id), id);
            v = static_cast<int64_t>(std::llround(us));
            break;
        }
        default:
            return lacks("Get", id);
    }
    if (!s.ok()) {
        if (s.code == ORVIX_ERR_INVALID_PARAMETER) {
            return lacks("Get", id);
        }
        return s;
    }
    value = static_cast<uint32_t>(v);
    return Status::success();
}

Status Camera::setInfo(uint32_t id, uint32_t value) {
    if (readOnly(id)) {
        return Status::fail(ORVIX_ERR_REFUSED,
                            "Set " + describeParameter(id) + ": the parameter is read-only", id);
    }
    {
        std::lock_guard lock(stateMutex_);
        if (frozenWhileGrabbing(id) && grab_ != GrabKind::kIdle) {
            return Status::fail(ORVIX_ERR_GRAB_RUNNING,
                                "Set " + describeParameter(id) + ": not while a grab is running",
                                id);
        }
        switch (id) {
            case ORVIX_BUFFER_COUNT:
                if (value < 1 || value > kMaxBuffers) {
                    return outOfRange(id, value, "1..256");
                }
                bufferCount_ = value;
                return Status::success();
            case ORVIX_ACQUISITION_MODE:
                if (value > 3) {
                    return outOfRange(id, value, "0..3");
                }
                acquisitionMode_ = value;
                return Status::success();
            case ORVIX_GRAB_CONTINUOUS:
                if (value > 1) {
                    return outOfRange(id, value, "0..1");
                }
                grabContinuous_ = value;
                return Status::success();
            case ORVIX_EXTERNAL_TRIGGER_TIMEOUT:
                triggerTimeoutMs_ = value;
                return Status::success();
            case ORVIX_TAP_NUMBER:
                return value == 1 ? Status::success()
                                  : outOfRange(id, value, "a camera sends 1 tap");
            case ORVIX_INTEGRATION_METHOD:
                return value == 0 ? Status::success()
                                  : outOfRange(id, value, "0: exposure time in param1");
            case ORVIX_JPEG_COMPRESS_ENABLE:
                return value == 0 ? Status::success()
                                  : Status::fail(ORVIX_ERR_REFUSED,
                                                 "Set " + describeParameter(id) +
                                                     ": the camera has no JPEG encoder",
                                                 id);
            case ORVIX_SOFTWARE_TRIGGER_FIRE:
                if (value == 0) {
                    return Status::success();
                }
                if (value != 1) {
                    return outOfRange(id, value, "0..1");
                }
                break;
            default:
                break;
        }
    }
    std::lock_guard lock(deviceMutex_);
    Status s = connectedLocked("Set info");
    return s.ok() ? setCameraInfoLocked(id, value) : s;
}

Status Camera::setGeometryLocked(const char* feature, uint32_t id, uint32_t value) {
    int64_t min = 0, max = 0, inc = 1;
    Status s = connection_->integerBounds(feature, min, max, inc, id);
    if (!s.ok()) {
        return s.code == ORVIX_ERR_INVALID_PARAMETER ? lacks("Set", id) : s;
    }
    if (value < min || value > max) {
        return outOfRange(id, value, std::to_string(min) + ".." + std::to_string(max));
    }
    // Values between the camera's steps go down to the step below, as a board rounds widths.
    const int64_t v = min + (static_cast<int64_t>(value) - min) / inc * inc;
    return connection_->setInteger(feature, v, id);
}

Status Camera::setFormatLocked(uint32_t id, uint32_t value) {
    ArvCamera* camera = connection_->camera();
    GError* error = nullptr;
    const uint32_t current = arv_camera_get_pixel_format(camera, &error);
    Status s = connection_->take(error, "Set " + describeParameter(id), id);
    if (!s.ok()) {
        return s;
    }
    guint n = 0;
    gint64* codes = arv_camera_dup_available_pixel_formats(camera, &n, &error);
    s = connection_->take(error, "Set " + describeParameter(id), id);
    const std::vector<int64_t> available(codes, codes + (codes != nullptr ? n : 0));
    g_free(codes);
    if (!s.ok()) {
        return s;
    }
    uint32_t colour = 1;
    {
        std::lock_guard lock(stateMutex_);
        colour = colourType_;
    }
    FormatChoice choice;
    s = chooseFormat(current, colour, id, value, available, choice);
    if (!s.ok()) {
        return s;
    }
    if (choice.pfnc != current) {
        arv_camera_set_pixel_format(camera, choice.pfnc, &error);
        s = connection_->take(
            error,
            "Set " + describeParameter(id) + " (PixelFormat " + pixelFormatName(choice.pfnc) + ")",
            id);
        if (!s.ok()) {
            return s;
        }
    }
    std::lock_guard lock(stateMutex_);
    colourType_ = choice.colourType;
    return Status::success();
}

Status Camera::setCameraInfoLocked(uint32_t id, uint32_t value) {
    Connection& c = *connection_;
    Status s;
    switch (id) {
        case ORVIX_IMAGE_WIDTH:
            return setGeometryLocked("Width", id, value);
        case ORVIX_IMAGE_HEIGHT:
            return setGeometryLocked("Height", id, value);
        case ORVIX_IMAGE_OFFSET_X:
            return setGeometryLocked("OffsetX", id, value);
        case ORVIX_IMAGE_TYPE:
        case ORVIX_DATA_FORMAT:
        case ORVIX_BAYER_PATTERN:
            return setFormatLocked(id, value);
        case ORVIX_SCAN_TYPE:
            if (value > 1) {
                return outOfRange(id, value, "0 area scan, 1 line scan");
            }
            if (!c.implemented("DeviceScanType")) {
                return value == 0 ? Status::success()
                                  : outOfRange(id, value, "the camera scans areas only");
            }
            s = c.setString("DeviceScanType", value == 1 ? "Linescan" : "Areascan", id);
            break;
        case ORVIX_BOARD_TRIGGER_MODE:
            if (value > 1) {
                return outOfRange(id, value, "0 free running, 1 triggered");
            }
            if (c.implemented("TriggerSelector")) {
                c.setString("TriggerSelector", "FrameStart", id);
            }
            s = c.setString("TriggerMode", value == 1 ? "On" : "Off", id);
            break;
        case ORVIX_BOARD_TRIGGER_SOURCE: {
            const std::string name = triggerSourceName(value);
            GError* error = nullptr;
            const bool exists = arv_device_is_enumeration_entry_available(
                c.device(), "TriggerSource", name.c_str(), &error);
            s = c.take(error, "Set " + describeParameter(id), id);
            if (s.ok() && !exists) {
                return outOfRange(id, value, name + " is not a trigger source of this camera");
            }
            if (s.ok()) {
                if (c.implemented("TriggerSelector")) {
                    c.setString("TriggerSelector", "FrameStart", id);
                }
                s = c.setString("TriggerSource", name, id);
            }
            break;
        }
        case ORVIX_SOFTWARE_TRIGGER_FIRE:
            s = c.execute("TriggerSoftware", id);
            break;
        case ORVIX_INTEGRATION_PARAM1: {
            GError* error = nullptr;
            double min = 0, max = 0;
            arv_camera_get_exposure_time_bounds(c.camera(), &min, &max, &error);
            s = c.take(error, "Set " + describeParameter(id), id);
            if (s.ok() && (value < min || value > max)) {
                return outOfRange(id, value,
                                  std::to_string(std::llround(std::ceil(min))) + ".." +
                                      std::to_string(std::llround(std::floor(max))) + " us");
            }
            if (s.ok()) {
                arv_camera_set_exposure_time(c.camera(), value, &error);
                s = c.take(error, "Set " + describeParameter(id), id);
            }
            break;
        }
        default:
            return lacks("Set", id);
    }
    if (!s.ok() && s.code == ORVIX_ERR_INVALID_PARAMETER) {
        return lacks("Set", id);
    }
    return s;
}

// ---- callbacks ----

Status Camera::registerCallback(uint32_t event, OrvixCallback function, void* context) {
    return callbacks_.add(event, function, context);
}

Status Camera::unregisterCallback(uint32_t event) {
    return callbacks_.remove(event);
}

// ---- grabs ----

bool Camera::cameraSilent() const {
    std::lock_guard lock(stateMutex_);
    const auto& a = session_.acquisition;
    return grab_ == GrabKind::kContinuous && a && !a->setup().triggered &&
           a->silentFor() > a->setup().silenceLimit;
}

int32_t Camera::cameraStatus() const {
    if (linkLost() || suspect_ || cameraSilent()) {
        return 0;
    }
    // A camera's link stands for the CameraLink signals a board watches.
    return static_cast<int32_t>(ORVIX_CL_PIXEL_CLOCK | ORVIX_CL_FRAME_VALID | ORVIX_CL_LINE_VALID);
}

double Camera::frameRate() const {
    if (cameraSilent()) {
        return 0.0;
    }
    std::lock_guard lock(stateMutex_);
    return grab_ == GrabKind::kContinuous && session_.acquisition ? session_.acquisition->rate()
                                                                  : 0.0;
}

void Camera::finishSession(Session session, bool cameraSuspect) {
    if (session.acquisition == nullptr) {
        return;
    }
    std::unique_lock lock(deviceMutex_);
    if (!cameraSuspect && connection_) {
        GError* error = nullptr;
        arv_camera_stop_acquisition(connection_->camera(), &error);
        connection_->take(error, "Stop grab");
        if (!connection_->lost()) {
            g_object_unref(session.stream);  // joins the stream's thread
            return;
        }
    }
    // The camera may be gone: its stream and its connection are let go in the background, and
    // the next use connects anew.
    std::shared_ptr<Connection> old = std::move(connection_);
    suspect_ = true;
    ArvStream* stream = session.stream;
    std::shared_ptr<Acquisition> acquisition = std::move(session.acquisition);
    reaper_.post([old, stream, acquisition] {
        if (old) {
            GError* error = nullptr;
            arv_camera_stop_acquisition(old->camera(), &error);
            g_clear_error(&error);
        }
        g_object_unref(stream);
    });
}

void Camera::finishPendingLocked() {
    Session pending;
    {
        std::lock_guard lock(stateMutex_);
        pending = std::move(pending_);
        pending_ = Session{};
    }
    if (pending.acquisition) {
        pending.acquisition->join();
        finishSession(std::move(pending), linkLost());
    }
}

Status Camera::startGrab(uint32_t frameCount) {
    if (frameCount > 1) {
        return Status::fail(ORVIX_ERR_INVALID_ARGUMENT,
                            "Start grab: a camera grabs one frame (1) or until stopped (0), not " +
                                std::to_string(frameCount));
    }
    if (onDeliveryThread()) {
        return Status::fail(ORVIX_ERR_REFUSED, "Start grab: not possible from inside a callback");
    }
    const bool single = frameCount == 1;
    std::unique_lock command(commandMutex_);
    {
        std::lock_guard lock(stateMutex_);
        if (closed_) {
            return Status::fail(ORVIX_ERR_NO_BOARD_SELECTED, "Start grab: the camera is closed");
        }
        if (grab_ == GrabKind::kSingle) {
            return Status::fail(ORVIX_ERR_SINGLE_SHOT_RUNNING,
                                "Start grab: a single shot is running");
        }
        if (grab_ == GrabKind::kContinuous) {
            return Status::fail(ORVIX_ERR_GRAB_RUNNING, "Start grab: a grab is already running");
        }
    }
    finishPendingLocked();

    Session session;
    GrabSetup setup;
    uint32_t triggerTimeoutMs = 0;
    Status refused;
    {
        std::lock_guard device(deviceMutex_);
        Status s = connectedLocked("Start grab");
        if (!s.ok()) {
            return s;
        }
        Connection& c = *connection_;
        s = frameLayoutLocked(setup.width, setup.height, setup.pfnc);
        if (!s.ok()) {
            return s;
        }
        const PixelFormatInfo* format = findPixelFormat(setup.pfnc);
        if (format == nullptr) {
            return Status::fail(ORVIX_ERR_REFUSED,
                                "Start grab: the camera's pixel format " +
                                    pixelFormatName(setup.pfnc) +
                                    " is not supported; choose one with the image type, data "
                                    "format and bayer pattern");
        }
        setup.frameBytes = uint64_t{setup.width} * setup.height * format->bytesPerPixel;
        setup.single = single;
        if (c.implemented("TriggerMode")) {
            if (c.implemented("TriggerSelector")) {
                c.setString("TriggerSelector", "FrameStart", 0);
            }
            std::string mode;
            setup.triggered = c.getString("TriggerMode", mode, 0).ok() && mode == "On";
        }
        // Slow cameras (long exposures, low rates) are given three of their frame times.
        GError* error = nullptr;
        double period = 0.0;
        if (c.implemented("AcquisitionFrameRate")) {
            const double fps = arv_camera_get_frame_rate(c.camera(), &error);
            c.take(error, "Start grab: get AcquisitionFrameRate");
            period = fps > 0 ? 1.0 / fps : 0.0;
        }
        const double exposure = arv_camera_get_exposure_time(c.camera(), &error) / 1e6;
        c.take(error, "Start grab: get the exposure time");
        setup.silenceLimit = std::max<std::chrono::nanoseconds>(
            options_.silenceLimit,
            std::chrono::duration_cast<std::chrono::nanoseconds>(
                std::chrono::duration<double>(3 * std::max(period, exposure))));
        uint32_t buffers = 8;
        {
            std::lock_guard lock(stateMutex_);
            buffers = bufferCount_;
            setup.swapRedBlue = swapsRedBlue(setup.pfnc, colourType_);
            triggerTimeoutMs = triggerTimeoutMs_;
        }
        const guint payload = arv_camera_get_payload(c.camera(), &error);
        s = c.take(error, "Start grab: get PayloadSize");
        if (!s.ok()) {
            return s;
        }
        ring_.allocate(buffers, std::max<size_t>(payload, setup.frameBytes));

        session.acquisition = std::make_shared<Acquisition>(ring_, callbacks_, setup);
        session.stream = arv_camera_create_stream(c.camera(), &Acquisition::onStream,
                                                  session.acquisition.get(), &error);
        s = c.take(error, "Start grab: open the stream");
        if (!s.ok() || session.stream == nullptr) {
            return s.ok() ? Status::fail(ORVIX_ERR_REFUSED, "Start grab: no stream") : s;
        }
        session.acquisition->start(session.stream);
        if (c.implemented("AcquisitionMode")) {
            arv_camera_set_acquisition_mode(c.camera(), ARV_ACQUISITION_MODE_CONTINUOUS, &error);
            c.take(error, "Start grab: set AcquisitionMode");
        }
        arv_camera_start_acquisition(c.camera(), &error);
        refused = c.take(error, "Start grab");
    }
    if (!refused.ok()) {
        // Joined without the device lock: a callback may be asking the camera something.
        session.acquisition->requestStop();
        session.acquisition->join();
        std::lock_guard device(deviceMutex_);
        g_object_unref(session.stream);
        return refused;
    }
    std::shared_ptr<Acquisition> acquisition = session.acquisition;
    {
        std::lock_guard lock(stateMutex_);
        grab_ = single ? GrabKind::kSingle : GrabKind::kContinuous;
        session_ = std::move(session);
        last_ = acquisition;
    }
    if (!single) {
        return Status::success();
    }

    // The single shot waits without the command lock, so that a stop can abort it.
    command.unlock();
    const auto now = std::chrono::steady_clock::now();
    const auto deadline = !setup.triggered ? now + options_.singleShotTimeout
                          : triggerTimeoutMs != 0
                              ? now + std::chrono::milliseconds(triggerTimeoutMs)
                              : std::chrono::steady_clock::time_point::max();
    const Acquisition::Outcome outcome = acquisition->awaitFirst(deadline, *lostFlag_.load());
    command.lock();
    Session taken;
    {
        std::lock_guard lock(stateMutex_);
        taken = std::move(session_);
        session_ = Session{};
    }
    taken.acquisition->requestStop();
    taken.acquisition->join();
    // Without its frame the camera may be gone: stopping it must not wait on that here.
    finishSession(std::move(taken), linkLost() || outcome == Acquisition::Outcome::kFailed);
    {
        std::lock_guard lock(stateMutex_);
        grab_ = GrabKind::kIdle;
    }
    stateChanged_.notify_all();
    switch (outcome) {
        case Acquisition::Outcome::kDone:
            return Status::success();
        case Acquisition::Outcome::kAborted:
            return Status::fail(ORVIX_ERR_GRAB_ABORTED, "Single shot aborted by a stop");
        default:
            return Status::fail(ORVIX_ERR_TIMEOUT, "Single shot: " + acquisition->failure());
    }
}

Status Camera::stopGrab() {
    {
        std::lock_guard lock(stateMutex_);
        if (grab_ == GrabKind::kSingle && session_.acquisition) {
            session_.acquisition->abort();
            return Status::success();
        }
        if (grab_ == GrabKind::kContinuous && session_.acquisition->onDeliveryThread()) {
            // From inside its own callback: no further event once this returns; the camera is
            // stopped by the next start or the close.
            session_.acquisition->requestStop();
            pending_ = std::move(session_);
            session_ = Session{};
            grab_ = GrabKind::kIdle;
            stateChanged_.notify_all();
            return Status::success();
        }
    }
    std::lock_guard command(commandMutex_);
    const bool suspect = linkLost() || cameraSilent();
    Session taken;
    {
        std::lock_guard lock(stateMutex_);
        if (grab_ == GrabKind::kSingle && session_.acquisition) {
            session_.acquisition->abort();
            return Status::success();
        }
        if (grab_ != GrabKind::kContinuous) {
            return Status::success();  // stopping an idle camera succeeds
        }
        taken = std::move(session_);
        session_ = Session{};
        grab_ = GrabKind::kIdle;
    }
    stateChanged_.notify_all();
    taken.acquisition->requestStop();
    taken.acquisition->join();
    finishSession(std::move(taken), suspect);
    return Status::success();
}

void Camera::shutdown() {
    if (onDeliveryThread()) {
        return;
    }
    {
        std::unique_lock lock(stateMutex_);
        closed_ = true;
        if (grab_ == GrabKind::kSingle && session_.acquisition) {
            session_.acquisition->abort();
        }
        // The single shot's own thread ends it.
        stateChanged_.wait(lock, [&] { return grab_ != GrabKind::kSingle; });
    }
    stopGrab();
    std::lock_guard command(commandMutex_);
    finishPendingLocked();
}

Status Camera::bufferAddress(uint32_t index, void*& address) {
    if (ring_.count() == 0) {
        Status s;
        const uint64_t bytes = frameBytes(s);
        uint32_t buffers = 8;
        {
            std::lock_guard lock(stateMutex_);
            buffers = bufferCount_;
        }
        std::lock_guard command(commandMutex_);
        if (ring_.count() == 0) {
            // Before the first grab the ring is sized for the current frame.
            ring_.allocate(buffers, s.ok() && bytes != 0 ? bytes : 1);
        }
    }
    return ring_.address(index, address);
}

Status Camera::bufferStatus(uint32_t index, OrvixBufferStatus& status) {
    void* address = nullptr;
    if (ring_.count() == 0) {
        Status s = bufferAddress(0, address);
        if (!s.ok()) {
            return s;
        }
    }
    return ring_.status(index, status);
}

// ---- registers ----

Status Camera::readRegister(uint32_t address, uint32_t& value) {
    char hex[16];
    std::snprintf(hex, sizeof hex, "0x%08X", address);
    if (address % 4 != 0) {
        return Status::fail(
            ORVIX_ERR_REGISTER_UNALIGNED,
            std::string("Read register ") + hex + ": the address is not a multiple of 4", address);
    }
    std::lock_guard lock(deviceMutex_);
    Status s = connectedLocked("Read register");
    if (!s.ok()) {
        return s;
    }
    GError* error = nullptr;
    guint32 v = 0;
    arv_device_read_register(connection_->device(), address, &v, &error);
    s = connection_->take(error, std::string("Read register ") + hex, address);
    value = v;
    return s;
}

Status Camera::writeRegister(uint32_t address, uint32_t value) {
    char hex[16];
    std::snprintf(hex, sizeof hex, "0x%08X", address);
    if (address % 4 != 0) {
        return Status::fail(
            ORVIX_ERR_REGISTER_UNALIGNED,
            std::string("Write register ") + hex + ": the address is not a multiple of 4", address);
    }
    std::lock_guard lock(deviceMutex_);
    Status s = connectedLocked("Write register");
    if (!s.ok()) {
        return s;
    }
    GError* error = nullptr;
    arv_device_write_register(connection_->device(), address, value, &error);
    const bool protectedRegister = error != nullptr && error->domain == ARV_DEVICE_ERROR &&
                                   (error->code == ARV_DEVICE_ERROR_PROTOCOL_ERROR_WRITE_PROTECT ||
                                    error->code == ARV_DEVICE_ERROR_PROTOCOL_ERROR_ACCESS_DENIED);
    return connection_->take(error, std::string("Write register ") + hex, address,
                             protectedRegister ? ORVIX_ERR_REGISTER_READ_ONLY : ORVIX_ERR_REFUSED);
}

// ---- configuration files ----

Status Camera::saveConfiguration(const std::string& path) {
    if (onDeliveryThread()) {
        return Status::fail(ORVIX_ERR_REFUSED,
                            "Save configuration: not possible from inside a callback");
    }
    CameraDump dump;
    {
        std::lock_guard lock(deviceMutex_);
        Status s = connectedLocked("Save configuration");
        if (!s.ok()) {
            return s;
        }
        s = collectFeatures(*connection_, dump.features);
        if (!s.ok()) {
            return s;
        }
    }
    dump.vendor = identity_.vendor;
    dump.model = identity_.model;
    {
        std::lock_guard lock(stateMutex_);
        dump.buffers = bufferCount_;
        dump.colour = colourType_;
    }
    return writeFileAtomically(path, serializeDump(dump));
}

Status Camera::loadConfiguration(const std::string& path) {
    if (onDeliveryThread()) {
        return Status::fail(ORVIX_ERR_REFUSED,
                            "Load configuration: not possible from inside a callback");
    }
    std::lock_guard command(commandMutex_);
    {
        std::lock_guard lock(stateMutex_);
        if (grab_ != GrabKind::kIdle) {
            return Status::fail(ORVIX_ERR_GRAB_RUNNING,
                                "Load configuration: not while a grab is running");
        }
    }
    std::ifstream in(path, std::ios::binary);
    if (!in) {
        return Status::fail(ORVIX_ERR_FILE_IO,
                            "Load configuration '" + path + "': " + std::strerror(errno));
    }
    const std::string text(std::istreambuf_iterator<char>(in), {});
    if (in.bad()) {
        return Status::fail(ORVIX_ERR_FILE_IO, "Load configuration '" + path + "': read error");
    }
    CameraDump dump;
    Status s = parseDump(text, dump);
    if (!s.ok()) {
        return s;
    }
    if (dump.vendor != identity_.vendor || dump.model != identity_.model) {
        return Status::fail(ORVIX_ERR_INVALID_ARGUMENT,
                            "Load configuration: the file is for the camera '" + dump.vendor + " " +
                                dump.model + "', not for '" + identity_.name() + "'");
    }
    std::lock_guard lock(deviceMutex_);
    s = connectedLocked("Load configuration");
    if (!s.ok()) {
        return s;
    }
    s = checkFeatures(*connection_, dump.features);
    if (!s.ok()) {
        return s;
    }
    std::vector<FeatureValue> before;
    s = collectFeatures(*connection_, before);
    if (!s.ok()) {
        return s;
    }
    s = writeFeatures(*connection_, dump.features);
    if (!s.ok()) {
        // A refused value leaves the camera as it was: the old values go back.
        writeFeatures(*connection_, before);
        return s;
    }
    std::lock_guard state(stateMutex_);
    bufferCount_ = dump.buffers;
    colourType_ = dump.colour;
    return Status::success();
}

}  // namespace orvix::aravis
