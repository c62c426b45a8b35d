// libOrvixAravis through the workbench, with Aravis's fake camera on 127.0.0.1: a camera named
// but absent, a camera that disappears during a grab and comes back, refused values, damaged
// configuration files, and the camera list read from the INI file next to the library. Every
// fault reaches the user in the system's own words and the workbench stays usable.
#include <gtest/gtest.h>
#include <stdlib.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <deque>
#include <filesystem>
#include <fstream>
#include <mutex>

#include "base/settings.h"
#include "fake_camera.h"
#include "support/recording_log.h"
#include "workbench/workbench.h"

namespace lumetra::test {
namespace {

using namespace std::chrono_literals;

constexpr auto kPatience = 60s;

// The main frame's queue: posts from any thread, handled on the test's thread.
class Sink final : public MessageSink {
  public:
    void post(uint32_t message, intptr_t w, intptr_t l) override {
        {
            std::lock_guard lock(mutex_);
            queue_.push_back({message, w, l});
        }
        cv_.notify_all();
    }
    // Hands the queue to the workbench until `message` has come by (true) or the patience ends.
    bool DispatchUntil(Workbench& wb, uint32_t message) {
        const auto deadline = std::chrono::steady_clock::now() + kPatience;
        while (true) {
            std::deque<Message> batch;
            {
                std::unique_lock lock(mutex_);
                if (!cv_.wait_until(lock, deadline, [&] { return !queue_.empty(); })) {
                    return false;
                }
                batch.swap(queue_);
            }
            bool seen = false;
            for (const Message& m : batch) {
                wb.Handle(m.message, m.w, m.l);
                seen = seen || m.message == message;
            }
            if (seen) {
                return true;
            }
        }
    }
    void Dispatch(Workbench& wb) {
        std::deque<Message> batch;
        {
            std::lock_guard lock(mutex_);
            batch.swap(queue_);
        }
        for (const Message& m : batch) {
            wb.Handle(m.message, m.w, m.l);
        }
    }

  private:
    struct Message {
        uint32_t message;
        intptr_t w, l;
    };
    std::mutex mutex_;
    std::condition_variable cv_;
    std::deque<Message> queue_;
};

class SilentPrompt final : public Prompt {
  public:
    void information(std::string_view text) override { boxes.emplace_back(text); }
    PromptAnswer question(std::string_view, std::string_view) override { return PromptAnswer::kNo; }
    std::optional<std::string> openFile(const FileRequest&) override { return std::nullopt; }
    std::optional<std::string> saveFile(const FileRequest&) override { return std::nullopt; }
    std::vector<std::string> boxes;
};

class AravisWorkbench : public ::testing::Test {
  protected:
    void SetUp() override {
        dir = std::filesystem::temp_directory_path() /
              ("lumetra-aravis-" + std::to_string(::getpid()) + "-" +
               ::testing::UnitTest::GetInstance()->current_test_info()->name());
        std::filesystem::remove_all(dir);
        std::filesystem::create_directories(dir);
        ::setenv("LUMETRA_ARAVIS_CAMERAS", kFakeCameraAddress, 1);
        ::unsetenv("ORVIX_DISCOVER");
    }
    void TearDown() override {
        workbench.reset();
        library.reset();
        camera.Stop();
        ::unsetenv("LUMETRA_ARAVIS_CAMERAS");
        std::filesystem::remove_all(dir);
    }

    void Load(const std::string& path = ARAVIS_LIBRARY) {
        BoardLibraryLoad load = LoadBoardLibrary(path);
        ASSERT_TRUE(load.library) << load.error;
        library = std::move(load.library);
    }
    void OpenWorkbench() {
        WorkbenchServices s;
        s.library = library.get();
        s.settings = &settings;
        s.log = &log;
        s.sink = &sink;
        s.prompt = &prompt;
        s.resourceConfigPath = (dir / "BoardConfig.ini").string();
        workbench = std::make_unique<Workbench>(s);
    }
    bool Logged(const std::string& line) {
        const std::vector<std::string> lines = log.lines();
        return std::find(lines.begin(), lines.end(), line) != lines.end();
    }
    // Waits until the grab engine has counted n frames.
    bool WaitFrames(uint32_t n) {
        const auto deadline = std::chrono::steady_clock::now() + kPatience;
        while (workbench->engine().context().frameCounter < n) {
            if (std::chrono::steady_clock::now() >= deadline) {
                return false;
            }
            sink.Dispatch(*workbench);
            std::this_thread::sleep_for(5ms);
        }
        return true;
    }

