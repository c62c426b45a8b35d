// The real shared library, loaded the way the application loads a board library.
#include <dlfcn.h>
#include <gtest/gtest.h>

#include <atomic>
#include <cstring>
#include <functional>
#include <memory>
#include <string>
#include <thread>

#include "OrvixBoard.h"
#include "OrvixSim.h"
#include "TestSupport.h"

namespace orvix::sim {
namespace {

// Every exported function, named without its "Orvix" prefix.
// clang-format off
#define ORVIX_ABI(X)                                                                               \
    X(GetBoardCount) X(Open) X(GetBoardName) X(Close) X(GetLastError) X(GetInfo) X(SetInfo)        \
    X(RegisterCallback) X(UnRegisterCallback) X(StartGrab) X(StopGrab) X(GetBufferAddress)         \
    X(GetBufferStatusEx) X(GetCameraStatus) X(GetFrameRate) X(LoadConfigurationFromFile)           \
    X(SaveConfigurationToFile) X(ReadRegister) X(WriteRegister) X(GetVersion)                      \
    X(SimSetManualClock) X(SimAdvanceFrames) X(SimAdvanceTime)
// clang-format on

struct Abi {
#define ORVIX_ABI_MEMBER(name) decltype(Orvix##name)* name = nullptr;
    ORVIX_ABI(ORVIX_ABI_MEMBER)
#undef ORVIX_ABI_MEMBER
};

class SharedLibraryTest : public ::testing::Test {
  protected:
    // A function of the ABI that is not exported fails here, by name.
    void SetUp() override {
        handle_ = dlopen(ORVIX_TEST_LIBRARY, RTLD_NOW | RTLD_LOCAL);
        ASSERT_NE(handle_, nullptr) << dlerror();
#define ORVIX_ABI_RESOLVE(name)                                                       \
    abi_.name = reinterpret_cast<decltype(abi_.name)>(dlsym(handle_, "Orvix" #name)); \
    ASSERT_NE(abi_.name, nullptr) << "Orvix" #name;
        ORVIX_ABI(ORVIX_ABI_RESOLVE)
#undef ORVIX_ABI_RESOLVE
    }
    void TearDown() override {
        if (handle_ != nullptr) {
            dlclose(handle_);
        }
    }

    OrvixErrorInfo lastError(int32_t clear = 1) {
        OrvixErrorInfo e{};
        EXPECT_EQ(abi_.GetLastError(&e, clear), ORVIX_SUCCESS);
        return e;
    }

    void* handle_ = nullptr;
    Abi abi_;
    test::ScopedConfigEnv env_{std::nullopt};
};

TEST_F(SharedLibraryTest, ExportsOnlyTheCFunctionsUnderItsVersion) {
    EXPECT_EQ(dlsym(handle_, "_ZN5orvix3sim12BoardLibrary8instanceEv"), nullptr);
    int32_t version[4] = {-1, -1, -1, -1};
    ASSERT_EQ(abi_.GetVersion(&version[0], &version[1], &version[2], &version[3]), ORVIX_SUCCESS);
    EXPECT_EQ(std::vector<int32_t>(version, version + 4), (std::vector<int32_t>{1, 8, 0, 0}));
    const std::string file = ORVIX_TEST_LIBRARY;
    EXPECT_EQ(file.substr(file.rfind('/') + 1), "libOrvixBoard.so.1.8.0");
}

TEST_F(SharedLibraryTest, EveryBoardCallWithoutABoardFailsWith38) {
    test::TempDir dir;
    const std::string path = dir.file("x.vlcf");
    uint32_t value = 0;
    void* ptr = nullptr;
    OrvixBufferStatus bs{};
    int32_t cs = 0;
    double fps = 0;
    const Abi& a = abi_;
    for (OrvixHandle h : {ORVIX_INVALID_HANDLE, 0, 1, 2, 77}) {
        const std::pair<int32_t, std::function<int()>> calls[] = {
            {ORVIX_FN_GET_INFO, [&] { return a.GetInfo(h, ORVIX_IMAGE_WIDTH, &value); }},
            {ORVIX_FN_SET_INFO, [&] { return a.SetInfo(h, ORVIX_IMAGE_WIDTH, 10); }},
            {ORVIX_FN_REGISTER_CALLBACK,
             [&] { return a.RegisterCallback(h, 1, test::EventRecorder::callback, nullptr); }},
            {ORVIX_FN_UNREGISTER_CALLBACK, [&] { return a.UnRegisterCallback(h, 1); }},
            {ORVIX_FN_START_GRAB, [&] { return a.StartGrab(h, 1); }},
            {ORVIX_FN_STOP_GRAB, [&] { return a.StopGrab(h); }},
            {ORVIX_FN_GET_BUFFER_ADDRESS, [&] { return a.GetBufferAddress(h, 0, &ptr); }},
            {ORVIX_FN_GET_BUFFER_STATUS, [&] { return a.GetBufferStatusEx(h, 0, &bs); }},
            {ORVIX_FN_GET_CAMERA_STATUS, [&] { return a.GetCameraStatus(h, &cs); }},
            {ORVIX_FN_GET_FRAME_RATE, [&] { return a.GetFrameRate(h, &fps); }},
            {ORVIX_FN_LOAD_CONFIGURATION,
             [&] { return a.LoadConfigurationFromFile(h, path.c_str()); }},
            {ORVIX_FN_SAVE_CONFIGURATION,
             [&] { return a.SaveConfigurationToFile(h, path.c_str()); }},
            {ORVIX_FN_READ_REGISTER, [&] { return a.ReadRegister(h, 0, &value); }},
            {ORVIX_FN_WRITE_REGISTER, [&] { return a.WriteRegister(h, 0x100, 1); }},
            {ORVIX_FN_CLOSE, [&] { return a.Close(h); }},
            {ORVIX_FN_NONE, [&] { return a.SimSetManualClock(h, 1); }},
        };
        for (const auto& [function, call] : calls) {
            SCOPED_TRACE(testing::Message() << "function " << function << ", handle " << h);
            EXPECT_NE(call(), ORVIX_SUCCESS);
            OrvixErrorInfo e = lastError();
            EXPECT_EQ(e.code, ORVIX_ERR_NO_BOARD_SELECTED);
            EXPECT_EQ(e.function, function);
        }
    }
    EXPECT_TRUE(dir.entries().empty()) << "a failed save writes nothing";
}

TEST_F(SharedLibraryTest, OpensSetsAndReportsErrorsThroughTheRecord) {
    int32_t n = 0;
    ASSERT_EQ(abi_.GetBoardCount(ORVIX_BOARD_TYPE_PCIE, &n), ORVIX_SUCCESS);
    ASSERT_EQ(n, 2);
    char text[ORVIX_BOARD_NAME_MAX];
    uint32_t size = sizeof text;
    ASSERT_EQ(abi_.GetBoardName(ORVIX_BOARD_TYPE_PCIE, 0, text, &size), ORVIX_SUCCESS);
    EXPECT_STREQ(text, "PCIe-CL Full Simulator");

    OrvixHandle h = abi_.Open(ORVIX_BOARD_TYPE_PCIE, 0);
    ASSERT_EQ(h, 1);
    EXPECT_EQ(abi_.Open(ORVIX_BOARD_TYPE_PCIE, 0), ORVIX_INVALID_HANDLE);
    EXPECT_EQ(lastError().code, ORVIX_ERR_OPEN_FAILED);
    EXPECT_EQ(lastError(1).code, ORVIX_ERR_NONE) << "the clearing read reset the record";

    uint32_t v = 0;
    ASSERT_EQ(abi_.GetInfo(h, ORVIX_IMAGE_WIDTH, &v), ORVIX_SUCCESS);
    EXPECT_EQ(v, 1920u);
    ASSERT_EQ(abi_.GetInfo(h, ORVIX_BOARD_VERSION, &v), ORVIX_SUCCESS);
    EXPECT_EQ(v >> 16, 5u);

    EXPECT_NE(abi_.SetInfo(h, ORVIX_DATA_FORMAT, 9), ORVIX_SUCCESS);
    OrvixErrorInfo e = lastError(0);
    EXPECT_EQ(e.function, ORVIX_FN_SET_INFO);
    EXPECT_EQ(e.parameter, ORVIX_DATA_FORMAT);
    EXPECT_EQ(e.code, ORVIX_ERR_OUT_OF_RANGE);
    EXPECT_NE(std::strstr(e.text, "data format"), nullptr) << e.text;
    EXPECT_EQ(lastError(0).code, ORVIX_ERR_OUT_OF_RANGE) << "reading without clear keeps it";
    ASSERT_EQ(abi_.GetInfo(h, ORVIX_DATA_FORMAT, &v), ORVIX_SUCCESS);
    EXPECT_EQ(v, 8u);
    EXPECT_EQ(lastError(1).code, ORVIX_ERR_OUT_OF_RANGE) << "a success does not clear the record";

    EXPECT_NE(abi_.WriteRegister(h, 0x0000u, 0), ORVIX_SUCCESS);
    EXPECT_EQ(lastError().code, ORVIX_ERR_REGISTER_READ_ONLY);
    EXPECT_NE(abi_.ReadRegister(h, 6, &v), ORVIX_SUCCESS);
    e = lastError();
    EXPECT_EQ(e.code, ORVIX_ERR_REGISTER_UNALIGNED);
    EXPECT_EQ(e.parameter, 6);
    EXPECT_EQ(e.function, ORVIX_FN_READ_REGISTER);

    EXPECT_NE(abi_.GetInfo(h, ORVIX_IMAGE_WIDTH, nullptr), ORVIX_SUCCESS);
    EXPECT_EQ(lastError().code, ORVIX_ERR_INVALID_ARGUMENT);
    EXPECT_EQ(abi_.GetLastError(nullptr, 1), 0);

    ASSERT_EQ(abi_.Close(h), ORVIX_SUCCESS);
    EXPECT_NE(abi_.GetInfo(h, ORVIX_IMAGE_WIDTH, &v), ORVIX_SUCCESS);
    EXPECT_EQ(lastError().code, ORVIX_ERR_NO_BOARD_SELECTED);
}

TEST_F(SharedLibraryTest, ConfigurationFilesRoundTripThroughTheAbi) {
    test::TempDir dir;
    OrvixHandle h = abi_.Open(ORVIX_BOARD_TYPE_PCIE, 1);
    ASSERT_EQ(h, 2);
    ASSERT_EQ(abi_.SetInfo(h, ORVIX_IMAGE_HEIGHT, 1000), ORVIX_SUCCESS);
    const std::string path = dir.file("cl0_tap1_w2560_h1000.vlcf");
    ASSERT_EQ(abi_.SaveConfigurationToFile(h, path.c_str()), ORVIX_SUCCESS);
    ASSERT_EQ(abi_.SetInfo(h, ORVIX_IMAGE_HEIGHT, 8), ORVIX_SUCCESS);

    // A file that fails to load leaves every value as it was.
    test::writeFile(dir.file("old.vlcf"), "OrvixBoardConfiguration 0\n");
    EXPECT_NE(abi_.LoadConfigurationFromFile(h, dir.file("old.vlcf").c_str()), ORVIX_SUCCESS);
    EXPECT_EQ(lastError().code, ORVIX_ERR_FILE_VERSION);
    uint32_t v = 0;
    ASSERT_EQ(abi_.GetInfo(h, ORVIX_IMAGE_HEIGHT, &v), ORVIX_SUCCESS);
    EXPECT_EQ(v, 8u);

    ASSERT_EQ(abi_.LoadConfigurationFromFile(h, path.c_str()), ORVIX_SUCCESS);
    ASSERT_EQ(abi_.GetInfo(h, ORVIX_IMAGE_HEIGHT, &v), ORVIX_SUCCESS);
    EXPECT_EQ(v, 1000u);
    ASSERT_EQ(abi_.GetInfo(h, ORVIX_FRAME_SIZE_LOW, &v), ORVIX_SUCCESS);
    EXPECT_EQ(v, 2560u * 1000u * 2u);
    ASSERT_EQ(abi_.Close(h), ORVIX_SUCCESS);
}

TEST_F(SharedLibraryTest, ABrokenConfigurationIsReportedWithFileAndLine) {
    test::TempDir dir;
    test::writeFile(dir.file("bad.ini"), "[board0]\n\nbogus = 1\n");
    test::ScopedConfigEnv env(dir.file("bad.ini"));
    testing::internal::CaptureStderr();
    int32_t n = 9;
    int result = abi_.GetBoardCount(ORVIX_BOARD_TYPE_PCIE, &n);
    std::string err = testing::internal::GetCapturedStderr();
    EXPECT_NE(result, ORVIX_SUCCESS);
    EXPECT_EQ(n, 0);
    const std::string where = dir.file("bad.ini") + ":3: unknown key 'bogus'";
    EXPECT_EQ(err, "OrvixBoard: " + where + "\n");
    OrvixErrorInfo e = lastError();
    EXPECT_EQ(e.function, ORVIX_FN_GET_BOARD_COUNT);
    EXPECT_EQ(std::string(e.text), where);
    EXPECT_EQ(abi_.Open(ORVIX_BOARD_TYPE_PCIE, 0), ORVIX_INVALID_HANDLE);
}

// Reads buffers in ring order, as the application's frame-ready handler does.
struct AbiConsumer {
    const Abi* abi;
    OrvixHandle handle;
    uint32_t next = 0;
    std::vector<uint32_t> numbers;
    std::vector<uint32_t> lost;

    static void onEvent(uint32_t event, void* c) {
        auto* self = static_cast<AbiConsumer*>(c);
        uint32_t count = 0;
        if (event == ORVIX_EVENT_FRAME_LOST) {
            self->abi->GetInfo(self->handle, ORVIX_FRAME_LOST, &count);
            self->lost.push_back(count);
            return;
        }
        self->abi->GetInfo(self->handle, ORVIX_BUFFER_COUNT, &count);
        OrvixBufferStatus s{};
        if (self->abi->GetBufferStatusEx(self->handle, self->next++ % count, &s) == ORVIX_SUCCESS &&
            s.ready == 1) {
            self->numbers.push_back(s.frameNumber);
        }
    }
};

class SharedLibraryThreadTest : public SharedLibraryTest {};

TEST_F(SharedLibraryThreadTest, StreamsOnTheManualClockThroughTheAbi) {
    OrvixHandle h = abi_.Open(ORVIX_BOARD_TYPE_PCIE, 0);
    ASSERT_EQ(h, 1);
    ASSERT_EQ(abi_.SimSetManualClock(h, 1), ORVIX_SUCCESS);
    AbiConsumer consumer{&abi_, h, 0, {}, {}};
    for (uint32_t event : {ORVIX_EVENT_FRAME_READY, ORVIX_EVENT_FRAME_LOST}) {
        ASSERT_EQ(abi_.RegisterCallback(h, event, AbiConsumer::onEvent, &consumer), ORVIX_SUCCESS);
    }
    ASSERT_EQ(abi_.StartGrab(h, 0), ORVIX_SUCCESS);
    ASSERT_EQ(abi_.SimAdvanceFrames(h, 3), ORVIX_SUCCESS);
    EXPECT_EQ(consumer.numbers, (std::vector<uint32_t>{0, 1, 2}));
    double fps = 0;
    ASSERT_EQ(abi_.GetFrameRate(h, &fps), ORVIX_SUCCESS);
    EXPECT_NEAR(fps, 60.0, 1e-3);
    int32_t status = 0;
    ASSERT_EQ(abi_.GetCameraStatus(h, &status), ORVIX_SUCCESS);
    EXPECT_EQ(status, 0x7);

    // Ten frame periods at once: two frames are lost behind the ring of eight.
    ASSERT_EQ(abi_.SimAdvanceTime(h, 166667), ORVIX_SUCCESS);
    EXPECT_EQ(consumer.lost, (std::vector<uint32_t>{2, 2}));
    ASSERT_EQ(consumer.numbers.size(), 11u);
    EXPECT_EQ(consumer.numbers[3], 5u);
    EXPECT_EQ(consumer.numbers.back(), 12u);

    EXPECT_NE(abi_.SimSetManualClock(h, 0), ORVIX_SUCCESS) << "not during a grab";
    ASSERT_EQ(abi_.StopGrab(h), ORVIX_SUCCESS);
    for (uint32_t event : {ORVIX_EVENT_FRAME_READY, ORVIX_EVENT_FRAME_LOST}) {
        ASSERT_EQ(abi_.UnRegisterCallback(h, event), ORVIX_SUCCESS);
    }
    EXPECT_NE(abi_.SimAdvanceFrames(h, 1), ORVIX_SUCCESS);
    EXPECT_EQ(lastError().code, ORVIX_ERR_NOT_GRABBING);
    ASSERT_EQ(abi_.Close(h), ORVIX_SUCCESS);
}

// What the application relies on when it frees a callback's context: once
// OrvixUnRegisterCallback has returned, that callback neither runs nor is running. The board runs
// on its virtual clock (frames back to back) and each callback lingers, so most unregistrations
// land while one runs; a callback still running or run afterwards would be seen by the check
// below, and by AddressSanitizer and ThreadSanitizer as a use of freed memory.
TEST_F(SharedLibraryThreadTest, AContextFreedRightAfterUnregisteringIsNeverTouchedAgain) {
    test::TempDir dir;
    test::writeFile(dir.file("fast.ini"), "[board0]\nwidth=64\nheight=8\nclock=virtual\n");
    test::ScopedConfigEnv env(dir.file("fast.ini"));
    const OrvixHandle h = abi_.Open(ORVIX_BOARD_TYPE_PCIE, 0);
    ASSERT_NE(h, ORVIX_INVALID_HANDLE);
    struct Context {
        std::atomic<int> calls{0};
        std::atomic<bool> inside{false};
        static void onFrame(uint32_t, void* c) {
            auto* self = static_cast<Context*>(c);
            self->inside = true;
            for (int spin = 0; spin < 2000; ++spin) {
                self->calls.fetch_add(1, std::memory_order_relaxed);
            }
            self->inside = false;
        }
    };
    ASSERT_EQ(abi_.StartGrab(h, 0), ORVIX_SUCCESS);
    for (int round = 0; round < 200; ++round) {
        auto context = std::make_unique<Context>();
        ASSERT_EQ(
            abi_.RegisterCallback(h, ORVIX_EVENT_FRAME_READY, Context::onFrame, context.get()),
            ORVIX_SUCCESS);
        while (context->calls.load() == 0) {
            std::this_thread::yield();
        }
        ASSERT_EQ(abi_.UnRegisterCallback(h, ORVIX_EVENT_FRAME_READY), ORVIX_SUCCESS);
        EXPECT_FALSE(context->inside) << "round " << round;
        context.reset();  // freed at once, as the grab engine frees its contexts
    }
    ASSERT_EQ(abi_.StopGrab(h), ORVIX_SUCCESS);
    ASSERT_EQ(abi_.Close(h), ORVIX_SUCCESS);
}

}  // namespace
}  // namespace orvix::sim
