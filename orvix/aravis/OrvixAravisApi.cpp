// The exported C functions: look up the camera, call it, and keep the last-error record. No C++
// exception may leave through the C boundary.
#include <string>
#include <utility>

#include "AbiGuard.h"
#include "Library.h"
#include "OrvixBoard.h"

using orvix::Status;
using orvix::aravis::Camera;
using orvix::aravis::Library;

namespace {

Library& library() {
    return Library::instance();
}

template <typename Body>
int guarded(int32_t function, Body&& body) {
    return orvix::Guarded(library().errors(), function, std::forward<Body>(body));
}

// Runs `body` on the camera behind `handle`; failures (and exceptions) land in the error record.
template <typename Body>
int withCamera(int32_t function, OrvixHandle handle, Body&& body) {
    return guarded(function, [&] {
        Status s;
        std::shared_ptr<Camera> camera = library().camera(handle, s);
        return camera ? body(*camera) : s;
    });
}

Status noPointer(const char* what) {
    return orvix::NoPointer(what);
}

}  // namespace

extern "C" {

int OrvixGetBoardCount(int32_t boardType, int32_t* count) {
    return guarded(ORVIX_FN_GET_BOARD_COUNT, [&] {
        return count == nullptr ? noPointer("Get board count")
                                : library().boardCount(boardType, *count);
    });
}

OrvixHandle OrvixOpen(int32_t boardType, int32_t index) {
    OrvixHandle handle = ORVIX_INVALID_HANDLE;
    const int ok = guarded(ORVIX_FN_OPEN, [&] { return library().open(boardType, index, handle); });
    return ok == ORVIX_SUCCESS ? handle : ORVIX_INVALID_HANDLE;
}

int OrvixGetBoardName(int32_t boardType, int32_t index, char* name, uint32_t* size) {
    return guarded(ORVIX_FN_GET_BOARD_NAME,
                   [&] { return library().boardName(boardType, index, name, size); });
}

int OrvixClose(OrvixHandle handle) {
    return guarded(ORVIX_FN_CLOSE, [&] { return library().close(handle); });
}

int OrvixGetLastError(OrvixErrorInfo* error, int32_t clear) {
    if (error == nullptr) {
        return 0;  // recording this would destroy the record the caller wanted
    }
    *error = library().errors().read(clear == 1);
    return ORVIX_SUCCESS;
}

int OrvixGetInfo(OrvixHandle handle, uint32_t id, uint32_t* value) {
    return withCamera(ORVIX_FN_GET_INFO, handle, [&](Camera& c) {
        return value == nullptr ? noPointer("Get info") : c.getInfo(id, *value);
    });
}

int OrvixSetInfo(OrvixHandle handle, uint32_t id, uint32_t value) {
    return withCamera(ORVIX_FN_SET_INFO, handle, [&](Camera& c) { return c.setInfo(id, value); });
}

int OrvixRegisterCallback(OrvixHandle handle, uint32_t event, OrvixCallback function,
                          void* context) {
    return withCamera(ORVIX_FN_REGISTER_CALLBACK, handle,
                      [&](Camera& c) { return c.registerCallback(event, function, context); });
}

int OrvixUnRegisterCallback(OrvixHandle handle, uint32_t event) {
    return withCamera(ORVIX_FN_UNREGISTER_CALLBACK, handle,
                      [&](Camera& c) { return c.unregisterCallback(event); });
}

int OrvixStartGrab(OrvixHandle handle, uint32_t frameCount) {
    return withCamera(ORVIX_FN_START_GRAB, handle,
                      [&](Camera& c) { return c.startGrab(frameCount); });
}

int OrvixStopGrab(OrvixHandle handle) {
    return withCamera(ORVIX_FN_STOP_GRAB, handle, [&](Camera& c) { return c.stopGrab(); });
}

int OrvixGetBufferAddress(OrvixHandle handle, uint32_t index, void** address) {
    return withCamera(ORVIX_FN_GET_BUFFER_ADDRESS, handle, [&](Camera& c) {
        return address == nullptr ? noPointer("Get buffer address")
                                  : c.bufferAddress(index, *address);
    });
}

int OrvixGetBufferStatusEx(OrvixHandle handle, uint32_t index, OrvixBufferStatus* status) {
    return withCamera(ORVIX_FN_GET_BUFFER_STATUS, handle, [&](Camera& c) {
        return status == nullptr ? noPointer("Get buffer status") : c.bufferStatus(index, *status);
    });
}

int OrvixGetCameraStatus(OrvixHandle handle, int32_t* status) {
    return withCamera(ORVIX_FN_GET_CAMERA_STATUS, handle, [&](Camera& c) {
        if (status == nullptr) {
            return noPointer("Get camera status");
        }
        *status = c.cameraStatus();
        return Status::success();
    });
}

int OrvixGetFrameRate(OrvixHandle handle, double* rate) {
    return withCamera(ORVIX_FN_GET_FRAME_RATE, handle, [&](Camera& c) {
        if (rate == nullptr) {
            return noPointer("Get frame rate");
        }
        *rate = c.frameRate();
        return Status::success();
    });
}

int OrvixLoadConfigurationFromFile(OrvixHandle handle, const char* path) {
    return withCamera(ORVIX_FN_LOAD_CONFIGURATION, handle, [&](Camera& c) {
        return path == nullptr ? noPointer("Load configuration") : c.loadConfiguration(path);
    });
}

int OrvixSaveConfigurationToFile(OrvixHandle handle, const char* path) {
    return withCamera(ORVIX_FN_SAVE_CONFIGURATION, handle, [&](Camera& c) {
        return path == nullptr ? noPointer("Save configuration") : c.saveConfiguration(path);
    });
}

int OrvixReadRegister(OrvixHandle handle, uint32_t address, uint32_t* value) {
    return withCamera(ORVIX_FN_READ_REGISTER, handle, [&](Camera& c) {
        return value == nullptr ? noPointer("Read register") : c.readRegister(address, *value);
    });
}

int OrvixWriteRegister(OrvixHandle handle, uint32_t address, uint32_t value) {
    return withCamera(ORVIX_FN_WRITE_REGISTER, handle,
                      [&](Camera& c) { return c.writeRegister(address, value); });
}

int OrvixGetVersion(int32_t* major, int32_t* minor, int32_t* build, int32_t* revision) {
    if (major != nullptr) {
        *major = ORVIX_ARAVIS_VERSION_MAJOR;
    }
    if (minor != nullptr) {
        *minor = ORVIX_ARAVIS_VERSION_MINOR;
    }
    if (build != nullptr) {
        *build = ORVIX_ARAVIS_VERSION_BUILD;
    }
    if (revision != nullptr) {
        *revision = 0;
    }
    return ORVIX_SUCCESS;
}

}  // extern "C"
