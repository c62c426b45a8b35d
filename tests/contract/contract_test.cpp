// One contract for every board library, through the application's loader: the simulated board
// and libOrvixAravis on Aravis's fake GigE Vision camera run the same cases. What a library
// cannot do is skipped for that library only, saying why.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <mutex>
#include <thread>
#include <vector>

#include "acquisition/board_library.h"
#include "backends.h"

namespace lumetra::test {
namespace {

using namespace std::chrono_literals;

// Waits for what a library thread does are bounded only to keep a broken library from hanging
// the run; a working one is far quicker.
constexpr auto kPatience = 60s;

std::string ReadText(const std::filesystem::path& path) {
    std::ifstream in(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), {});
}

void WriteText(const std::filesystem::path& path, const std::string& text) {
    std::ofstream(path, std::ios::binary | std::ios::trunc) << text;
}

// The events of one grab as a consumer sees them: each frame-ready event reads the next buffer
// of the ring, as the grab engine does.
class Events {
  public:
    Events(BoardLibrary& lib, OrvixHandle handle, uint32_t buffers)
        : lib_(lib), handle_(handle), buffers_(buffers) {}

    static void OnReady(uint32_t event, void* self) {
        auto* e = static_cast<Events*>(self);
        OrvixBufferStatus status{};
        const bool read =
            e->lib_.GetBufferStatusEx(e->handle_, e->next_ % e->buffers_, &status) == ORVIX_SUCCESS;
        std::lock_guard lock(e->mutex_);
        e->events_.push_back(event);
        if (e->stopped_) {
            ++e->afterStop_;
        }
        e->numbers_.push_back(read && status.ready == 1 ? status.frameNumber : UINT32_MAX);
        ++e->next_;
        e->cv_.notify_all();
    }
    static void OnOther(uint32_t event, void* self) {
        auto* e = static_cast<Events*>(self);
        std::lock_guard lock(e->mutex_);
        e->events_.push_back(event);
        if (e->stopped_) {
            ++e->afterStop_;
        }
        e->cv_.notify_all();
    }

    void Register() {
        ASSERT_EQ(lib_.RegisterCallback(handle_, ORVIX_EVENT_FRAME_READY, &OnReady, this),
                  ORVIX_SUCCESS);
        for (uint32_t ev :
             {ORVIX_EVENT_FRAME_START, ORVIX_EVENT_FRAME_TIMEOUT, ORVIX_EVENT_FRAME_LOST}) {
            ASSERT_EQ(lib_.RegisterCallback(handle_, ev, &OnOther, this), ORVIX_SUCCESS);
        }
    }
    void Unregister() {
        for (uint32_t ev : {ORVIX_EVENT_FRAME_READY, ORVIX_EVENT_FRAME_START,
                            ORVIX_EVENT_FRAME_TIMEOUT, ORVIX_EVENT_FRAME_LOST}) {
            EXPECT_EQ(lib_.UnRegisterCallback(handle_, ev), ORVIX_SUCCESS);
        }
    }
    bool WaitFrames(size_t n) {
        std::unique_lock lock(mutex_);
        return cv_.wait_for(lock, kPatience, [&] { return numbers_.size() >= n; });
    }
    // From now on every event is a fault: the board was stopped.
    void MarkStopped() {
        std::lock_guard lock(mutex_);
        stopped_ = true;
    }
    std::vector<uint32_t> numbers() const {
        std::lock_guard lock(mutex_);
        return numbers_;
    }
    size_t count(uint32_t event) const {
        std::lock_guard lock(mutex_);
        return static_cast<size_t>(std::count(events_.begin(), events_.end(), event));
    }
    int afterStop() const {
        std::lock_guard lock(mutex_);
        return afterStop_;
    }

  private:
    BoardLibrary& lib_;
    const OrvixHandle handle_;
    const uint32_t buffers_;
    mutable std::mutex mutex_;
    std::condition_variable cv_;
    uint32_t next_ = 0;
    bool stopped_ = false;
    int afterStop_ = 0;
    std::vector<uint32_t> events_;
    std::vector<uint32_t> numbers_;
};

class BoardContract : public ::testing::TestWithParam<std::string> {
  protected:
    void SetUp() override {
        backend = MakeBackend(GetParam());
        dir = std::filesystem::temp_directory_path() /
              ("lumetra-contract-" + std::to_string(::getpid()) + "-" + GetParam());
        std::filesystem::remove_all(dir);
        std::filesystem::create_directories(dir);
    }
    void TearDown() override {
        if (lib && handle != ORVIX_INVALID_HANDLE) {
            lib->StopGrab(handle);
            lib->Close(handle);
        }
        lib.reset();
        backend->TearDown();
        std::filesystem::remove_all(dir);
    }

