// The exported C functions: look up the board, call it, and keep the last-error record. No C++
// exception may leave through the C boundary.
#include <string>
#include <utility>

#include "AbiGuard.h"
#include "BoardLibrary.h"
#include "OrvixBoard.h"
#include "OrvixSim.h"

using orvix::Status;
using orvix::sim::Board;
using orvix::sim::BoardLibrary;

namespace {

BoardLibrary& library() {
    return BoardLibrary::instance();
}

template <typename Body>
int guarded(int32_t function, Body&& body) {
    return orvix::Guarded(library().errors(), function, std::forward<Body>(body));
}

// Runs `body` on the board behind `handle`; failures (and exceptions) land in the error record.
template <typename Body>
int withBoard(int32_t function, OrvixHandle handle, Body&& body) {
    return guarded(function, [&] {
        Status s;
        std::shared_ptr<Board> board = library().board(handle, s);
        return board ? body(*board) : s;
    });
}

Status noPointer(const char* what) {
    return orvix::NoPointer(what);
}

}  // namespace

extern "C" {

int OrvixGetBoardCount(int32_t boardType, int32_t* count) {
    return guarded(ORVIX_FN_GET_BOARD_COUNT, [&] {
        if (count == nullptr) {
            return noPointer("Get board count");
        }
        return library().boardCount(boardType, *count);
    });
}

OrvixHandle OrvixOpen(int32_t boardType, int32_t index) {
    OrvixHandle handle = ORVIX_INVALID_HANDLE;
    int ok = guarded(ORVIX_FN_OPEN, [&] { return library().open(boardType, index, handle); });
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
    return withBoard(ORVIX_FN_GET_INFO, handle, [&](Board& b) {
        if (value == nullptr) {
            return noPointer("Get info");
        }
        return b.getInfo(id, *value);
    });
}

int OrvixSetInfo(OrvixHandle handle, uint32_t id, uint32_t value) {
    return withBoard(ORVIX_FN_SET_INFO, handle, [&](Board& b) { return b.setInfo(id, value); });
}

int OrvixRegisterCallback(OrvixHandle handle, uint32_t event, OrvixCallback function,
                          void* context) {
    return withBoard(ORVIX_FN_REGISTER_CALLBACK, handle,
                     [&](Board& b) { return b.registerCallback(event, function, context); });
}

int OrvixUnRegisterCallback(OrvixHandle handle, uint32_t event) {
    return withBoard(ORVIX_FN_UNREGISTER_CALLBACK, handle,
                     [&](Board& b) { return b.unregisterCallback(event); });
}

int OrvixStartGrab(OrvixHandle handle, uint32_t frameCount) {
    return withBoard(ORVIX_FN_START_GRAB, handle,
                     [&](Board& b) { return b.startGrab(frameCount); });
}

int OrvixStopGrab(OrvixHandle handle) {
    return withBoard(ORVIX_FN_STOP_GRAB, handle, [&](Board& b) { return b.stopGrab(); });
}

int OrvixGetBufferAddress(OrvixHandle handle, uint32_t index, void** address) {
    return withBoard(ORVIX_FN_GET_BUFFER_ADDRESS, handle, [&](Board& b) {
        if (address == nullptr) {
            return noPointer("Get buffer address");
        }
        return b.bufferAddress(index, *address);
    });
}

int OrvixGetBufferStatusEx(OrvixHandle handle, uint32_t index, OrvixBufferStatus* status) {
    return withBoard(ORVIX_FN_GET_BUFFER_STATUS, handle, [&](Board& b) {
        if (status == nullptr) {
            return noPointer("Get buffer status");
        }
        return b.bufferStatus(index, *status);
    });
}

int OrvixGetCameraStatus(OrvixHandle handle, int32_t* status) {
    return withBoard(ORVIX_FN_GET_CAMERA_STATUS, handle, [&](Board& b) {
        if (status == nullptr) {
            return noPointer("Get camera status");
        }
        *status = b.cameraStatus();
        return Status::success();
    });
}

int OrvixGetFrameRate(OrvixHandle handle, double* rate) {
    return withBoard(ORVIX_FN_GET_FRAME_RATE, handle, [&](Board& b) {
        if (rate == nullptr) {
            return noPointer("Get frame rate");
        }
        *rate = b.frameRate();
        return Status::success();
    });
}

int OrvixLoadConfigurationFromFile(OrvixHandle handle, const char* path) {
    return withBoard(ORVIX_FN_LOAD_CONFIGURATION, handle, [&](Board& b) {
        if (path == nullptr) {
            return noPointer("Load configuration");
        }
        return b.loadConfiguration(path);
    });
}

int OrvixSaveConfigurationToFile(OrvixHandle handle, const char* path) {
    return withBoard(ORVIX_FN_SAVE_CONFIGURATION, handle, [&](Board& b) {
        if (path == nullptr) {
            return noPointer("Save configuration");
        }
        return b.saveConfiguration(path);
    });
}

int OrvixReadRegister(OrvixHandle handle, uint32_t address, uint32_t* value) {
    return withBoard(ORVIX_FN_READ_REGISTER, handle, [&](Board& b) {
        if (value == nullptr) {
            return noPointer("Read register");
        }
        return b.readRegister(address, *value);
    });
}

int OrvixWriteRegister(OrvixHandle handle, uint32_t address, uint32_t value) {
    return withBoard(ORVIX_FN_WRITE_REGISTER, handle,
                     [&](Board& b) { return b.writeRegister(address, value); });
}

int OrvixGetVersion(int32_t* major, int32_t* minor, int32_t* build, int32_t* revision) {
    if (major != nullptr) {
        *major = ORVIX_VERSION_MAJOR;
    }
    if (minor != nullptr) {
        *minor = ORVIX_VERSION_MINOR;
    }
    if (build != nullptr) {
        *build = ORVIX_VERSION_BUILD;
    }
    if (revision != nullptr) {
        *revision = ORVIX_VERSION_REVISION;
    }
    return ORVIX_SUCCESS;
}

int OrvixSimSetManualClock(OrvixHandle handle, int32_t on) {
    return withBoard(ORVIX_FN_NONE, handle,
                     [&](Board& b) { return b.streamer().setManualClock(on != 0); });
}

int OrvixSimAdvanceFrames(OrvixHandle handle, uint32_t frames) {
    return withBoard(ORVIX_FN_NONE, handle,
                     [&](Board& b) { return b.streamer().advanceFrames(frames); });
}

int OrvixSimAdvanceTime(OrvixHandle handle, uint64_t microseconds) {
    return withBoard(ORVIX_FN_NONE, handle, [&](Board& b) {
        if (microseconds > uint64_t{INT64_MAX} / 1000) {
            return Status::fail(ORVIX_ERR_OUT_OF_RANGE, "Advance time: step too large");
        }
        return b.streamer().advanceTime(std::chrono::microseconds(microseconds));
    });
}

}  // extern "C"
