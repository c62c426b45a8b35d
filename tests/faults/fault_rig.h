// The workbench on the simulated board with every fault within reach: the board's own fault keys
// (its INI), frames damaged on their way from the board, a disk and a memory that say what the
// test wants, and the front end's side played by a message queue, a log and a scripted prompt.
#pragma once

#include <algorithm>

#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "OrvixSim.h"
#include "base/settings.h"
#include "support/recording_log.h"
#include "support/sim_hooks.h"
#include "workbench/workbench.h"
#include "workbench/workbench_support.h"

namespace lumetra::test {

// The board library as the workbench sees it, with frames that can arrive damaged: a compressed
// frame whose announced size is cut short is a JPEG stream that ends early.
class DamagingLibrary final : public ForwardingBoardLibrary {
  public:
    using ForwardingBoardLibrary::ForwardingBoardLibrary;
    int GetBufferStatusEx(OrvixHandle h, uint32_t i, OrvixBufferStatus* s) override {
        const int r = inner_.GetBufferStatusEx(h, i, s);
        if (r == ORVIX_SUCCESS && truncateJpeg && s->compressedSize > 16) {
            s->compressedSize /= 3;
        }
        return r;
    }
    std::atomic<bool> truncateJpeg{false};
};

// Free space and memory load as the test sets them.
class SetSystem final : public SystemStatus {
  public:
    std::optional<uint64_t> availableBytes(const std::filesystem::path&) const override {
        return free.load();
    }
    MemoryStatus memory() const override { return {uint64_t{16} << 30, load.load()}; }
    std::atomic<uint64_t> free{uint64_t{100} << 30};
    std::atomic<int> load{20};
};

// Everything public: the fault table's rows reach it from outside the fixture.
class FaultRig : public ::testing::Test {
  public:
    void SetUp() override {
        // A table row's name is "Test/Row": one folder, so that TearDown removes all of it.
        std::string name = ::testing::UnitTest::GetInstance()->current_test_info()->name();
        std::replace(name.begin(), name.end(), '/', '-');
        dir = std::filesystem::temp_directory_path() /
              ("lumetra-faults-" + std::to_string(::getpid()) + "-" + name);
        std::filesystem::remove_all(dir);
        std::filesystem::create_directories(dir);
        BoardLibraryLoad load = LoadBoardLibrary(SIM_LIBRARY);
        ASSERT_TRUE(load.library) << load.error;
        library = std::move(load.library);
        const std::string why = hooks.Open(SIM_LIBRARY);
        ASSERT_TRUE(why.empty()) << why;
        damaging = std::make_unique<DamagingLibrary>(*library);
    }
    void TearDown() override {
        workbench.reset();
        damaging.reset();
        library.reset();
        hooks.Close();
        ::unsetenv("ORVIX_SIM_CONFIG");
        std::filesystem::remove_all(dir);
    }

    // The workbench on boards described by an INI text, the board's clock manual.
    void Open(const std::string& ini) {
        workbench.reset();
        const std::string path = (dir / "sim.ini").string();
        std::ofstream(path) << ini;
        ::setenv("ORVIX_SIM_CONFIG", path.c_str(), 1);
        WorkbenchServices s;
        s.library = damaging.get();
        s.settings = &settings;
        s.log = &log;
        s.sink = &sink;
        s.prompt = &prompt;
        s.clock = &clock;
        s.system = &system;
        s.resourceConfigPath = (dir / "BoardConfig.ini").string();
        workbench = std::make_unique<Workbench>(s);
        if (workbench->document().hasBoard()) {
            ASSERT_EQ(hooks.setManualClock(handle(), 1), ORVIX_SUCCESS);
        }
    }
    OrvixHandle handle() { return workbench->document().handle(); }
    void Frames(uint32_t n) { ASSERT_EQ(hooks.advanceFrames(handle(), n), ORVIX_SUCCESS); }
    void Dispatch() { sink.Dispatch(*workbench); }
    std::vector<std::string> Lines() { return log.lines(); }
    std::string Path(const std::string& name) const { return (dir / name).string(); }

    // The grab engine's figures once a grab has ended: every frame counted was shown or skipped.
    void ExpectFramesAccountedFor() {
        const GrabContext& g = workbench->engine().context();
        EXPECT_EQ(g.frameCounter.load(), g.framesDisplayed.load() + g.framesSkipped.load())
            << "displayed " << g.framesDisplayed << ", skipped " << g.framesSkipped;
    }

    // The operation after a fault: a continuous grab of a few frames that starts, runs and
    // stops with the usual texts.
    void ExpectGrabWorks(uint32_t frames = 4) {
        log.clear();
        ASSERT_TRUE(workbench->GrabContinuous()) << ::testing::PrintToString(Lines());
        Frames(frames);
        workbench->GrabStop();
        Dispatch();
        EXPECT_TRUE(workbench->engine().idle());
        EXPECT_EQ(workbench->engine().context().frameCounter, frames);
        ExpectFramesAccountedFor();
        EXPECT_EQ(Lines(), (std::vector<std::string>{"Start Grab", "Grab Stop\n"}));
    }

    std::filesystem::path dir;
    std::unique_ptr<BoardLibrary> library;
    std::unique_ptr<DamagingLibrary> damaging;
    SimHooks hooks;
    MemorySettings settings;
    RecordingLog log;
    QueueSink sink;
    ScriptedPrompt prompt;
    ManualClock clock;
    SetSystem system;
    std::unique_ptr<Workbench> workbench;
};

}  // namespace lumetra::test
