// The real shared library, loaded the way the application loads a board library.
#include <dlfcn.h>
#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "OrvixBoard.h"
#include "OrvixSim.h"
#include "TestSupport.h"

namespace orvix::sim {
namespace {

class SharedLibraryTest : public ::testing::Test {
  protected:
    void SetUp() override {
        handle_ = dlopen(ORVIX_TEST_LIBRARY, RTLD_NOW | RTLD_LOCAL);
        ASSERT_NE(handle_, nullptr) << dlerror();
    }
    void TearDown() override {
        if (handle_ != nullptr) {
            dlclose(handle_);
        }
    }

    template <typename F>
    F* sym(const char* name) {
        void* p = dlsym(handle_, name);
        EXPECT_NE(p, nullptr) << name;
        return reinterpret_cast<F*>(p);
    }

    OrvixErrorInfo lastError(int32_t clear = 1) {
        OrvixErrorInfo e{};
        EXPECT_EQ(sym<decltype(OrvixGetLastError)>("OrvixGetLastError")(&e, clear), ORVIX_SUCCESS);
        return e;
    }

    void* handle_ = nullptr;
    test::ScopedConfigEnv env_{std::nullopt};
};

TEST_F(SharedLibraryTest, ExportsTheWholeAbiUnderItsVersion) {
    for (const char* name : {"OrvixGetBoardCount",
                             "OrvixOpen",
                             "OrvixGetBoardName",
                             "OrvixClose",
                             "OrvixGetLastError",
                             "OrvixGetInfo",
                             "OrvixSetInfo",
                             "OrvixRegisterCallback",
                             "OrvixUnRegisterCallback",
                             "OrvixStartGrab",
                             "OrvixStopGrab",
                             "OrvixGetBufferAddress",
                             "OrvixGetBufferStatusEx",
                             "OrvixGetCameraStatus",
                             "OrvixGetFrameRate",
                             "OrvixLoadConfigurationFromFile",
                             "OrvixSaveConfigurationToFile",
                             "OrvixReadRegister",
                             "OrvixWriteRegister",
                             "OrvixGetVersion",
                             "OrvixSimSetManualClock",
                             "OrvixSimAdvanceFrames",
                             "OrvixSimAdvanceTime"}) {
        EXPECT_NE(dlsym(handle_, name), nullptr) << name;
    }
    // The C++ inside stays inside.
    EXPECT_EQ(dlsym(handle_, "_ZN5orvix3sim12BoardLibrary8instanceEv"), nullptr);

    int32_t major = 0, minor = 0, build = -1, revision = -1;
    ASSERT_EQ(sym<decltype(OrvixGetVersion)>("OrvixGetVersion")(&major, &minor, &build, &revision),
              ORVIX_SUCCESS);
    EXPECT_EQ(major, 1);
    EXPECT_EQ(minor, 8);
    EXPECT_EQ(build, 0);
    EXPECT_EQ(revision, 0);
    std::string file = ORVIX_TEST_LIBRARY;
    EXPECT_EQ(file.substr(file.size() - std::strlen("libOrvixBoard.so.1.8.0")),
              "libOrvixBoard.so.1.8.0");
}

TEST_F(SharedLibraryTest, EveryBoardCallWithoutABoardFailsWith38) {
    auto getInfo = sym<decltype(OrvixGetInfo)>("OrvixGetInfo");
    auto setInfo = sym<decltype(OrvixSetInfo)>("OrvixSetInfo");
    auto reg = sym<decltype(OrvixRegisterCallback)>("OrvixRegisterCallback");
    auto unreg = sym<decltype(OrvixUnRegisterCallback)>("OrvixUnRegisterCallback");
    auto start = sym<decltype(OrvixStartGrab)>("OrvixStartGrab");
    auto stop = sym<decltype(OrvixStopGrab)>("OrvixStopGrab");
    auto address = sym<decltype(OrvixGetBufferAddress)>("OrvixGetBufferAddress");
    auto status = sym<decltype(OrvixGetBufferStatusEx)>("OrvixGetBufferStatusEx");
    auto camera = sym<decltype(OrvixGetCameraStatus)>("OrvixGetCameraStatus");
    auto rate = sym<decltype(OrvixGetFrameRate)>("OrvixGetFrameRate");
    auto load = sym<decltype(OrvixLoadConfigurationFromFile)>("OrvixLoadConfigurationFromFile");
    auto save = sym<decltype(OrvixSaveConfigurationToFile)>("OrvixSaveConfigurationToFile");
    auto readReg = sym<decltype(OrvixReadRegister)>("OrvixReadRegister");
    auto writeReg = sym<decltype(OrvixWriteRegister)>("OrvixWriteRegister");
    auto close = sym<decltype(OrvixClose)>("OrvixClose");
    auto manual = sym<decltype(OrvixSimSetManualClock)>("OrvixSimSetManualClock");

    test::TempDir dir;
    const std::string path = dir.file("x.vlcf");
    uint32_t value = 0;
    void* ptr = nullptr;
    OrvixBufferStatus bs{};
    int32_t cs = 0;
    double fps = 0;
    for (OrvixHandle h : {ORVIX_INVALID_HANDLE, 0, 1, 2, 77}) {
        auto check = [&](const char* name, int32_t function, int result) {
            EXPECT_NE(result, ORVIX_SUCCESS) << name << " handle " << h;
            OrvixErrorInfo e = lastError();
            EXPECT_EQ(e.code, ORVIX_ERR_NO_BOARD_SELECTED) << name << " handle " << h;
            EXPECT_EQ(e.function, function) << name;
        };
        check("GetInfo", ORVIX_FN_GET_INFO, getInfo(h, ORVIX_IMAGE_WIDTH, &value));
        check("SetInfo", ORVIX_FN_SET_INFO, setInfo(h, ORVIX_IMAGE_WIDTH, 10));
        check("RegisterCallback", ORVIX_FN_REGISTER_CALLBACK,
              reg(h, 1, test::EventRecorder::callback, nullptr));
        check("UnRegisterCallback", ORVIX_FN_UNREGISTER_CALLBACK, unreg(h, 1));
        check("StartGrab", ORVIX_FN_START_GRAB, start(h, 1));
        check("StopGrab", ORVIX_FN_STOP_GRAB, stop(h));
        check("GetBufferAddress", ORVIX_FN_GET_BUFFER_ADDRESS, address(h, 0, &ptr));
        check("GetBufferStatusEx", ORVIX_FN_GET_BUFFER_STATUS, status(h, 0, &bs));
        check("GetCameraStatus", ORVIX_FN_GET_CAMERA_STATUS, camera(h, &cs));
        check("GetFrameRate", ORVIX_FN_GET_FRAME_RATE, rate(h, &fps));
        check("Load", ORVIX_FN_LOAD_CONFIGURATION, load(h, path.c_str()));
        check("Save", ORVIX_FN_SAVE_CONFIGURATION, save(h, path.c_str()));
        check("ReadRegister", ORVIX_FN_READ_REGISTER, readReg(h, 0, &value));
        check("WriteRegister", ORVIX_FN_WRITE_REGISTER, writeReg(h, 0x100, 1));
        check("Close", ORVIX_FN_CLOSE, close(h));
        check("SimSetManualClock", ORVIX_FN_NONE, manual(h, 1));
    }
    EXPECT_TRUE(dir.entries().empty()) << "a failed save writes nothing";
}

TEST_F(SharedLibraryTest, OpensSetsAndReportsErrorsThroughTheRecord) {
    auto count = sym<decltype(OrvixGetBoardCount)>("OrvixGetBoardCount");
    auto open = sym<decltype(OrvixOpen)>("OrvixOpen");
    auto name = sym<decltype(OrvixGetBoardName)>("OrvixGetBoardName");
    auto getInfo = sym<decltype(OrvixGetInfo)>("OrvixGetInfo");
    auto setInfo = sym<decltype(OrvixSetInfo)>("OrvixSetInfo");
    auto readReg = sym<decltype(OrvixReadRegister)>("OrvixReadRegister");
    auto writeReg = sym<decltype(OrvixWriteRegister)>("OrvixWriteRegister");
    auto close = sym<decltype(OrvixClose)>("OrvixClose");

    int32_t n = 0;
    ASSERT_EQ(count(ORVIX_BOARD_TYPE_PCIE, &n), ORVIX_SUCCESS);
    ASSERT_EQ(n, 2);
    char text[ORVIX_BOARD_NAME_MAX];
    uint32_t size = sizeof text;
    ASSERT_EQ(name(ORVIX_BOARD_TYPE_PCIE, 0, text, &size), ORVIX_SUCCESS);
    EXPECT_STREQ(text, "PCIe-CL Full Simulator");

    OrvixHandle h = open(ORVIX_BOARD_TYPE_PCIE, 0);
    ASSERT_EQ(h, 1);
    EXPECT_EQ(open(ORVIX_BOARD_TYPE_PCIE, 0), ORVIX_INVALID_HANDLE);
    EXPECT_EQ(lastError().code, ORVIX_ERR_OPEN_FAILED);
    EXPECT_EQ(lastError(1).code, ORVIX_ERR_NONE) << "the clearing read reset the record";

    uint32_t v = 0;
    ASSERT_EQ(getInfo(h, ORVIX_IMAGE_WIDTH, &v), ORVIX_SUCCESS);
    EXPECT_EQ(v, 1920u);
    ASSERT_EQ(getInfo(h, ORVIX_BOARD_VERSION, &v), ORVIX_SUCCESS);
    EXPECT_EQ(v >> 16, 5u);

    EXPECT_NE(setInfo(h, ORVIX_DATA_FORMAT, 9), ORVIX_SUCCESS);
    OrvixErrorInfo e = lastError(0);
    EXPECT_EQ(e.function, ORVIX_FN_SET_INFO);
    EXPECT_EQ(e.parameter, ORVIX_DATA_FORMAT);
    EXPECT_EQ(e.code, ORVIX_ERR_OUT_OF_RANGE);
    EXPECT_NE(std::strstr(e.text, "data format"), nullptr) << e.text;
    EXPECT_EQ(lastError(0).code, ORVIX_ERR_OUT_OF_RANGE) << "reading without clear keeps it";
    ASSERT_EQ(getInfo(h, ORVIX_DATA_FORMAT, &v), ORVIX_SUCCESS);
    EXPECT_EQ(v, 8u);
    EXPECT_EQ(lastError(1).code, ORVIX_ERR_OUT_OF_RANGE) << "a success does not clear the record";

    EXPECT_NE(writeReg(h, 0x0000u, 0), ORVIX_SUCCESS);
    EXPECT_EQ(lastError().code, ORVIX_ERR_REGISTER_READ_ONLY);
    EXPECT_NE(readReg(h, 6, &v), ORVIX_SUCCESS);
    e = lastError();
    EXPECT_EQ(e.code, ORVIX_ERR_REGISTER_UNALIGNED);
    EXPECT_EQ(e.parameter, 6);
    EXPECT_EQ(e.function, ORVIX_FN_READ_REGISTER);

    EXPECT_NE(getInfo(h, ORVIX_IMAGE_WIDTH, nullptr), ORVIX_SUCCESS);
    EXPECT_EQ(lastError().code, ORVIX_ERR_INVALID_ARGUMENT);
    EXPECT_EQ(sym<decltype(OrvixGetLastError)>("OrvixGetLastError")(nullptr, 1), 0);

    ASSERT_EQ(close(h), ORVIX_SUCCESS);
    EXPECT_NE(getInfo(h, ORVIX_IMAGE_WIDTH, &v), ORVIX_SUCCESS);
    EXPECT_EQ(lastError().code, ORVIX_ERR_NO_BOARD_SELECTED);
}

TEST_F(SharedLibraryTest, ConfigurationFilesRoundTripThroughTheAbi) {
    auto open = sym<decltype(OrvixOpen)>("OrvixOpen");
    auto setInfo = sym<decltype(OrvixSetInfo)>("OrvixSetInfo");
    auto getInfo = sym<decltype(OrvixGetInfo)>("OrvixGetInfo");
    auto save = sym<decltype(OrvixSaveConfigurationToFile)>("OrvixSaveConfigurationToFile");
    auto load = sym<decltype(OrvixLoadConfigurationFromFile)>("OrvixLoadConfigurationFromFile");
    auto close = sym<decltype(OrvixClose)>("OrvixClose");
    test::TempDir dir;
    OrvixHandle h = open(ORVIX_BOARD_TYPE_PCIE, 1);
    ASSERT_EQ(h, 2);
    ASSERT_EQ(setInfo(h, ORVIX_IMAGE_HEIGHT, 1000), ORVIX_SUCCESS);
    const std::string path = dir.file("cl0_tap1_w2560_h1000.vlcf");
    ASSERT_EQ(save(h, path.c_str()), ORVIX_SUCCESS);
    ASSERT_EQ(setInfo(h, ORVIX_IMAGE_HEIGHT, 8), ORVIX_SUCCESS);

    test::writeFile(dir.file("old.vlcf"), "OrvixBoardConfiguration 0\n");
    EXPECT_NE(load(h, dir.file("old.vlcf").c_str()), ORVIX_SUCCESS);
    EXPECT_EQ(lastError().code, ORVIX_ERR_FILE_VERSION);
    uint32_t v = 0;
    ASSERT_EQ(getInfo(h, ORVIX_IMAGE_HEIGHT, &v), ORVIX_SUCCESS);
    EXPECT_EQ(v, 8u);

    ASSERT_EQ(load(h, path.c_str()), ORVIX_SUCCESS);
    ASSERT_EQ(getInfo(h, ORVIX_IMAGE_HEIGHT, &v), ORVIX_SUCCESS);
    EXPECT_EQ(v, 1000u);
    ASSERT_EQ(getInfo(h, ORVIX_FRAME_SIZE_LOW, &v), ORVIX_SUCCESS);
    EXPECT_EQ(v, 2560u * 1000u * 2u);
    ASSERT_EQ(close(h), ORVIX_SUCCESS);
}

TEST_F(SharedLibraryTest, ABrokenConfigurationIsReportedWithFileAndLine) {
    test::TempDir dir;
    test::writeFile(dir.file("bad.ini"), "[board0]\n\nbogus = 1\n");
    test::ScopedConfigEnv env(dir.file("bad.ini"));
    testing::internal::CaptureStderr();
    int32_t n = 9;
    int result = sym<decltype(OrvixGetBoardCount)>("OrvixGetBoardCount")(ORVIX_BOARD_TYPE_PCIE, &n);
    std::string err = testing::internal::GetCapturedStderr();
    EXPECT_NE(result, ORVIX_SUCCESS);
    EXPECT_EQ(n, 0);
    const std::string where = dir.file("bad.ini") + ":3: unknown key 'bogus'";
    EXPECT_EQ(err, "OrvixBoard: " + where + "\n");
    OrvixErrorInfo e = lastError();
    EXPECT_EQ(e.function, ORVIX_FN_GET_BOARD_COUNT);
    EXPECT_EQ(std::string(e.text), where);
    EXPECT_EQ(sym<decltype(OrvixOpen)>("OrvixOpen")(ORVIX_BOARD_TYPE_PCIE, 0),
              ORVIX_INVALID_HANDLE);
}

struct AbiConsumer {
    decltype(OrvixGetBufferStatusEx)* status;
    decltype(OrvixGetInfo)* getInfo;
    OrvixHandle handle;
    uint32_t next = 0;
    std::vector<uint32_t> numbers;
    std::vector<uint32_t> lost;
};

class SharedLibraryThreadTest : public SharedLibraryTest {};

TEST_F(SharedLibraryThreadTest, StreamsOnTheManualClockThroughTheAbi) {
    auto open = sym<decltype(OrvixOpen)>("OrvixOpen");
    auto reg = sym<decltype(OrvixRegisterCallback)>("OrvixRegisterCallback");
    auto unreg = sym<decltype(OrvixUnRegisterCallback)>("OrvixUnRegisterCallback");
    auto start = sym<decltype(OrvixStartGrab)>("OrvixStartGrab");
    auto stop = sym<decltype(OrvixStopGrab)>("OrvixStopGrab");
    auto rate = sym<decltype(OrvixGetFrameRate)>("OrvixGetFrameRate");
    auto camera = sym<decltype(OrvixGetCameraStatus)>("OrvixGetCameraStatus");
    auto close = sym<decltype(OrvixClose)>("OrvixClose");
    auto manual = sym<decltype(OrvixSimSetManualClock)>("OrvixSimSetManualClock");
    auto frames = sym<decltype(OrvixSimAdvanceFrames)>("OrvixSimAdvanceFrames");
    auto time = sym<decltype(OrvixSimAdvanceTime)>("OrvixSimAdvanceTime");

    OrvixHandle h = open(ORVIX_BOARD_TYPE_PCIE, 0);
    ASSERT_EQ(h, 1);
    ASSERT_EQ(manual(h, 1), ORVIX_SUCCESS);
    AbiConsumer consumer{sym<decltype(OrvixGetBufferStatusEx)>("OrvixGetBufferStatusEx"),
                         sym<decltype(OrvixGetInfo)>("OrvixGetInfo"),
                         h,
                         0,
                         {},
                         {}};
    auto onFrame = [](uint32_t, void* c) {
        auto* self = static_cast<AbiConsumer*>(c);
        uint32_t count = 0;
        self->getInfo(self->handle, ORVIX_BUFFER_COUNT, &count);
        OrvixBufferStatus s{};
        if (self->status(self->handle, self->next++ % count, &s) == ORVIX_SUCCESS && s.ready == 1) {
            self->numbers.push_back(s.frameNumber);
        }
    };
    auto onLost = [](uint32_t, void* c) {
        auto* self = static_cast<AbiConsumer*>(c);
        uint32_t lost = 0;
        self->getInfo(self->handle, ORVIX_FRAME_LOST, &lost);
        self->lost.push_back(lost);
    };
    ASSERT_EQ(reg(h, ORVIX_EVENT_FRAME_READY, onFrame, &consumer), ORVIX_SUCCESS);
    ASSERT_EQ(reg(h, ORVIX_EVENT_FRAME_LOST, onLost, &consumer), ORVIX_SUCCESS);
    ASSERT_EQ(start(h, 0), ORVIX_SUCCESS);
    EXPECT_NE(start(h, 0), ORVIX_SUCCESS);
    EXPECT_EQ(lastError().code, ORVIX_ERR_GRAB_RUNNING);
    ASSERT_EQ(frames(h, 3), ORVIX_SUCCESS);
    EXPECT_EQ(consumer.numbers, (std::vector<uint32_t>{0, 1, 2}));
    double fps = 0;
    ASSERT_EQ(rate(h, &fps), ORVIX_SUCCESS);
    EXPECT_NEAR(fps, 60.0, 1e-3);
    int32_t status = 0;
    ASSERT_EQ(camera(h, &status), ORVIX_SUCCESS);
    EXPECT_EQ(status, 0x7);

    // Ten frame periods at once: two frames are lost behind the ring of eight.
    ASSERT_EQ(time(h, 166667), ORVIX_SUCCESS);
    EXPECT_EQ(consumer.lost, (std::vector<uint32_t>{2, 2}));
    ASSERT_EQ(consumer.numbers.size(), 11u);
    EXPECT_EQ(consumer.numbers[3], 5u);
    EXPECT_EQ(consumer.numbers.back(), 12u);

    EXPECT_NE(manual(h, 0), ORVIX_SUCCESS) << "not during a grab";
    ASSERT_EQ(stop(h), ORVIX_SUCCESS);
    ASSERT_EQ(unreg(h, ORVIX_EVENT_FRAME_READY), ORVIX_SUCCESS);
    ASSERT_EQ(unreg(h, ORVIX_EVENT_FRAME_LOST), ORVIX_SUCCESS);
    EXPECT_NE(frames(h, 1), ORVIX_SUCCESS);
    EXPECT_EQ(lastError().code, ORVIX_ERR_NOT_GRABBING);
    ASSERT_EQ(close(h), ORVIX_SUCCESS);
}

TEST_F(SharedLibraryThreadTest, AFailingSingleShotReportsItsCode) {
    test::TempDir dir;
    test::writeFile(dir.file("sim.ini"), "[board0]\nsingle_shot_error = 42\n");
    test::ScopedConfigEnv env(dir.file("sim.ini"));
    int32_t n = 0;
    ASSERT_EQ(sym<decltype(OrvixGetBoardCount)>("OrvixGetBoardCount")(ORVIX_BOARD_TYPE_PCIE, &n),
              ORVIX_SUCCESS);
    OrvixHandle h = sym<decltype(OrvixOpen)>("OrvixOpen")(ORVIX_BOARD_TYPE_PCIE, 0);
    ASSERT_EQ(h, 1);
    lastError();
    EXPECT_NE(sym<decltype(OrvixStartGrab)>("OrvixStartGrab")(h, 1), ORVIX_SUCCESS);
    OrvixErrorInfo e = lastError();
    EXPECT_EQ(e.code, ORVIX_ERR_GRAB_ABORTED);
    EXPECT_EQ(e.function, ORVIX_FN_START_GRAB);
    ASSERT_EQ(sym<decltype(OrvixClose)>("OrvixClose")(h), ORVIX_SUCCESS);
}

}  // namespace
}  // namespace orvix::sim