    // Prepares the board, loads the library through the loader and opens board 0.
    void Open(uint32_t stopFailures = 0) {
        const std::string why = backend->SetUp(dir, stopFailures);
        ASSERT_TRUE(why.empty()) << why;
        BoardLibraryLoad load = LoadBoardLibrary(backend->library());
        ASSERT_TRUE(load.library) << load.error;
        lib = std::move(load.library);
        int32_t count = 0;
        ASSERT_EQ(lib->GetBoardCount(ORVIX_BOARD_TYPE_PCIE, &count), ORVIX_SUCCESS);
        ASSERT_GE(count, 1);
        handle = lib->Open(ORVIX_BOARD_TYPE_PCIE, 0);
        ASSERT_NE(handle, ORVIX_INVALID_HANDLE) << LastError().text;
        Clear();
    }
    OrvixErrorInfo LastError(int32_t clear = 1) {
        OrvixErrorInfo e{};
        EXPECT_EQ(lib->GetLastError(&e, clear), ORVIX_SUCCESS);
        return e;
    }
    void Clear() { LastError(1); }
    uint32_t Get(uint32_t id) {
        uint32_t v = 0xDEADBEEF;
        EXPECT_EQ(lib->GetInfo(handle, id, &v), ORVIX_SUCCESS)
            << std::hex << id << ": " << LastError().text;
        return v;
    }
    void Set(uint32_t id, uint32_t value) {
        EXPECT_EQ(lib->SetInfo(handle, id, value), ORVIX_SUCCESS)
            << std::hex << id << "=" << std::dec << value << ": " << LastError().text;
    }
    // A failing call's error code; the record is cleared.
    int32_t FailureCode(int result) {
        EXPECT_NE(result, ORVIX_SUCCESS);
        return LastError().code;
    }
    void SetGeometry(std::pair<uint32_t, uint32_t> g) {
        Set(ORVIX_IMAGE_WIDTH, g.first);
        Set(ORVIX_IMAGE_HEIGHT, g.second);
    }
    // The format writes in the order the parameter apply makes them.
    void SetFormat(const FormatCase& f) {
        Set(ORVIX_IMAGE_TYPE, f.imageType);
        Set(ORVIX_BAYER_PATTERN, f.bayer);
        Set(ORVIX_DATA_FORMAT, f.dataFormat);
        Set(ORVIX_BAYER_PATTERN, f.bayer);
    }
    uint64_t FrameSize() {
        return (uint64_t{Get(ORVIX_FRAME_SIZE_HIGH)} << 32) | Get(ORVIX_FRAME_SIZE_LOW);
    }

