/*
 * OrvixBoard: the frame-grabber board library ABI.
 *
 * Plain C, so that any library exporting these symbols (the simulated board, a maker's Linux
 * build, an adapter) can be loaded at run time. Only plain data crosses this boundary: no C++
 * types, no exceptions, and memory is freed on the side that allocated it.
 *
 * Every operation returns an int: ORVIX_SUCCESS (1) on success, anything else on failure, after
 * which OrvixGetLastError tells why. OrvixOpen is the exception: it returns a handle or -1.
 *
 * Threads: every function may be called from any thread. Callbacks run on the library's own
 * threads and must not block for long.
 */
#ifndef ORVIX_BOARD_H
#define ORVIX_BOARD_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

#if defined(__GNUC__)
#define ORVIX_API __attribute__((visibility("default")))
#else
#define ORVIX_API
#endif

#define ORVIX_SUCCESS 1
#define ORVIX_INVALID_HANDLE (-1)
/* Board type code of PCIe boards; every enumeration and open passes it. */
#define ORVIX_BOARD_TYPE_PCIE 2
#define ORVIX_BOARD_NAME_MAX 1024

typedef int32_t OrvixHandle;

/* ---- Error codes (third field of the error record) ---- */
enum OrvixErrorCode {
    ORVIX_ERR_NONE = 1, /* nothing failed since the record was last cleared */
    ORVIX_ERR_INVALID_PARAMETER = 2,
    ORVIX_ERR_OUT_OF_RANGE = 3,
    ORVIX_ERR_REFUSED = 4,
    ORVIX_ERR_INVALID_ARGUMENT = 5,
    ORVIX_ERR_FILE_IO = 6,
    ORVIX_ERR_FILE_VERSION = 7,
    ORVIX_ERR_FILE_DAMAGED = 8,
    ORVIX_ERR_REGISTER_READ_ONLY = 9,
    ORVIX_ERR_REGISTER_UNALIGNED = 10,
    ORVIX_ERR_NO_SUCH_BOARD = 11,
    ORVIX_ERR_OPEN_FAILED = 12,
    ORVIX_ERR_GRAB_RUNNING = 13,
    ORVIX_ERR_NOT_GRABBING = 14,
    ORVIX_ERR_TIMEOUT = 15,
    ORVIX_ERR_STOP_FAILED = 16,
    ORVIX_ERR_NO_BOARD_SELECTED = 38,
    ORVIX_ERR_SINGLE_SHOT_RUNNING = 40,
    ORVIX_ERR_GRAB_ABORTED = 42
};

/* Error record filled by OrvixGetLastError. The third field is the error code. */
typedef struct OrvixErrorInfo {
    int32_t function;  /* ORVIX_FN_* of the failed operation, 0 if none */
    int32_t parameter; /* parameter id or register address involved, 0 if none */
    int32_t code;      /* OrvixErrorCode */
    char text[256];    /* NUL-terminated English description */
} OrvixErrorInfo;

enum OrvixFunctionId {
    ORVIX_FN_NONE = 0,
    ORVIX_FN_GET_BOARD_COUNT,
    ORVIX_FN_OPEN,
    ORVIX_FN_GET_BOARD_NAME,
    ORVIX_FN_CLOSE,
    ORVIX_FN_GET_INFO,
    ORVIX_FN_SET_INFO,
    ORVIX_FN_REGISTER_CALLBACK,
    ORVIX_FN_UNREGISTER_CALLBACK,
    ORVIX_FN_START_GRAB,
    ORVIX_FN_STOP_GRAB,
    ORVIX_FN_GET_BUFFER_ADDRESS,
    ORVIX_FN_GET_BUFFER_STATUS,
    ORVIX_FN_GET_CAMERA_STATUS,
    ORVIX_FN_GET_FRAME_RATE,
    ORVIX_FN_LOAD_CONFIGURATION,
    ORVIX_FN_SAVE_CONFIGURATION,
    ORVIX_FN_READ_REGISTER,
    ORVIX_FN_WRITE_REGISTER
};

/* Buffer status record filled by OrvixGetBufferStatusEx. */
typedef struct OrvixBufferStatus {
    uint32_t ready;          /* 1: the buffer holds a complete frame */
    uint32_t overflow;       /* 1: the frame overran the buffer; do not use */
    uint32_t incomplete;     /* 1: the frame ended early; do not use */
    uint32_t frameNumber;    /* running number of the frame since the grab started */
    uint64_t compressedSize; /* bytes of JPEG data when the board compresses frames */
    double time;             /* acquisition time in seconds since the grab started */
} OrvixBufferStatus;

