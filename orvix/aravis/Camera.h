// One open camera behind the board-library ABI: the board's parameters mapped onto the camera's
// GenICam features, the ring and the grabs, the camera status, registers and configuration files.
// See README.md for the mapping.
//
// Locks, always taken in this order and never held while waiting for a grab's thread:
// commandMutex_ (grab start and stop, configuration loads, closing; never on a delivery thread),
// deviceMutex_ (the connection and every GenICam access), stateMutex_ (the grab state and the
// board-side values).
// Thread: every method from any thread, also from inside the camera's callbacks, except that
// starting a grab, loading or saving a configuration and closing refuse to run there.
#pragma once

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "Acquisition.h"
#include "CallbackRegistry.h"
#include "Connection.h"
#include "Reaper.h"
#include "Status.h"

namespace orvix::aravis {

struct CameraOptions {
    // A free-running single shot waits this long for its frame.
    std::chrono::milliseconds singleShotTimeout{5000};
    // A free-running grab without a frame for this long reports the camera's signals gone.
    std::chrono::milliseconds silenceLimit{2000};
};

class Camera {
  public:
    Camera(std::string id, std::unique_ptr<Connection> connection, Reaper& reaper,
           CameraOptions options = {});
    ~Camera();
    Camera(const Camera&) = delete;
    Camera& operator=(const Camera&) = delete;

    const std::string& id() const { return id_; }
    std::string name() const { return identity_.name(); }

    Status getInfo(uint32_t id, uint32_t& value);
    Status setInfo(uint32_t id, uint32_t value);

    Status registerCallback(uint32_t event, OrvixCallback function, void* context);
    Status unregisterCallback(uint32_t event);

    // frameCount 1: single shot, returns when its frame is in buffer 0 or it failed; 0:
    // continuous until stopped.
    Status startGrab(uint32_t frameCount);
    Status stopGrab();
    Status bufferAddress(uint32_t index, void*& address);
    Status bufferStatus(uint32_t index, OrvixBufferStatus& status);
    int32_t cameraStatus() const;
    double frameRate() const;

    Status loadConfiguration(const std::string& path);
    Status saveConfiguration(const std::string& path);

    Status readRegister(uint32_t address, uint32_t& value);
    Status writeRegister(uint32_t address, uint32_t value);

    // Ends any grab and waits for it; afterwards every grab is refused. Not from a callback.
    void shutdown();
    bool onDeliveryThread() const;

  private:
    enum class GrabKind { kIdle, kSingle, kContinuous };
    struct Session {
        ArvStream* stream = nullptr;
        std::shared_ptr<Acquisition> acquisition;
    };

    // The connection, reconnected first when the link was lost or a grab ended on a silent
    // camera. Caller holds deviceMutex_.
    Status connectedLocked(const char* op);
    Status frameLayoutLocked(uint32_t& width, uint32_t& height, uint32_t& pfnc);
    Status getCameraInfoLocked(uint32_t id, uint32_t& value);
    Status setCameraInfoLocked(uint32_t id, uint32_t value);
    Status setGeometryLocked(const char* feature, uint32_t id, uint32_t value);
    Status setFormatLocked(uint32_t id, uint32_t value);
    uint64_t frameBytes(Status& status);
    // Stops the camera and frees the stream of a session whose delivery has ended; on the
    // reaper when the camera may be gone. Caller holds commandMutex_.
    void finishSession(Session session, bool cameraSuspect);
    void finishPendingLocked();
    bool cameraSilent() const;
    bool linkLost() const { return lostFlag_.load()->load(); }
    void adoptLocked(std::unique_ptr<Connection> connection);

    const std::string id_;
    const Identity identity_;
    Reaper& reaper_;
    const CameraOptions options_;

    std::mutex commandMutex_;
    std::mutex deviceMutex_;
    std::unique_ptr<Connection> connection_;  // guarded by deviceMutex_
    std::atomic<bool> suspect_{false};        // reconnect before the next use
    // The current connection's lost flag, readable without deviceMutex_; every connection's flag
    // is kept so that a reader never sees a freed one.
    std::vector<std::shared_ptr<std::atomic<bool>>> lostFlags_;  // guarded by deviceMutex_
    std::atomic<const std::atomic<bool>*> lostFlag_{nullptr};

    mutable std::mutex stateMutex_;
    std::condition_variable stateChanged_;
    GrabKind grab_ = GrabKind::kIdle;
    bool closed_ = false;
    Session session_;  // the running grab's
    Session pending_;  // a grab stopped from inside its own callback, to finish later
    std::shared_ptr<Acquisition> last_;  // the running or last grab, for its counters
    uint32_t bufferCount_ = 8;
    uint32_t acquisitionMode_ = 0;
    uint32_t grabContinuous_ = 1;
    uint32_t triggerTimeoutMs_ = 5000;
    uint32_t colourType_ = 1;

    Ring ring_;
    CallbackRegistry callbacks_;
};

}  // namespace orvix::aravis