    std::unique_ptr<Backend> backend;
    std::filesystem::path dir;
    std::unique_ptr<BoardLibrary> lib;
    OrvixHandle handle = ORVIX_INVALID_HANDLE;
};

TEST_P(BoardContract, EnumeratesNamesAndOpensEachBoardOnce) {
    ASSERT_NO_FATAL_FAILURE(Open());
    int32_t count = 0;
    ASSERT_EQ(lib->GetBoardCount(ORVIX_BOARD_TYPE_PCIE, &count), ORVIX_SUCCESS);

    char name[ORVIX_BOARD_NAME_MAX] = {};
    uint32_t size = sizeof name;
    ASSERT_EQ(lib->GetBoardName(ORVIX_BOARD_TYPE_PCIE, 0, name, &size), ORVIX_SUCCESS);
    const std::string full = name;
    EXPECT_FALSE(full.empty());
    EXPECT_EQ(size, full.size() + 1);
    // A buffer too small gets as much as fits, terminated, and the call fails.
    char small[4] = {'x', 'x', 'x', 'x'};
    uint32_t smallSize = sizeof small;
    EXPECT_EQ(FailureCode(lib->GetBoardName(ORVIX_BOARD_TYPE_PCIE, 0, small, &smallSize)),
              ORVIX_ERR_INVALID_ARGUMENT);
    EXPECT_EQ(std::string(small), full.substr(0, 3));

    EXPECT_EQ(lib->Open(ORVIX_BOARD_TYPE_PCIE, 0), ORVIX_INVALID_HANDLE);
    EXPECT_EQ(LastError().code, ORVIX_ERR_OPEN_FAILED);
    EXPECT_EQ(lib->Open(ORVIX_BOARD_TYPE_PCIE, count), ORVIX_INVALID_HANDLE);
    EXPECT_EQ(LastError().code, ORVIX_ERR_NO_SUCH_BOARD);
    EXPECT_EQ(lib->Open(3, 0), ORVIX_INVALID_HANDLE);
    EXPECT_EQ(LastError().code, ORVIX_ERR_NO_SUCH_BOARD);

    EXPECT_EQ(lib->Close(handle), ORVIX_SUCCESS);
    EXPECT_EQ(FailureCode(lib->Close(handle)), ORVIX_ERR_NO_BOARD_SELECTED);
    handle = lib->Open(ORVIX_BOARD_TYPE_PCIE, 0);
    EXPECT_NE(handle, ORVIX_INVALID_HANDLE) << "a closed board opens again";
}

TEST_P(BoardContract, ParametersReadBackWhatWasSetAndRefuseWithTheirCodes) {
    ASSERT_NO_FATAL_FAILURE(Open());
    const auto [w, h] = backend->otherGeometry();
    Set(ORVIX_IMAGE_WIDTH, w);
    Set(ORVIX_IMAGE_HEIGHT, h);
    Set(ORVIX_BUFFER_COUNT, 5);
    Set(ORVIX_BOARD_TRIGGER_MODE, 1);
    Set(ORVIX_EXTERNAL_TRIGGER_TIMEOUT, 1234);
    EXPECT_EQ(Get(ORVIX_IMAGE_WIDTH), w);
    EXPECT_EQ(Get(ORVIX_IMAGE_HEIGHT), h);
    EXPECT_EQ(Get(ORVIX_BUFFER_COUNT), 5u);
    EXPECT_EQ(Get(ORVIX_BOARD_TRIGGER_MODE), 1u);
    EXPECT_EQ(Get(ORVIX_EXTERNAL_TRIGGER_TIMEOUT), 1234u);
    Set(ORVIX_BOARD_TRIGGER_MODE, 0);
    EXPECT_EQ(Get(ORVIX_BOARD_TRIGGER_MODE), 0u);
    Set(ORVIX_TAP_NUMBER, 1);  // the parameter apply's first write
    EXPECT_EQ(Get(ORVIX_TAP_NUMBER), 1u);
    EXPECT_EQ(Get(ORVIX_BOARD_STATE), 0u);
    EXPECT_EQ(Get(ORVIX_JPEG_COMPRESS_ENABLE), 0u);
    Get(ORVIX_BOARD_VERSION);
    Get(ORVIX_BOARD_SERIAL);

    struct Refusal {
        uint32_t id;
        uint32_t value;
        int32_t code;
    };
    const Refusal refusals[] = {
        {ORVIX_IMAGE_WIDTH, 0x7FFFFFFF, ORVIX_ERR_OUT_OF_RANGE},
        {ORVIX_IMAGE_HEIGHT, 0, ORVIX_ERR_OUT_OF_RANGE},
        {ORVIX_BUFFER_COUNT, 0, ORVIX_ERR_OUT_OF_RANGE},
        {ORVIX_DATA_FORMAT, 9, ORVIX_ERR_OUT_OF_RANGE},
        {ORVIX_BOARD_VERSION, 1, ORVIX_ERR_REFUSED},
        {ORVIX_FRAME_LOST, 1, ORVIX_ERR_REFUSED},
        {0x1000FFFE, 1, ORVIX_ERR_INVALID_PARAMETER},
    };
    for (const Refusal& r : refusals) {
        SCOPED_TRACE(testing::Message() << std::hex << r.id << "=" << std::dec << r.value);
        EXPECT_NE(lib->SetInfo(handle, r.id, r.value), ORVIX_SUCCESS);
        const OrvixErrorInfo e = LastError();
        EXPECT_EQ(e.code, r.code) << e.text;
        EXPECT_EQ(e.function, ORVIX_FN_SET_INFO);
        EXPECT_EQ(static_cast<uint32_t>(e.parameter), r.id);
    }
    // A refused value leaves the old one.
    EXPECT_EQ(Get(ORVIX_IMAGE_WIDTH), w);
    uint32_t v = 0;
    EXPECT_EQ(FailureCode(lib->GetInfo(handle, 0x1000FFFE, &v)), ORVIX_ERR_INVALID_PARAMETER);

    // Frame-grabber settings a camera lacks fail, so that "Set ... failed" names them.
    const int cc1 = lib->SetInfo(handle, ORVIX_CC1_SOURCE, 1);
    if (backend->lacksFrameGrabberParameters()) {
        EXPECT_NE(cc1, ORVIX_SUCCESS);
        const OrvixErrorInfo e = LastError();
        EXPECT_EQ(e.code, ORVIX_ERR_INVALID_PARAMETER);
        EXPECT_STREQ(e.text, "Set cc1 source (0x10000018): a camera has no such setting");
        EXPECT_NE(lib->GetInfo(handle, ORVIX_CC1_SOURCE, &v), ORVIX_SUCCESS);
        EXPECT_EQ(LastError().code, ORVIX_ERR_INVALID_PARAMETER);
    } else {
        EXPECT_EQ(cc1, ORVIX_SUCCESS);
    }
    EXPECT_EQ(LastError().code, ORVIX_ERR_NONE) << "reading the record cleared it";
}

TEST_P(BoardContract, FrameSizeFollowsGeometryAndFormat) {
    ASSERT_NO_FATAL_FAILURE(Open());
    const auto [w, h] = backend->geometry();
    SetGeometry({w, h});
    SetFormat({0, 8, 0});
    EXPECT_EQ(FrameSize(), uint64_t{w} * h);
    EXPECT_EQ(Get(ORVIX_FRAME_SIZE), w * h);
    SetFormat({0, 16, 0});
    EXPECT_EQ(FrameSize(), uint64_t{w} * h * 2);
    SetFormat({3, 8, 0});
    EXPECT_EQ(FrameSize(), uint64_t{w} * h * 3);
    const auto [w2, h2] = backend->otherGeometry();
    SetGeometry({w2, h2});
    EXPECT_EQ(FrameSize(), uint64_t{w2} * h2 * 3);
}

TEST_P(BoardContract, FormatsReadBackAsWritten) {
    ASSERT_NO_FATAL_FAILURE(Open());
    for (const FormatCase& f : backend->formats()) {
        SCOPED_TRACE(testing::Message()
                     << "type " << f.imageType << " bits " << f.dataFormat << " bayer " << f.bayer);
        SetFormat(f);
        EXPECT_EQ(Get(ORVIX_IMAGE_TYPE), f.imageType);
        EXPECT_EQ(Get(ORVIX_DATA_FORMAT), f.dataFormat);
        EXPECT_EQ(Get(ORVIX_BAYER_PATTERN), f.bayer);
    }
    if (const auto missing = backend->missingFormat()) {
        SetFormat({missing->imageType, 8, missing->bayer});
        EXPECT_EQ(FailureCode(lib->SetInfo(handle, ORVIX_DATA_FORMAT, missing->dataFormat)),
                  ORVIX_ERR_OUT_OF_RANGE);
        EXPECT_EQ(Get(ORVIX_DATA_FORMAT), 8u) << "the refused format changed nothing";
    }
}

TEST_P(BoardContract, SingleShotPutsOneFrameInBufferZero) {
    ASSERT_NO_FATAL_FAILURE(Open());
    SetGeometry(backend->geometry());
    SetFormat({0, 8, 0});
    Events events(*lib, handle, Get(ORVIX_BUFFER_COUNT));
    ASSERT_NO_FATAL_FAILURE(events.Register());
    Set(ORVIX_GRAB_CONTINUOUS, 0);
    ASSERT_EQ(lib->StartGrab(handle, 1), ORVIX_SUCCESS) << LastError().text;
    events.MarkStopped();
    OrvixBufferStatus status{};
    ASSERT_EQ(lib->GetBufferStatusEx(handle, 0, &status), ORVIX_SUCCESS);
    EXPECT_EQ(status.ready, 1u);
    EXPECT_EQ(status.incomplete, 0u);
    EXPECT_EQ(status.overflow, 0u);
    EXPECT_EQ(status.frameNumber, 0u);
    void* address = nullptr;
    ASSERT_EQ(lib->GetBufferAddress(handle, 0, &address), ORVIX_SUCCESS);
    EXPECT_NE(address, nullptr);
    EXPECT_EQ(events.numbers(), std::vector<uint32_t>{0});
    EXPECT_EQ(events.count(ORVIX_EVENT_FRAME_START), 1u);
    EXPECT_EQ(events.afterStop(), 0) << "no event after the single shot returned";
    EXPECT_EQ(Get(ORVIX_BOARD_STATE), 0u);
    events.Unregister();
}

TEST_P(BoardContract, ContinuousGrabDeliversEveryFrameInOrderAndStopsCleanly) {
    ASSERT_NO_FATAL_FAILURE(Open());
    SetGeometry(backend->geometry());
    SetFormat({0, 8, 0});
    Set(ORVIX_BUFFER_COUNT, 4);
    Events events(*lib, handle, 4);
    ASSERT_NO_FATAL_FAILURE(events.Register());
    Set(ORVIX_ACQUISITION_MODE, 2);
    Set(ORVIX_GRAB_CONTINUOUS, 1);
    ASSERT_EQ(lib->StartGrab(handle, 0), ORVIX_SUCCESS) << LastError().text;
    constexpr size_t kFrames = 12;
    ASSERT_TRUE(events.WaitFrames(kFrames));
    EXPECT_EQ(Get(ORVIX_BOARD_STATE), 1u);
    int32_t cameraStatus = 0;
    ASSERT_EQ(lib->GetCameraStatus(handle, &cameraStatus), ORVIX_SUCCESS);
    EXPECT_EQ(cameraStatus & 0x7, 0x7) << "the camera's signals are there while it streams";
    double rate = 0;
    ASSERT_EQ(lib->GetFrameRate(handle, &rate), ORVIX_SUCCESS);
    EXPECT_GT(rate, 0.0);

    ASSERT_EQ(lib->StopGrab(handle), ORVIX_SUCCESS) << LastError().text;
    events.MarkStopped();
    const std::vector<uint32_t> numbers = events.numbers();
    ASSERT_GE(numbers.size(), kFrames);
    for (size_t i = 0; i < numbers.size(); ++i) {
        ASSERT_NE(numbers[i], UINT32_MAX) << "frame " << i << " was not ready";
        // No frame is lost, so the numbers count up one by one from 0.
        EXPECT_EQ(numbers[i], i);
    }
    EXPECT_EQ(Get(ORVIX_FRAME_LOST), 0u);
    EXPECT_EQ(events.count(ORVIX_EVENT_FRAME_LOST), 0u);
    EXPECT_EQ(events.count(ORVIX_EVENT_FRAME_TIMEOUT), 0u);
    EXPECT_GE(events.count(ORVIX_EVENT_FRAME_START), numbers.size());
    EXPECT_EQ(Get(ORVIX_BOARD_STATE), 0u);
    events.Unregister();
    EXPECT_EQ(events.afterStop(), 0) << "no callback runs once the stop has returned";

    // The next grab starts again at buffer 0 and frame 0.
    Events again(*lib, handle, 4);
    ASSERT_NO_FATAL_FAILURE(again.Register());
    ASSERT_EQ(lib->StartGrab(handle, 0), ORVIX_SUCCESS) << LastError().text;
    ASSERT_TRUE(again.WaitFrames(2));
    ASSERT_EQ(lib->StopGrab(handle), ORVIX_SUCCESS);
    again.Unregister();
    EXPECT_EQ(again.numbers().front(), 0u);
}

TEST_P(BoardContract, StopIsRetriedUntilTheBoardStops) {
    const uint32_t failures = backend->injectableStopFailures();
    ASSERT_NO_FATAL_FAILURE(Open(failures));
    SetGeometry(backend->geometry());
    ASSERT_EQ(lib->StartGrab(handle, 0), ORVIX_SUCCESS) << LastError().text;
    // The engine's way: up to five tries until one succeeds.
    int tries = 0;
    bool stopped = false;
    while (tries < 5 && !stopped) {
        ++tries;
        stopped = lib->StopGrab(handle) == ORVIX_SUCCESS;
        if (!stopped) {
            EXPECT_EQ(LastError().code, ORVIX_ERR_STOP_FAILED);
            EXPECT_EQ(Get(ORVIX_BOARD_STATE), 1u) << "a refused stop leaves the board grabbing";
        }
    }
    EXPECT_TRUE(stopped);
    EXPECT_EQ(tries, static_cast<int>(failures) + 1);
    EXPECT_EQ(Get(ORVIX_BOARD_STATE), 0u);
    EXPECT_EQ(lib->StopGrab(handle), ORVIX_SUCCESS) << "stopping an idle board succeeds";
    if (failures == 0) {
        GTEST_SKIP() << "stops were not refused: " << GetParam()
                     << " cannot be made to refuse a stop (the camera always stops)";
    }
}

TEST_P(BoardContract, SoftwareTriggerMakesOneFramePerTrigger) {
    ASSERT_NO_FATAL_FAILURE(Open());
    SetGeometry(backend->geometry());
    SetFormat({0, 8, 0});
    Set(ORVIX_BOARD_TRIGGER_SOURCE, 1);  // the software trigger
    Set(ORVIX_BOARD_TRIGGER_MODE, 1);
    EXPECT_EQ(Get(ORVIX_BOARD_TRIGGER_SOURCE), 1u);
    Events events(*lib, handle, Get(ORVIX_BUFFER_COUNT));
    ASSERT_NO_FATAL_FAILURE(events.Register());
    ASSERT_EQ(lib->StartGrab(handle, 0), ORVIX_SUCCESS) << LastError().text;
    for (size_t n = 1; n <= 3; ++n) {
        EXPECT_EQ(events.numbers().size(), n - 1) << "a frame came without a trigger";
        Set(ORVIX_SOFTWARE_TRIGGER_FIRE, 1);
        ASSERT_TRUE(events.WaitFrames(n));
    }
    ASSERT_EQ(lib->StopGrab(handle), ORVIX_SUCCESS);
    events.Unregister();
    EXPECT_EQ(events.numbers().size(), 3u);
    Set(ORVIX_BOARD_TRIGGER_MODE, 0);
}

TEST_P(BoardContract, RegistersReadWhatWasWrittenAndRefuseWithTheirCodes) {
    ASSERT_NO_FATAL_FAILURE(Open());
    const uint32_t scratch = backend->scratchRegister();
    uint32_t v = 0;
    for (uint32_t value : {0x12345678u, 0xCAFEF00Du}) {
        ASSERT_EQ(lib->WriteRegister(handle, scratch, value), ORVIX_SUCCESS) << LastError().text;
        ASSERT_EQ(lib->ReadRegister(handle, scratch, &v), ORVIX_SUCCESS);
        EXPECT_EQ(v, value);
    }
    EXPECT_EQ(FailureCode(lib->ReadRegister(handle, scratch + 2, &v)),
              ORVIX_ERR_REGISTER_UNALIGNED);
    EXPECT_EQ(FailureCode(lib->WriteRegister(handle, scratch + 1, 1)),
              ORVIX_ERR_REGISTER_UNALIGNED);
    std::string why;
    const std::optional<uint32_t> readOnly = backend->readOnlyRegister(why);
    if (!readOnly) {
        GTEST_SKIP() << "read-only register: " << why;
    }
    EXPECT_EQ(FailureCode(lib->WriteRegister(handle, *readOnly, 1)), ORVIX_ERR_REGISTER_READ_ONLY);
}

TEST_P(BoardContract, ConfigurationRoundTripsAndDamagedOrForeignFilesChangeNothing) {
    ASSERT_NO_FATAL_FAILURE(Open());
    const auto [w, h] = backend->geometry();
    const auto [w2, h2] = backend->otherGeometry();
    SetGeometry({w, h});
    Set(ORVIX_BUFFER_COUNT, 6);
    const std::string file = (dir / "board.vlcf").string();
    ASSERT_EQ(lib->SaveConfigurationToFile(handle, file.c_str()), ORVIX_SUCCESS)
        << LastError().text;
    SetGeometry({w2, h2});
    Set(ORVIX_BUFFER_COUNT, 3);
    ASSERT_EQ(lib->LoadConfigurationFromFile(handle, file.c_str()), ORVIX_SUCCESS)
        << LastError().text;
    EXPECT_EQ(Get(ORVIX_IMAGE_WIDTH), w);
    EXPECT_EQ(Get(ORVIX_IMAGE_HEIGHT), h);
    EXPECT_EQ(Get(ORVIX_BUFFER_COUNT), 6u);

    SetGeometry({w2, h2});
    const std::string good = ReadText(file);
    ASSERT_GT(good.size(), 40u);
    const std::string magic = backend->configurationMagic();
    ASSERT_EQ(good.rfind(magic + " ", 0), 0u);
    std::string flipped = good;
    flipped[good.size() / 2] ^= 0x01;
    std::string otherVersion = good;
    otherVersion.replace(0, good.find('\n'), magic + " 99");
    struct Bad {
        const char* what;
        std::string text;
        int32_t code;
    };
    const Bad bad[] = {
        {"a flipped bit", flipped, ORVIX_ERR_FILE_DAMAGED},
        {"cut short", good.substr(0, good.size() - 5), ORVIX_ERR_FILE_DAMAGED},
        {"another version", otherVersion, ORVIX_ERR_FILE_VERSION},
        {"another library's file", backend->foreignConfigurationLine() + "\ncrc32=0x0\n", 0},
        {"empty", "", ORVIX_ERR_FILE_DAMAGED},
    };
    for (const Bad& b : bad) {
        SCOPED_TRACE(b.what);
        const std::string path = (dir / "bad.vlcf").string();
        WriteText(path, b.text);
        EXPECT_NE(lib->LoadConfigurationFromFile(handle, path.c_str()), ORVIX_SUCCESS);
        const int32_t code = LastError().code;
        if (b.code != 0) {
            EXPECT_EQ(code, b.code);
        }
        EXPECT_NE(code, ORVIX_ERR_NO_BOARD_SELECTED);
        EXPECT_NE(code, ORVIX_ERR_NONE);
        EXPECT_EQ(Get(ORVIX_IMAGE_WIDTH), w2) << "the board kept its parameters";
        EXPECT_EQ(Get(ORVIX_IMAGE_HEIGHT), h2);
    }
    const std::string missing = (dir / "missing.vlcf").string();
    EXPECT_EQ(FailureCode(lib->LoadConfigurationFromFile(handle, missing.c_str())),
              ORVIX_ERR_FILE_IO);
    const std::string unwritable = (dir / "no-such-folder" / "x.vlcf").string();
    EXPECT_EQ(FailureCode(lib->SaveConfigurationToFile(handle, unwritable.c_str())),
              ORVIX_ERR_FILE_IO);
}

TEST_P(BoardContract, CallsWithoutABoardOrAtTheWrongTimeGiveTheCodesTheSystemTests) {
    ASSERT_NO_FATAL_FAILURE(Open());
    EXPECT_EQ(LastError().code, ORVIX_ERR_NONE);
    const OrvixHandle none = 999;
    uint32_t v = 0;
    void* address = nullptr;
    OrvixBufferStatus bs{};
    int32_t cs = 0;
    double fps = 0;
    const std::string file = (dir / "x.vlcf").string();
    const int results[] = {
        lib->GetInfo(none, ORVIX_IMAGE_WIDTH, &v),
        lib->SetInfo(none, ORVIX_IMAGE_WIDTH, 64),
        lib->StartGrab(none, 1),
        lib->StopGrab(none),
        lib->GetBufferAddress(none, 0, &address),
        lib->GetBufferStatusEx(none, 0, &bs),
        lib->GetCameraStatus(none, &cs),
        lib->GetFrameRate(none, &fps),
        lib->LoadConfigurationFromFile(none, file.c_str()),
        lib->SaveConfigurationToFile(none, file.c_str()),
        lib->ReadRegister(none, 0, &v),
        lib->WriteRegister(none, 0, 0),
        lib->RegisterCallback(none, ORVIX_EVENT_FRAME_READY, &Events::OnOther, nullptr),
        lib->UnRegisterCallback(none, ORVIX_EVENT_FRAME_READY),
    };
    for (size_t i = 0; i < std::size(results); ++i) {
        SCOPED_TRACE(i);
        EXPECT_NE(results[i], ORVIX_SUCCESS);
    }
    EXPECT_EQ(LastError().code, ORVIX_ERR_NO_BOARD_SELECTED);

    // A grab running refuses another start and changes of the frame.
    SetGeometry(backend->geometry());
    ASSERT_EQ(lib->StartGrab(handle, 0), ORVIX_SUCCESS) << LastError().text;
    EXPECT_EQ(FailureCode(lib->StartGrab(handle, 0)), ORVIX_ERR_GRAB_RUNNING);
    EXPECT_EQ(FailureCode(lib->SetInfo(handle, ORVIX_IMAGE_WIDTH, backend->otherGeometry().first)),
              ORVIX_ERR_GRAB_RUNNING);
    EXPECT_EQ(FailureCode(lib->LoadConfigurationFromFile(handle, file.c_str())),
              ORVIX_ERR_GRAB_RUNNING);
    ASSERT_EQ(lib->StopGrab(handle), ORVIX_SUCCESS);
}

TEST_P(BoardContract, ASingleShotUnderWayRefusesAnotherAndAStopAbortsIt) {
    ASSERT_NO_FATAL_FAILURE(Open());
    SetGeometry(backend->geometry());
    // Triggered, without a time limit: the single shot waits until it is stopped.
    Set(ORVIX_BOARD_TRIGGER_SOURCE, 1);
    Set(ORVIX_BOARD_TRIGGER_MODE, 1);
    Set(ORVIX_EXTERNAL_TRIGGER_TIMEOUT, 0);
    std::atomic<int> result{-1};
    std::thread shot([&] { result = lib->StartGrab(handle, 1); });
    const auto deadline = std::chrono::steady_clock::now() + kPatience;
    uint32_t state = 0;
    while (state != 1 && std::chrono::steady_clock::now() < deadline) {
        ASSERT_EQ(lib->GetInfo(handle, ORVIX_BOARD_STATE, &state), ORVIX_SUCCESS);
        std::this_thread::sleep_for(1ms);
    }
    ASSERT_EQ(state, 1u) << "the single shot did not start";
    EXPECT_EQ(FailureCode(lib->StartGrab(handle, 1)), ORVIX_ERR_SINGLE_SHOT_RUNNING);
    EXPECT_EQ(FailureCode(lib->StartGrab(handle, 0)), ORVIX_ERR_SINGLE_SHOT_RUNNING);
    ASSERT_EQ(lib->StopGrab(handle), ORVIX_SUCCESS);
    shot.join();
    EXPECT_NE(result.load(), ORVIX_SUCCESS);
    EXPECT_EQ(LastError().code, ORVIX_ERR_GRAB_ABORTED);
    EXPECT_EQ(Get(ORVIX_BOARD_STATE), 0u);
    Set(ORVIX_BOARD_TRIGGER_MODE, 0);
    ASSERT_EQ(lib->StartGrab(handle, 1), ORVIX_SUCCESS) << "the next single shot works";
}

TEST_P(BoardContract, UnregisteredCallbackNeitherRunsNorIsRunning) {
    ASSERT_NO_FATAL_FAILURE(Open());
    SetGeometry(backend->geometry());
    // The context dies with the unregistration: a late call would touch freed memory, which the
    // sanitizers report.
    struct Context {
        std::atomic<int> calls{0};
    };
    auto context = std::make_unique<Context>();
    auto onReady = [](uint32_t, void* c) {
        static_cast<Context*>(c)->calls++;
        std::this_thread::sleep_for(2ms);  // widens the window an early return would hit
    };
    ASSERT_EQ(lib->RegisterCallback(handle, ORVIX_EVENT_FRAME_READY, onReady, context.get()),
              ORVIX_SUCCESS);
    ASSERT_EQ(lib->StartGrab(handle, 0), ORVIX_SUCCESS) << LastError().text;
    const auto deadline = std::chrono::steady_clock::now() + kPatience;
    while (context->calls < 3 && std::chrono::steady_clock::now() < deadline) {
        std::this_thread::sleep_for(1ms);
    }
    ASSERT_GE(context->calls.load(), 3);
    ASSERT_EQ(lib->UnRegisterCallback(handle, ORVIX_EVENT_FRAME_READY), ORVIX_SUCCESS);
    context.reset();
    ASSERT_EQ(lib->StopGrab(handle), ORVIX_SUCCESS);
}

INSTANTIATE_TEST_SUITE_P(Libraries, BoardContract, ::testing::Values("Simulator", "Aravis"),
                         [](const auto& info) { return info.param; });

}  // namespace
}  // namespace lumetra::test