/* ---- Callback events ---- */
enum OrvixEventType {
    ORVIX_EVENT_FRAME_READY = 1,
    ORVIX_EVENT_FRAME_TIMEOUT = 2,
    ORVIX_EVENT_FRAME_LOST = 3,
    ORVIX_EVENT_FRAME_START = 4
};

/* Input-signal events: a base (one bit per signal) plus a polarity bit. */
enum OrvixSignalEvent {
    ORVIX_SIGNAL_INTERNAL_TRIGGER = 1,
    ORVIX_SIGNAL_GENERAL_INPUT1 = 2,
    ORVIX_SIGNAL_GENERAL_INPUT2 = 4,
    ORVIX_SIGNAL_SHAFT_ENCODER_A = 8,
    ORVIX_SIGNAL_SHAFT_ENCODER_B = 16,
    ORVIX_SIGNAL_BOARD_SYNC = 32,
    ORVIX_SIGNAL_INTEGRATION1 = 64,
    ORVIX_SIGNAL_INTEGRATION2 = 128
};
#define ORVIX_SIGNAL_RISING_EDGE 0x800000u
#define ORVIX_SIGNAL_FALLING_EDGE 0x400000u

/* Called on a library thread with the event id it was registered for. */
typedef void (*OrvixCallback)(uint32_t event, void* context);

/* ---- Camera status words ---- */
#define ORVIX_CL_PIXEL_CLOCK 0x1u
#define ORVIX_CL_FRAME_VALID 0x2u
#define ORVIX_CL_LINE_VALID 0x4u
#define ORVIX_CXP_LINK_UP 0x10u
#define ORVIX_CXP_SPEED_MASK 0xFu