    std::filesystem::path dir;
    FakeCamera camera;
    std::unique_ptr<BoardLibrary> library;
    MemorySettings settings;
    RecordingLog log;
    Sink sink;
    SilentPrompt prompt;
    std::unique_ptr<Workbench> workbench;
};

TEST_F(AravisWorkbench, ACameraNamedButAbsentIsNamedInTheErrorsAndLeavesNoBoard) {
    const std::string why = camera.Reserve();  // and so no fake camera runs meanwhile
    ASSERT_TRUE(why.empty()) << why;
    ASSERT_NO_FATAL_FAILURE(Load());
    int32_t count = 0;
    ASSERT_EQ(library->GetBoardCount(ORVIX_BOARD_TYPE_PCIE, &count), ORVIX_SUCCESS);
    EXPECT_EQ(count, 1);
    char name[ORVIX_BOARD_NAME_MAX] = {};
    uint32_t size = sizeof name;
    EXPECT_NE(library->GetBoardName(ORVIX_BOARD_TYPE_PCIE, 0, name, &size), ORVIX_SUCCESS);
    EXPECT_STREQ(name, "127.0.0.1") << "the listing shows which camera is missing";
    OrvixErrorInfo e{};
    library->GetLastError(&e, 1);
    EXPECT_EQ(e.code, ORVIX_ERR_NO_SUCH_BOARD);
    EXPECT_STREQ(e.text, "Get board name: camera 127.0.0.1 does not answer");
    EXPECT_EQ(library->Open(ORVIX_BOARD_TYPE_PCIE, 0), ORVIX_INVALID_HANDLE);
    library->GetLastError(&e, 1);
    EXPECT_EQ(e.code, ORVIX_ERR_OPEN_FAILED);
    EXPECT_NE(std::string(e.text).find("camera 127.0.0.1 does not answer"), std::string::npos)
        << e.text;

    // The workbench runs without a board and says so in its own words.
    ASSERT_NO_FATAL_FAILURE(OpenWorkbench());
    EXPECT_FALSE(workbench->document().hasBoard());
    workbench->SoftwareTrigger();
    EXPECT_TRUE(Logged("Board has not been selected.\n"));
}

TEST_F(AravisWorkbench, ACameraThatDisappearsDuringAGrabStopsItAndTheNextGrabAfterItsReturnWorks) {
    ASSERT_EQ(camera.Start(), "");
    ASSERT_NO_FATAL_FAILURE(Load());
    ASSERT_NO_FATAL_FAILURE(OpenWorkbench());
    ASSERT_TRUE(workbench->document().hasBoard());
    ASSERT_TRUE(workbench->GrabContinuous());
    ASSERT_TRUE(WaitFrames(5));

    camera.Stop();
    // The watch-dog sees the camera's signals gone and the workbench stops the grab.
    ASSERT_TRUE(sink.DispatchUntil(*workbench, msg::kSignalLost));
    EXPECT_TRUE(Logged("Board signal abnormal.Grab Stop\n"));
    EXPECT_TRUE(workbench->engine().idle());
    int32_t status = -1;
    library->GetCameraStatus(workbench->document().handle(), &status);
    EXPECT_EQ(status, 0);

    // While it is away a single shot fails with the system's text.
    workbench->GrabOnce();
    sink.Dispatch(*workbench);
    EXPECT_TRUE(Logged("Grab (1 Shot) fail. Please check the paramter and board signal\n"));

    ASSERT_EQ(camera.Start(), "");
    log.clear();
    workbench->GrabOnce();
    sink.Dispatch(*workbench);
    EXPECT_TRUE(Logged("Grab (1 Shot) completed\n"));
    library->GetCameraStatus(workbench->document().handle(), &status);
    EXPECT_EQ(status, 0x7);

    // And a continuous grab runs again.
    const uint32_t before = workbench->engine().context().frameCounter;
    ASSERT_TRUE(workbench->GrabContinuous());
    ASSERT_TRUE(WaitFrames(before + 3));
    workbench->GrabStop();
    sink.Dispatch(*workbench);
    EXPECT_TRUE(Logged("Grab Stop\n"));
}

TEST_F(AravisWorkbench, RefusedValuesAndDamagedFilesGiveTheSystemsTexts) {
    ASSERT_EQ(camera.Start(), "");
    ASSERT_NO_FATAL_FAILURE(Load());
    ASSERT_NO_FATAL_FAILURE(OpenWorkbench());
    CKELM_PCIE_VexCardDoc& doc = workbench->document();
    ASSERT_TRUE(doc.hasBoard());
    const uint32_t width = doc.parameters().width();

    // A width the camera refuses, and the board's own settings a camera lacks.
    doc.parameters().set(ORVIX_IMAGE_WIDTH, 5000);
    doc.ApplyParameters();
    EXPECT_TRUE(Logged("Set image width failed"));
    EXPECT_TRUE(Logged("Set cc1 source failed"));
    EXPECT_TRUE(Logged("Set tap offset x failed"));
    EXPECT_FALSE(Logged("Set image height failed"));
    EXPECT_FALSE(Logged("Set data format failed"));
    EXPECT_FALSE(Logged("Set board trigger mode failed"));
    doc.ReadBackParameters();
    EXPECT_EQ(doc.parameters().width(), width) << "the camera kept its width";

    // A damaged configuration file is refused whole.
    const std::string file = (dir / "camera.vlcf").string();
    ASSERT_TRUE(workbench->SaveConfigurationTo(file));
    EXPECT_TRUE(Logged("Save configuration successful!"));
    std::string text;
    {
        std::ifstream in(file, std::ios::binary);
        text.assign(std::istreambuf_iterator<char>(in), {});
    }
    const size_t at = text.find("\nHeight=");
    ASSERT_NE(at, std::string::npos);
    text[at + 8] = text[at + 8] == '1' ? '2' : '1';
    std::ofstream(file, std::ios::binary | std::ios::trunc) << text;
    log.clear();
    EXPECT_FALSE(workbench->LoadConfiguration(file));
    EXPECT_TRUE(
        Logged("The selected configuration file is not the latest version or the configuration "
               "parameter is invalid.Please select other configuration file.\n"));

    // The workbench goes on.
    log.clear();
    workbench->GrabOnce();
    sink.Dispatch(*workbench);
    EXPECT_TRUE(Logged("Grab (1 Shot) completed\n"));
}

TEST_F(AravisWorkbench, ColourFramesComeInTheOrderTheImageTypeSays) {
    ASSERT_EQ(camera.Start(), "");
    ASSERT_NO_FATAL_FAILURE(Load());
    int32_t count = 0;
    ASSERT_EQ(library->GetBoardCount(ORVIX_BOARD_TYPE_PCIE, &count), ORVIX_SUCCESS);
    const OrvixHandle h = library->Open(ORVIX_BOARD_TYPE_PCIE, 0);
    ASSERT_NE(h, ORVIX_INVALID_HANDLE);
    // The fake camera's RGB8 rows: red climbs by 4 per pixel, green is 255, blue falls by 4.
    struct Case {
        uint32_t imageType;
        int firstStep;  // from pixel 0 to pixel 1 in the first sample, modulo 256
        int lastStep;   // in the third
    };
    for (const Case c : {Case{3, 4, 252}, Case{1, 252, 4}, Case{3, 4, 252}}) {
        SCOPED_TRACE(c.imageType);
        ASSERT_EQ(library->SetInfo(h, ORVIX_IMAGE_TYPE, c.imageType), ORVIX_SUCCESS);
        ASSERT_EQ(library->SetInfo(h, ORVIX_DATA_FORMAT, 8), ORVIX_SUCCESS);
        ASSERT_EQ(library->StartGrab(h, 1), ORVIX_SUCCESS);
        void* address = nullptr;
        ASSERT_EQ(library->GetBufferAddress(h, 0, &address), ORVIX_SUCCESS);
        const auto* p = static_cast<const uint8_t*>(address);
        EXPECT_EQ(p[1], 255);
        EXPECT_EQ(p[4], 255);
        EXPECT_EQ((p[3] - p[0] + 256) % 256, c.firstStep);
        EXPECT_EQ((p[5] - p[2] + 256) % 256, c.lastStep);
    }
    EXPECT_EQ(library->Close(h), ORVIX_SUCCESS);
}

TEST_F(AravisWorkbench, TheCameraListComesFromTheIniFileNextToTheLibrary) {
    ::unsetenv("LUMETRA_ARAVIS_CAMERAS");
    ASSERT_EQ(camera.Start(), "");
    // A copy of the library in a folder of its own, with its INI file.
    const std::filesystem::path copy = dir / "libOrvixAravis.so";
    std::filesystem::copy_file(std::filesystem::canonical(ARAVIS_LIBRARY), copy);
    std::ofstream(dir / "OrvixAravis.ini")
        << "# the lab's camera\n[cameras]\ncameras = 127.0.0.1\n";
    ASSERT_NO_FATAL_FAILURE(Load(copy.string()));
    int32_t count = 0;
    ASSERT_EQ(library->GetBoardCount(ORVIX_BOARD_TYPE_PCIE, &count), ORVIX_SUCCESS);
    ASSERT_EQ(count, 1);
    char name[ORVIX_BOARD_NAME_MAX] = {};
    uint32_t size = sizeof name;
    ASSERT_EQ(library->GetBoardName(ORVIX_BOARD_TYPE_PCIE, 0, name, &size), ORVIX_SUCCESS);
    EXPECT_STREQ(name, "Aravis Fake");

    // A malformed file names itself and its line, and offers no camera.
    std::ofstream(dir / "OrvixAravis.ini", std::ios::trunc) << "\ncameras 127.0.0.1\n";
    EXPECT_NE(library->GetBoardCount(ORVIX_BOARD_TYPE_PCIE, &count), ORVIX_SUCCESS);
    EXPECT_EQ(count, 0);
    OrvixErrorInfo e{};
    library->GetLastError(&e, 1);
    EXPECT_EQ(e.code, ORVIX_ERR_INVALID_ARGUMENT);
    EXPECT_EQ(std::string(e.text), (dir / "OrvixAravis.ini").string() + ":2: not 'key = value'");

    // The variable wins over the file.
    ::setenv("LUMETRA_ARAVIS_CAMERAS", "127.0.0.1", 1);
    ASSERT_EQ(library->GetBoardCount(ORVIX_BOARD_TYPE_PCIE, &count), ORVIX_SUCCESS);
    EXPECT_EQ(count, 1);
}

}  // namespace
}  // namespace lumetra::test
