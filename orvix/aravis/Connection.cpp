#include "Connection.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <charconv>
#include <cstdio>
#include <mutex>

#include "ConfigurationDump.h"

namespace orvix::aravis {
namespace {

// Aravis calls the handler on its heartbeat thread, which exists before the handler's data does;
// GLib's own locks order the two, but tools that check threads cannot see them: this one can.
std::mutex& handlerMutex() {
    static std::mutex m;
    return m;
}

void onControlLost(ArvDevice*, gpointer data) {
    std::lock_guard lock(handlerMutex());
    (*static_cast<std::shared_ptr<std::atomic<bool>>*>(data))->store(true);
}

void freeHandlerData(gpointer data, GClosure*) {
    std::lock_guard lock(handlerMutex());
    delete static_cast<std::shared_ptr<std::atomic<bool>>*>(data);
}

bool isTimeout(const GError* error) {
    return error != nullptr && error->domain == ARV_DEVICE_ERROR &&
           (error->code == ARV_DEVICE_ERROR_TIMEOUT ||
            error->code == ARV_DEVICE_ERROR_NOT_CONNECTED);
}

std::string readString(ArvDevice* device, const char* feature) {
    GError* error = nullptr;
    if (!arv_device_is_feature_available(device, feature, &error)) {
        g_clear_error(&error);
        return {};
    }
    const char* value = arv_device_get_string_feature_value(device, feature, &error);
    g_clear_error(&error);
    return value != nullptr ? value : "";
}

}  // namespace

bool gigeCameraAnswers(const std::string& id, std::chrono::milliseconds wait) {
    sockaddr_in camera{};
    camera.sin_family = AF_INET;
    camera.sin_port = htons(3956);  // GigE Vision control
    if (::inet_pton(AF_INET, id.c_str(), &camera.sin_addr) != 1) {
        return true;
    }
    const int fd = ::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (fd < 0) {
        return true;
    }
    // Key 0x42, acknowledge wanted, READREG, 4 bytes: bootstrap register 0 (the version). Sent
    // three times within the wait, as a datagram may be lost.
    const uint8_t request[12] = {0x42, 0x01, 0x00, 0x80, 0x00, 0x04, 0x4F, 0x52, 0, 0, 0, 0};
    bool answered = false;
    for (int attempt = 0; attempt < 3 && !answered; ++attempt) {
        if (::sendto(fd, request, sizeof request, 0, reinterpret_cast<const sockaddr*>(&camera),
                     sizeof camera) != static_cast<ssize_t>(sizeof request)) {
            break;
        }
        const auto deadline = std::chrono::steady_clock::now() + wait / 3;
        while (!answered) {
            const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
                deadline - std::chrono::steady_clock::now());
            pollfd p{fd, POLLIN, 0};
            if (left.count() <= 0 || ::poll(&p, 1, static_cast<int>(left.count())) != 1) {
                break;
            }
            uint8_t reply[64];
            const ssize_t n = ::recv(fd, reply, sizeof reply, 0);
            // READREG_ACK to our request id.
            answered = n >= 8 && reply[2] == 0x00 && reply[3] == 0x81 && reply[6] == 0x4F &&
                       reply[7] == 0x52;
        }
    }
    ::close(fd);
    return answered;
}

uint32_t versionWordOf(const std::string& version) {
    uint32_t parts[2] = {0, 0};
    const char* p = version.data();
    const char* end = version.data() + version.size();
    for (uint32_t& part : parts) {
        while (p != end && (*p < '0' || *p > '9')) {
            ++p;
        }
        if (p == end) {
            break;
        }
        auto [next, ec] = std::from_chars(p, end, part);
        if (ec != std::errc()) {
            part = 0;
        }
        p = next;
        if (p != end && *p == '.') {
            ++p;
        } else {
            break;
        }
    }
    return (kCameraModelCode << 16) | ((parts[0] & 0xFF) << 8) | (parts[1] & 0xFF);
}

uint32_t serialWordOf(const std::string& serial) {
    uint32_t value = 0;
    auto [p, ec] = std::from_chars(serial.data(), serial.data() + serial.size(), value);
    if (!serial.empty() && ec == std::errc() && p == serial.data() + serial.size()) {
        return value;
    }
    return crc32Of(serial);
}