/* ---- Parameter ids: 0x1000xxxx general, 0x2000xxxx CameraLink, 0x3000xxxx newer boards ---- */
enum OrvixParameter {
    ORVIX_IMAGE_WIDTH = 0x10000001,
    ORVIX_IMAGE_HEIGHT = 0x10000002,
    ORVIX_DATA_FORMAT = 0x10000003,
    ORVIX_SCAN_TYPE = 0x10000006,
    ORVIX_BOARD_VERSION = 0x10000007,
    ORVIX_BOARD_STATE = 0x10000008,
    ORVIX_FRAME_SIZE = 0x10000009,
    ORVIX_IMAGE_TYPE = 0x1000000A,
    ORVIX_BUFFER_COUNT = 0x1000000B,
    ORVIX_ACQUISITION_MODE = 0x1000000C,
    ORVIX_GRAB_CONTINUOUS = 0x1000000E,
    ORVIX_TAP_NUMBER = 0x10000013,
    ORVIX_TAP_ARRANGEMENT = 0x10000014,
    ORVIX_BAYER_PATTERN = 0x10000015,
    ORVIX_PIXEL_CLOCK = 0x10000016,
    ORVIX_DATA_VALID = 0x10000017,
    ORVIX_CC1_SOURCE = 0x10000018,
    ORVIX_CC2_SOURCE = 0x10000019,
    ORVIX_CC3_SOURCE = 0x1000001A,
    ORVIX_CC4_SOURCE = 0x1000001B,
    ORVIX_BOARD_TRIGGER_MODE = 0x1000001C,
    ORVIX_BOARD_TRIGGER_SOURCE = 0x1000001D,
    ORVIX_GENERAL_INPUT1_SAMPLE_MODE = 0x1000001E,
    ORVIX_GENERAL_INPUT1_PROTECT_MODE = 0x1000001F,
    ORVIX_GENERAL_INPUT2_SAMPLE_MODE = 0x10000021,
    ORVIX_GENERAL_INPUT2_PROTECT_MODE = 0x10000022,
    ORVIX_SHAFT_ENCODER1_PULSE_DROP = 0x10000024,
    ORVIX_SHAFT_ENCODER1_PROTECT_MODE = 0x10000025,
    ORVIX_SHAFT_ENCODER1_MIN_INTERVAL = 0x10000026,
    ORVIX_INTEGRATION_TRIGGER_SOURCE = 0x10000027,
    ORVIX_INTEGRATION_TRIGGER_FREQUENCY = 0x10000028,
    ORVIX_STROBE_TRIGGER_SOURCE = 0x10000029,
    ORVIX_BOARD_SYNC_OUTPUT1_SOURCE = 0x1000002A,
    ORVIX_BOARD_SYNC_OUTPUT2_SOURCE = 0x1000002B,
    ORVIX_GENERAL_OUTPUT1_SOURCE = 0x1000002C,
    ORVIX_GENERAL_OUTPUT2_SOURCE = 0x1000002D,
    ORVIX_INTEGRATION_METHOD = 0x1000002E,
    ORVIX_INTEGRATION_PARAM1 = 0x1000002F,
    ORVIX_INTEGRATION_PARAM2 = 0x10000030,
    ORVIX_INTEGRATION_PARAM3 = 0x10000031,
    ORVIX_INTEGRATION_PARAM4 = 0x10000032,
    ORVIX_INTEGRATION_POLARITY1 = 0x10000033,
    ORVIX_INTEGRATION_POLARITY2 = 0x10000034,
    ORVIX_STROBE_METHOD = 0x10000035,
    ORVIX_STROBE_PARAM1 = 0x10000036,
    ORVIX_STROBE_PARAM2 = 0x10000037,
    ORVIX_STROBE_PARAM3 = 0x10000038,
    ORVIX_STROBE_PARAM4 = 0x10000039,
    ORVIX_STROBE_POLARITY = 0x1000003A,
    ORVIX_GENERAL_OUTPUT1_POLARITY = 0x1000003B,
    ORVIX_GENERAL_OUTPUT1_DELAY = 0x1000003C,
    ORVIX_GENERAL_OUTPUT2_POLARITY = 0x1000003D,
    ORVIX_GENERAL_OUTPUT2_DELAY = 0x1000003E,
    ORVIX_GENERAL_INPUT1_TRIGGER_MODE = 0x1000003F,
    ORVIX_GENERAL_INPUT2_TRIGGER_MODE = 0x10000040,
    ORVIX_BOARD_SYNC1_TRIGGER_MODE = 0x10000041,
    ORVIX_BOARD_SYNC2_TRIGGER_MODE = 0x10000042,
    ORVIX_SHAFT_ENCODER1_CHANNEL = 0x10000043,
    ORVIX_SHAFT_ENCODER1_MULTIPLY_FACTOR = 0x10000044,
    ORVIX_LINE_VALID_FILTER = 0x10000046,
    ORVIX_EXTERNAL_TRIGGER_TIMEOUT = 0x10000049,
    ORVIX_TAP_OFFSET_X = 0x10000050,
    ORVIX_GENERAL_INPUT1_POLARITY = 0x10000051,
    ORVIX_GENERAL_INPUT1_MIN_WIDTH = 0x10000052,
    ORVIX_GENERAL_INPUT2_POLARITY = 0x10000053,
    ORVIX_GENERAL_INPUT2_MIN_WIDTH = 0x10000054,
    ORVIX_PIXEL_CLOCK_MHZ = 0x10000055,
    ORVIX_PCIE_KERNEL_BLOCK_SIZE = 0x10000056,
    ORVIX_SOFTWARE_TRIGGER_WIDTH = 0x10000057,
    ORVIX_SOFTWARE_TRIGGER_PERIOD = 0x10000058,
    ORVIX_SOFTWARE_TRIGGER_COUNT = 0x10000059,
    ORVIX_SOFTWARE_TRIGGER_FIRE = 0x10000060,
    ORVIX_SOFTWARE_TRIGGER_DELAY = 0x10000061,
    ORVIX_SOFTWARE_TRIGGER_POLARITY = 0x10000062,
    ORVIX_FRAME_VALID = 0x10000064,
    ORVIX_SYNC_MODE = 0x10000066,
    ORVIX_HW_TRIGGER_INPUT1_DELAY = 0x10000067,
    ORVIX_HW_TRIGGER_INPUT2_DELAY = 0x10000068,
    ORVIX_IMAGE_OFFSET_X = 0x10000069,
    ORVIX_SHAFT_ENCODER1_MIN_WIDTH = 0x10000070,
    ORVIX_SHAFT_ENCODER1_VALID_DIRECTION = 0x10000071,
    ORVIX_SHAFT_ENCODER1_REVERSE_COMPENSATION = 0x10000072,
    ORVIX_FRAME_SIZE_HIGH = 0x10000073,
    ORVIX_FRAME_SIZE_LOW = 0x10000074,
    ORVIX_BOARD_TRIGGER_FRAME_COUNT = 0x10000075,
    ORVIX_SHAFT_ENCODER1_QUAD_FREQUENCY_SOURCE = 0x10000076,
    ORVIX_MULTIPLE_LIGHT_COUNT = 0x1000007D,
    ORVIX_RGBD_EXTENDED_MODE = 0x1000007F,

