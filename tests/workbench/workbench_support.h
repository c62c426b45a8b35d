// The workbench on the simulated board: the real library through the loader, driven by the
// board's manual clock (frames come when the test asks for them) and the workbench's own manual
// clock, with the front end's side played by a message queue, a log and a scripted prompt.
#pragma once

#include <gtest/gtest.h>

#include <chrono>
#include <condition_variable>
#include <cstdlib>
#include <deque>
#include <filesystem>
#include <fstream>
#include <functional>
#include <mutex>
#include <thread>

#include "OrvixSim.h"
#include "base/settings.h"
#include "support/recording_log.h"
#include "support/sim_hooks.h"
#include "workbench/workbench.h"

namespace lumetra::test {

// The main frame's queue: posts from any thread, handled on the test's thread.
class QueueSink final : public MessageSink {
  public:
    struct Message {
        uint32_t message;
        intptr_t w, l;
    };
    void post(uint32_t message, intptr_t w, intptr_t l) override {
        {
            std::lock_guard lock(mutex_);
            queue_.push_back({message, w, l});
            all_.push_back({message, w, l});
        }
        cv_.notify_all();
    }
    // Hands what has queued to the workbench, as the main frame's message loop does.
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
    // Waits for a message that a thread of the core will post; the limit only keeps a broken
    // build from hanging.
    bool WaitFor(uint32_t message, std::chrono::seconds limit = std::chrono::seconds(60)) {
        std::unique_lock lock(mutex_);
        return cv_.wait_for(lock, limit, [&] {
            for (const Message& m : queue_) {
                if (m.message == message) {
                    return true;
                }
            }
            return false;
        });
    }
    size_t count(uint32_t message) const {
        std::lock_guard lock(mutex_);
        size_t n = 0;
        for (const Message& m : all_) {
            n += m.message == message ? 1 : 0;
        }
        return n;
    }

  private:
    mutable std::mutex mutex_;
    std::condition_variable cv_;
    std::deque<Message> queue_;
    std::vector<Message> all_;
};

// Boxes, questions and file dialogs answered from a script.
class ScriptedPrompt final : public Prompt {
  public:
    void information(std::string_view text) override { boxes.emplace_back(text); }
    PromptAnswer question(std::string_view text, std::string_view title) override {
        questions.emplace_back(std::string(text) + "|" + std::string(title));
        return answer;
    }
    PromptAnswer startPrompt(bool& alwaysShow) override {
        ++startPrompts;
        alwaysShow = keepShowing;
        return startAnswer;
    }
    std::optional<std::string> openFile(const FileRequest& r) override { return file(r); }
    std::optional<std::string> saveFile(const FileRequest& r) override { return file(r); }

    std::vector<std::string> boxes;
    std::vector<std::string> questions;
    std::vector<FileRequest> dialogs;
    std::optional<std::string> chosen;  // what every file dialog answers; empty: cancel
    PromptAnswer answer = PromptAnswer::kNo;
    PromptAnswer startAnswer = PromptAnswer::kCancel;
    bool keepShowing = true;
    int startPrompts = 0;

  private:
    std::optional<std::string> file(const FileRequest& r) {
        dialogs.push_back(r);
        return chosen;
    }
};

// Records on which threads the board was stopped and its callbacks unregistered; a single shot
// can run a hook while it is under way.
class WatchedLibrary final : public ForwardingBoardLibrary {
  public:
    using ForwardingBoardLibrary::ForwardingBoardLibrary;
    int StartGrab(OrvixHandle h, uint32_t n) override {
        if (n == 1 && duringSingleShot) {
            duringSingleShot();
        }
        return inner_.StartGrab(h, n);
    }
    int StopGrab(OrvixHandle h) override {
        note();
        return inner_.StopGrab(h);
    }
    int UnRegisterCallback(OrvixHandle h, uint32_t e) override {
        note();
        return inner_.UnRegisterCallback(h, e);
    }
    std::vector<std::thread::id> threads() const {
        std::lock_guard lock(mutex_);
        return threads_;
    }
    std::function<void()> duringSingleShot;

  private:
    void note() {
        std::lock_guard lock(mutex_);
        threads_.push_back(std::this_thread::get_id());
    }
    mutable std::mutex mutex_;
    std::vector<std::thread::id> threads_;
};

// A disk with room and memory to spare, whatever the machine has.
class RoomySystem final : public SystemStatus {
  public:
    std::optional<uint64_t> availableBytes(const std::filesystem::path&) const override {
        return uint64_t{100} << 30;
    }
    MemoryStatus memory() const override { return {uint64_t{16} << 30, 20}; }
};

// The simulated board from its INI text, the workbench over it, and everything it reports.
class SimWorkbench : public ::testing::Test {
  protected:
    void SetUp() override {
        dir = std::filesystem::temp_directory_path() /
              ("lumetra-wb-" + std::to_string(::getpid()) + "-" +
               ::testing::UnitTest::GetInstance()->current_test_info()->name());
        std::filesystem::remove_all(dir);
        std::filesystem::create_directories(dir);
        BoardLibraryLoad load = LoadBoardLibrary(SIM_LIBRARY);
        ASSERT_TRUE(load.library) << load.error;
        library = std::move(load.library);
        const std::string why = hooks.Open(SIM_LIBRARY);
        ASSERT_TRUE(why.empty()) << why;
        watched = std::make_unique<WatchedLibrary>(*library);
    }
    void TearDown() override {
        workbench.reset();
        watched.reset();
        library.reset();
        hooks.Close();
        ::unsetenv("ORVIX_SIM_CONFIG");
        std::filesystem::remove_all(dir);
    }

    // Opens the workbench on boards described by an INI text (empty: the two default boards),
    // the board's clock manual.
    void Open(const std::string& ini = {}, bool withLibrary = true) {
        if (ini.empty()) {
            ::unsetenv("ORVIX_SIM_CONFIG");
        } else {
            const std::string path = (dir / "sim.ini").string();
            std::ofstream(path) << ini;
            ::setenv("ORVIX_SIM_CONFIG", path.c_str(), 1);
        }
        WorkbenchServices s;
        s.library = withLibrary ? watched.get() : nullptr;
        s.settings = &settings;
        s.log = &log;
        s.sink = &sink;
        s.prompt = &prompt;
        s.clock = &clock;
        s.system = &system;
        s.resourceConfigPath = (dir / "BoardConfig.ini").string();
        s.helpFolder = (dir / "help").string();
        s.openFolder = [this](const std::string& folder) { opened.push_back(folder); };
        workbench = std::make_unique<Workbench>(s);
        if (workbench->document().hasBoard()) {
            ASSERT_EQ(hooks.setManualClock(workbench->document().handle(), 1), ORVIX_SUCCESS);
        }
    }
    OrvixHandle handle() { return workbench->document().handle(); }
    void Frames(uint32_t n) { ASSERT_EQ(hooks.advanceFrames(handle(), n), ORVIX_SUCCESS); }
    void Dispatch() { sink.Dispatch(*workbench); }
    std::vector<std::string> Lines() { return log.lines(); }

    std::filesystem::path dir;
    std::unique_ptr<BoardLibrary> library;
    std::unique_ptr<WatchedLibrary> watched;
    SimHooks hooks;
    MemorySettings settings;
    RecordingLog log;
    QueueSink sink;
    ScriptedPrompt prompt;
    ManualClock clock;
    RoomySystem system;
    std::vector<std::string> opened;
    std::unique_ptr<Workbench> workbench;
};

}  // namespace lumetra::test