Status Connection::open(const std::string& id, std::unique_ptr<Connection>& out) {
    if (!gigeCameraAnswers(id, kAnswerWait)) {
        return Status::fail(ORVIX_ERR_OPEN_FAILED, "Open: camera " + id + " does not answer");
    }
    GError* error = nullptr;
    ArvCamera* camera = arv_camera_new(id.c_str(), &error);
    if (camera == nullptr) {
        std::string why = error != nullptr ? error->message : "no such camera";
        g_clear_error(&error);
        return Status::fail(ORVIX_ERR_OPEN_FAILED,
                            "Open: camera " + id + " does not answer (" + why + ")");
    }
    std::unique_ptr<Connection> c(new Connection());
    c->camera_ = camera;
    ArvDevice* device = arv_camera_get_device(camera);
    // Values out of a feature's range are refused by Aravis, as the camera would.
    arv_device_set_range_check_policy(device, ARV_RANGE_CHECK_POLICY_ENABLE);
    {
        std::lock_guard lock(handlerMutex());
        c->handlerData_ = new std::shared_ptr<std::atomic<bool>>(c->lost_);
    }
    c->lostHandler_ = g_signal_connect_data(device, "control-lost", G_CALLBACK(onControlLost),
                                            c->handlerData_, freeHandlerData, GConnectFlags{});
    c->identity_.vendor = readString(device, "DeviceVendorName");
    c->identity_.model = readString(device, "DeviceModelName");
    c->identity_.serial = readString(device, "DeviceSerialNumber");
    c->identity_.version = readString(device, "DeviceFirmwareVersion");
    if (c->identity_.version.empty()) {
        c->identity_.version = readString(device, "DeviceVersion");
    }
    if (c->identity_.vendor.empty() && c->identity_.model.empty()) {
        return Status::fail(ORVIX_ERR_OPEN_FAILED,
                            "Open: camera " + id + " does not tell its vendor and model");
    }
    out = std::move(c);
    return Status::success();
}

Connection::~Connection() {
    if (camera_ != nullptr) {
        if (lostHandler_ != 0) {
            g_signal_handler_disconnect(arv_camera_get_device(camera_), lostHandler_);
        }
        g_object_unref(camera_);
    }
}

Status Connection::take(GError*& error, const std::string& what, uint32_t subject, int32_t code) {
    if (error == nullptr) {
        return Status::success();
    }
    if (isTimeout(error)) {
        markLost();
        code = ORVIX_ERR_TIMEOUT;
    } else if ((error->domain == ARV_DEVICE_ERROR &&
                error->code == ARV_DEVICE_ERROR_FEATURE_NOT_FOUND) ||
               (error->domain == ARV_GC_ERROR && error->code == ARV_GC_ERROR_NODE_NOT_FOUND)) {
        code = ORVIX_ERR_INVALID_PARAMETER;
    } else if (error->domain == ARV_GC_ERROR && error->code == ARV_GC_ERROR_OUT_OF_RANGE) {
        code = ORVIX_ERR_OUT_OF_RANGE;
    }
    Status s = Status::fail(code, what + ": " + error->message, subject);
    g_clear_error(&error);
    return s;
}

bool Connection::implemented(const char* feature) {
    GError* error = nullptr;
    const bool yes = arv_device_is_feature_implemented(device(), feature, &error);
    if (isTimeout(error)) {
        markLost();
    }
    g_clear_error(&error);
    return yes;
}

Status Connection::getInteger(const char* feature, int64_t& value, uint32_t subject) {
    GError* error = nullptr;
    value = arv_device_get_integer_feature_value(device(), feature, &error);
    return take(error, std::string("Get ") + feature, subject);
}

Status Connection::setInteger(const char* feature, int64_t value, uint32_t subject) {
    GError* error = nullptr;
    arv_device_set_integer_feature_value(device(), feature, value, &error);
    return take(error, std::string("Set ") + feature + " to " + std::to_string(value), subject);
}

Status Connection::integerBounds(const char* feature, int64_t& min, int64_t& max, int64_t& inc,
                                 uint32_t subject) {
    GError* error = nullptr;
    arv_device_get_integer_feature_bounds(device(), feature, &min, &max, &error);
    if (error == nullptr) {
        inc = arv_device_get_integer_feature_increment(device(), feature, &error);
    }
    if (inc < 1) {
        inc = 1;
    }
    return take(error, std::string("Get the range of ") + feature, subject);
}

Status Connection::getString(const char* feature, std::string& value, uint32_t subject) {
    GError* error = nullptr;
    const char* text = arv_device_get_string_feature_value(device(), feature, &error);
    value = text != nullptr ? text : "";
    return take(error, std::string("Get ") + feature, subject);
}

Status Connection::setString(const char* feature, const std::string& value, uint32_t subject) {
    GError* error = nullptr;
    arv_device_set_string_feature_value(device(), feature, value.c_str(), &error);
    return take(error, std::string("Set ") + feature + " to " + value, subject);
}

Status Connection::execute(const char* feature, uint32_t subject) {
    GError* error = nullptr;
    arv_device_execute_command(device(), feature, &error);
    return take(error, std::string("Execute ") + feature, subject);
}

}  // namespace orvix::aravis