    ORVIX_BOARD_SERIAL = 0x20000001,
    ORVIX_PCIE_LINK = 0x20000002,
    ORVIX_FRAME_LOST = 0x20000003,
    ORVIX_HW_TRIGGER_INPUT_DELAY_MODE = 0x20000005,
    ORVIX_HW_TRIGGER_INPUT1_DELAY_LINES = 0x20000006,
    ORVIX_HW_TRIGGER_INPUT2_DELAY_LINES = 0x20000007,
    ORVIX_SIGNAL_COUNTER_BASE = 0x20000008, /* + signal row 0..7 */
    ORVIX_BOARD_TRIGGER_RECEIVE_MODE = 0x20000010,
    ORVIX_SIGNAL_COUNTER_CONTROL = 0x20000011, /* 0 clears and runs the counters, 1 holds */
    ORVIX_SHAFT_ENCODER1_REVERSE_COMPENSATION_LIMIT = 0x20000013,
    ORVIX_SHAFT_ENCODER1_CLOCK_DUTY_COMPENSATION_TYPE = 0x20000014,
    ORVIX_SHAFT_ENCODER1_CLOCK_DUTY_COMPENSATION_WIDTH = 0x20000015,
    ORVIX_CL_VALID_COLUMN = 0x20000016,
    ORVIX_CL_SIGNAL_ENHANCE_MODE = 0x20000017,
    ORVIX_CL_LONG_CABLE_MODE = 0x20000020,

    ORVIX_CXP_TRIGGER = 0x30000002,
    ORVIX_BOARD_TRIGGER_FRAME_ACTIVE_MODE = 0x3000002E,
    ORVIX_JPEG_COMPRESS_ENABLE = 0x3000002F,
    ORVIX_JPEG_COMPRESS_QUALITY = 0x30000030
};

/* ---- Operations ---- */
ORVIX_API int OrvixGetBoardCount(int32_t boardType, int32_t* count);
ORVIX_API OrvixHandle OrvixOpen(int32_t boardType, int32_t index);
/* size: in, the buffer's capacity; out, the bytes written including the NUL. */
ORVIX_API int OrvixGetBoardName(int32_t boardType, int32_t index, char* name, uint32_t* size);
ORVIX_API int OrvixClose(OrvixHandle handle);
/* clear = 1: the record is reset to ORVIX_ERR_NONE after it was read. */
ORVIX_API int OrvixGetLastError(OrvixErrorInfo* error, int32_t clear);
ORVIX_API int OrvixGetInfo(OrvixHandle handle, uint32_t id, uint32_t* value);
ORVIX_API int OrvixSetInfo(OrvixHandle handle, uint32_t id, uint32_t value);
ORVIX_API int OrvixRegisterCallback(OrvixHandle handle, uint32_t event, OrvixCallback function,
                                    void* context);
/* Once it has returned, the callback of that event neither runs nor is running, so the caller
 * may free its context at once. Called from inside a callback, it does not wait for that call. */
ORVIX_API int OrvixUnRegisterCallback(OrvixHandle handle, uint32_t event);
/* frameCount 1: single shot, returns when the frame is complete or failed; 0: continuous. */
ORVIX_API int OrvixStartGrab(OrvixHandle handle, uint32_t frameCount);
ORVIX_API int OrvixStopGrab(OrvixHandle handle);
ORVIX_API int OrvixGetBufferAddress(OrvixHandle handle, uint32_t index, void** address);
ORVIX_API int OrvixGetBufferStatusEx(OrvixHandle handle, uint32_t index, OrvixBufferStatus* status);
ORVIX_API int OrvixGetCameraStatus(OrvixHandle handle, int32_t* status);
ORVIX_API int OrvixGetFrameRate(OrvixHandle handle, double* rate);
ORVIX_API int OrvixLoadConfigurationFromFile(OrvixHandle handle, const char* path);
ORVIX_API int OrvixSaveConfigurationToFile(OrvixHandle handle, const char* path);
ORVIX_API int OrvixReadRegister(OrvixHandle handle, uint32_t address, uint32_t* value);
ORVIX_API int OrvixWriteRegister(OrvixHandle handle, uint32_t address, uint32_t value);
/* The library's own version (major, minor, build, revision). */
ORVIX_API int OrvixGetVersion(int32_t* major, int32_t* minor, int32_t* build, int32_t* revision);

#ifdef __cplusplus
}
#endif

#endif /* ORVIX_BOARD_H */
