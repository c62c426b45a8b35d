// One connection to a camera through Aravis: the ArvCamera, the camera's identity, and a flag
// that goes up when Aravis reports the control link lost (no heartbeat answer) or a request times
// out. Feature access turns Aravis's errors into the library's codes.
// Thread: not thread-safe: the owner serialises every call (GenICam evaluation is not
// reentrant); lost() may be read from any thread.
#pragma once

#include <arv.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <memory>
#include <string>

#include "Status.h"

namespace orvix::aravis {

// Model code of every camera (the upper 16 bits of the version word, 0x10000007): 'G' for
// GenICam, clear of the frame grabbers' model codes that switch board-specific rules on.
inline constexpr uint32_t kCameraModelCode = 0x47;

struct Identity {
    std::string vendor;
    std::string model;
    std::string serial;   // DeviceSerialNumber
    std::string version;  // DeviceFirmwareVersion, else DeviceVersion
    std::string name() const { return vendor + " " + model; }
};

// 0x10000007: the model code, then the first two numbers of the version text, one byte each.
uint32_t versionWordOf(const std::string& version);
// 0x20000001: a serial number that is a decimal number is kept as it is; any other text gives
// its CRC-32, the same for the same camera every time.
uint32_t serialWordOf(const std::string& serial);

// Whether a GigE Vision camera answers at this IPv4 address: one register read by hand, so that
// a camera that is gone is known at once instead of after Aravis's time-outs (seconds). True for
// anything that is not an IPv4 address: it cannot be asked this way.
bool gigeCameraAnswers(const std::string& id, std::chrono::milliseconds wait);
inline constexpr std::chrono::milliseconds kAnswerWait{750};

class Connection {
  public:
    // Connects to the camera named by an IP address or an Aravis device id. An IP address is
    // reached directly; only a device id that Aravis does not know yet makes it search.
    static Status open(const std::string& id, std::unique_ptr<Connection>& out);
    ~Connection();  // may wait for network time-outs when the camera is gone
    Connection(const Connection&) = delete;
    Connection& operator=(const Connection&) = delete;

    ArvCamera* camera() const { return camera_; }
    ArvDevice* device() const { return arv_camera_get_device(camera_); }
    const Identity& identity() const { return identity_; }

    bool lost() const { return lost_->load(); }
    std::shared_ptr<std::atomic<bool>> lostFlag() const { return lost_; }
    void markLost() { lost_->store(true); }

    // Turns an Aravis error into a Status ("what: message"); time-outs mark the link lost.
    // Takes the error (and clears it); success when there is none.
    Status take(GError*& error, const std::string& what, uint32_t subject = 0,
                int32_t code = ORVIX_ERR_REFUSED);

    bool implemented(const char* feature);
    Status getInteger(const char* feature, int64_t& value, uint32_t subject);
    Status setInteger(const char* feature, int64_t value, uint32_t subject);
    Status integerBounds(const char* feature, int64_t& min, int64_t& max, int64_t& inc,
                         uint32_t subject);
    Status getString(const char* feature, std::string& value, uint32_t subject);
    Status setString(const char* feature, const std::string& value, uint32_t subject);
    Status execute(const char* feature, uint32_t subject);

  private:
    Connection() = default;

    ArvCamera* camera_ = nullptr;
    gulong lostHandler_ = 0;
    // Shared with the signal handler, which Aravis may call on its heartbeat thread.
    std::shared_ptr<std::atomic<bool>> lost_ = std::make_shared<std::atomic<bool>>(false);
    std::shared_ptr<std::atomic<bool>>* handlerData_ = nullptr;
    Identity identity_;
};

}  // namespace orvix::aravis
