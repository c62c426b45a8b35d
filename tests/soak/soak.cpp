// The soak: the workbench on the simulated board, cycle after cycle for as long as it is asked
// to run. Each cycle opens the board, grabs continuously with the frames coming back to back
// (the board's manual clock, moved as fast as the workbench takes them), records to H.264 and a
// numbered sequence, runs the analysis engines on every frame the main frame forwards, injects
// one of the board's faults, stops, starts again, and closes. After each cycle every accepted
// frame must be accounted for; at the end resident memory must be flat and no thread left.
//
// Counts are compared with counts, never with the time taken, so the checks hold on any machine
// and under the sanitizers.
//
// Usage: lumetra_soak [--seconds S] [--dir DIR] [--verbose]
#include <malloc.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <filesystem>
#include <fstream>
#include <map>
#include <memory>
#include <mutex>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "OrvixSim.h"
#include "analysis/bad_pixel_detector.h"
#include "analysis/histogram_analytics.h"
#include "analysis/roi_bad_pixels.h"
#include "base/settings.h"
#include "recording/image_save_worker.h"
#include "support/sim_hooks.h"
#include "workbench/workbench.h"

namespace lumetra::soak {
namespace {

namespace fs = std::filesystem;

// ---- failing ----

[[noreturn]] void Fail(int cycle, const std::string& what) {
    std::fprintf(stderr, "soak: FAILED in cycle %d: %s\n", cycle, what.c_str());
    std::fflush(stderr);
    std::_Exit(1);
}

int g_cycle = 0;

#define SOAK_CHECK(cond, detail)                                               \
    do {                                                                       \
        if (!(cond)) {                                                         \
            std::ostringstream soakDetail;                                     \
            soakDetail << #cond << " (" << __LINE__ << "): " << detail;        \
            ::lumetra::soak::Fail(::lumetra::soak::g_cycle, soakDetail.str()); \
        }                                                                      \
    } while (0)

// ---- the process ----

// Threads that are not on their way out. A joined thread stays listed under /proc/self/task for
// a moment after join returns (the kernel wakes the joiner before it unlists the task), so a
// plain count right after a cycle sometimes sees one too many; the kernel marks such a task
// PF_EXITING before it wakes the joiner, so a thread still running is always counted.
size_t ThreadCount() {
    constexpr unsigned long kPfExiting = 0x4;
    size_t n = 0;
    for (const auto& e : fs::directory_iterator("/proc/self/task")) {
        std::ifstream stat(e.path() / "stat");
        std::string line;
        std::getline(stat, line);
        // After the name: state, ppid, pgrp, session, tty, tpgid, then the flags.
        const size_t close = line.rfind(')');
        std::istringstream fields(close == std::string::npos ? "" : line.substr(close + 1));
        std::string skip;
        for (int i = 0; i < 6; ++i) {
            fields >> skip;
        }
        unsigned long flags = 0;
        // A task gone before its stat was read counts as gone.
        if (fields >> flags && !(flags & kPfExiting)) {
            ++n;
        }
    }
    return n;
}

// Resident bytes, after handing free heap pages back, so that only memory in use counts.
uint64_t ResidentBytes() {
    malloc_trim(0);
    std::ifstream statm("/proc/self/statm");
    uint64_t size = 0;
    uint64_t resident = 0;
    statm >> size >> resident;
    return resident * static_cast<uint64_t>(::sysconf(_SC_PAGESIZE));
}

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr bool kSanitized = true;
#elif defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
constexpr bool kSanitized = true;
#else
constexpr bool kSanitized = false;
#endif
#else
constexpr bool kSanitized = false;
#endif

}  // namespace
}  // namespace lumetra::soak

// The sanitizers' allocators answer this themselves (sanitizer/allocator_interface.h, which not
// every compiler ships).
extern "C" size_t __sanitizer_get_current_allocated_bytes() __attribute__((weak));

namespace lumetra::soak {
namespace {

// The bytes the program holds from the heap: glibc's figure, or the sanitizer allocator's, which
// leaves out what it keeps in quarantine.
uint64_t HeapInUse() {
    if (kSanitized) {
        return __sanitizer_get_current_allocated_bytes != nullptr
                   ? __sanitizer_get_current_allocated_bytes()
                   : 0;
    }
    return mallinfo2().uordblks;
}

std::string RunCommand(const std::string& command) {
    std::string out;
    FILE* p = popen(command.c_str(), "r");
    if (p == nullptr) {
        return out;
    }
    char buffer[4096];
    size_t n;
    while ((n = std::fread(buffer, 1, sizeof buffer, p)) > 0) {
        out.append(buffer, n);
    }
    pclose(p);
    return out;
}

// Frames ffprobe decodes from an H.264 elementary stream; -1 when it reads none.
long ProbeFrames(const std::string& file) {
    const std::string out = RunCommand(
        "ffprobe -v error -count_frames -select_streams v:0 -show_entries "
        "stream=nb_read_frames -of csv=p=0 '" +
        file + "' 2>/dev/null");
    char* end = nullptr;
    const long frames = std::strtol(out.c_str(), &end, 10);
    return end == out.c_str() ? -1 : frames;
}

std::string Joined(const std::vector<std::string>& lines) {
    std::string all;
    for (const std::string& l : lines) {
        all += "[" + l + "]";
    }
    return all;
}

// ---- the front end's side ----

class Log final : public MessageLog {
  public:
    void log(std::string_view text) override {
        std::lock_guard lock(mutex_);
        lines_.emplace_back(text);
    }
    std::vector<std::string> Take() {
        std::lock_guard lock(mutex_);
        return std::exchange(lines_, {});
    }

  private:
    std::mutex mutex_;
    std::vector<std::string> lines_;
};

class Queue final : public MessageSink {
  public:
    struct Message {
        uint32_t message;
        intptr_t w, l;
    };
    void post(uint32_t message, intptr_t w, intptr_t l) override {
        {
            std::lock_guard lock(mutex_);
            queue_.push_back({message, w, l});
        }
        cv_.notify_all();
    }
    std::deque<Message> Take() {
        std::lock_guard lock(mutex_);
        return std::exchange(queue_, {});
    }
    // Waits for a message a thread of the core posts; the limit only keeps a hang from lasting.
    bool WaitFor(uint32_t message) {
        std::unique_lock lock(mutex_);
        return cv_.wait_for(lock, std::chrono::seconds(120), [&] {
            return std::any_of(queue_.begin(), queue_.end(),
                               [&](const Message& m) { return m.message == message; });
        });
    }

  private:
    std::mutex mutex_;
    std::condition_variable cv_;
    std::deque<Message> queue_;
};

class Boxes final : public Prompt {
  public:
    void information(std::string_view text) override { shown.emplace_back(text); }
    std::vector<std::string> shown;
};

// The board library as the workbench sees it, counting the frames the board hands over.
class CountingLibrary final : public ForwardingBoardLibrary {
  public:
    using ForwardingBoardLibrary::ForwardingBoardLibrary;
    int RegisterCallback(OrvixHandle h, uint32_t event, OrvixCallback fn, void* ctx) override {
        if (event != ORVIX_EVENT_FRAME_READY) {
            return inner_.RegisterCallback(h, event, fn, ctx);
        }
        // Unregistered before it is registered again: no call of the old one can be running.
        frameFn_ = fn;
        frameContext_ = ctx;
        return inner_.RegisterCallback(h, event, &CountingLibrary::Frame, this);
    }
    uint64_t frames() const { return frames_; }

  private:
    static void Frame(uint32_t event, void* self) {
        auto* me = static_cast<CountingLibrary*>(self);
        ++me->frames_;
        me->frameFn_(event, me->frameContext_);
    }
    OrvixCallback frameFn_ = nullptr;
    void* frameContext_ = nullptr;
    std::atomic<uint64_t> frames_{0};
};

// ---- the simulated board ----

struct Sim {
    std::unique_ptr<BoardLibrary> library;
    test::SimHooks hooks;
};

Sim LoadSim() {
    Sim sim;
    BoardLibraryLoad load = LoadBoardLibrary(SIM_LIBRARY);
    if (!load.library) {
        Fail(0, "the simulated board does not load: " + load.error);
    }
    sim.library = std::move(load.library);
    if (const std::string why = sim.hooks.Open(SIM_LIBRARY); !why.empty()) {
        Fail(0, why);
    }
    return sim;
}

// ---- the schedule ----

enum class Fault { kNone, kTimeout, kStopRefused, kSignalLoss, kLostFrames, kSingleShotAbort };
constexpr Fault kSchedule[] = {Fault::kNone,       Fault::kTimeout,    Fault::kStopRefused,
                               Fault::kSignalLoss, Fault::kLostFrames, Fault::kSingleShotAbort};
const char* FaultName(Fault f) {
    switch (f) {
        case Fault::kNone:
            return "none";
        case Fault::kTimeout:
            return "time-out";
        case Fault::kStopRefused:
            return "stop refused";
        case Fault::kSignalLoss:
            return "signal loss";
        case Fault::kLostFrames:
            return "lost frames";
        case Fault::kSingleShotAbort:
            return "single-shot abort";
    }
    return "?";
}

struct Shape {
    const char* keys;  // the board's geometry and format
    int width;
    int height;
    int channels;
    int depth;
};
// 8-bit mono, 8-bit colour and 12-bit mono (16-bit words; the recorder shifts them to 8 bits).
constexpr Shape kShapes[] = {
    {"width=320\nheight=240\nimage_type=0\ndata_format=8\n", 320, 240, 1, 8},
    {"width=160\nheight=120\nimage_type=1\ndata_format=8\n", 160, 120, 3, 8},
    {"width=256\nheight=192\nimage_type=0\ndata_format=12\n", 256, 192, 1, 16},
};
constexpr const char* kSequenceExtensions[] = {"png", "tif", "bmp", "jpg", "pgm"};

// Frames of the grab that records, in chunks between which the main frame's queue is handled.
constexpr int kChunks = 24;
constexpr uint32_t kChunkFrames = 10;
constexpr int kFaultChunk = 12;
constexpr uint32_t kTimeoutEvery = 150;     // the 150th frame of a grab never completes
constexpr uint32_t kSignalLossMs = 200;     // at 1000 frames per second: frame 200
constexpr uint64_t kOverrunMicros = 50000;  // 50 frames at once: more than the ring of 8

struct Totals {
    uint64_t cycles = 0;
    uint64_t grabs = 0;
    uint64_t framesGrabbed = 0;
    uint64_t framesDisplayed = 0;
    uint64_t framesSkipped = 0;
    uint64_t framesRecorded = 0;
    uint64_t framesLost = 0;
    uint64_t sequenceFiles = 0;
    uint64_t sequenceMissed = 0;
    uint64_t analysedFrames = 0;
    std::map<std::string, uint64_t> faults;
};

// ---- one cycle ----

class Cycle {
  public:
    Cycle(Sim& sim, const fs::path& dir, int number, Totals& totals, bool verbose)
        : sim_(sim),
          dir_(dir),
          number_(number),
          totals_(totals),
          verbose_(verbose),
          fault_(kSchedule[number % std::size(kSchedule)]),
          shape_(kShapes[number % std::size(kShapes)]),
          library_(*sim.library) {}

    void Run() {
        Open();
        if (fault_ == Fault::kSingleShotAbort) {
            workbench_->GrabOnce();
            ExpectLines({"Start Grab", "Grab Abort!"}, "the aborted single shot");
            ++totals_.faults[FaultName(fault_)];
        }
        RecordingGrab();
        CheckRecording();
        CheckSequence();
        PlainGrab();
        StillImageAndConfiguration();
        Close();
    }

  private:
    std::string Ini() const {
        std::string keys = std::string(shape_.keys) + "fps=1000\nbuffers=8\npattern=bars\n";
        switch (fault_) {
            case Fault::kTimeout:
                keys += "timeout_every=" + std::to_string(kTimeoutEvery) + "\n";
                break;
            case Fault::kStopRefused:
                keys += number_ % 2 == 0 ? "stop_failures=3\n" : "stop_failures=5\n";
                break;
            case Fault::kSignalLoss:
                keys += "signal_loss_after_ms=" + std::to_string(kSignalLossMs) + "\n";
                break;
            case Fault::kSingleShotAbort:
                keys += "single_shot_error=42\n";
                break;
            default:
                break;
        }
        return "[board0]\n" + keys + "[board1]\nwidth=64\nheight=48\n";
    }

    void Open() {
        const std::string ini = (dir_ / "sim.ini").string();
        std::ofstream(ini) << Ini();
        ::setenv("ORVIX_SIM_CONFIG", ini.c_str(), 1);
        WorkbenchServices s;
        s.library = &library_;
        s.settings = &settings_;
        s.log = &log_;
        s.sink = &queue_;
        s.prompt = &boxes_;
        s.resourceConfigPath = (dir_ / "BoardConfig.ini").string();
        workbench_ = std::make_unique<Workbench>(s);
        SOAK_CHECK(workbench_->document().hasBoard(), "no board");
        SOAK_CHECK(sim_.hooks.setManualClock(handle(), 1) == ORVIX_SUCCESS, "no manual clock");
        log_.Take();
        basic_ = std::make_unique<HistogramAnalytics>(AnalyticsKind::kBasic, engineQueue_, boxes_);
        roi_ = std::make_unique<HistogramAnalytics>(AnalyticsKind::kRoi, engineQueue_, boxes_);
        roi_->SetRoi({2, 2, shape_.width / 2, shape_.height / 2});
        advanced_ =
            std::make_unique<HistogramAnalytics>(AnalyticsKind::kAdvanced, engineQueue_, boxes_);
        advanced_->StartStatistics();
        badPixels_ = std::make_unique<BadPixelDetector>(engineQueue_, boxes_);
        roiBadPixels_ = std::make_unique<RoiBadPixelDetector>(engineQueue_, boxes_);
    }

    void Close() {
        basic_->Close();
        roi_->Close();
        advanced_->Close();
        badPixels_->Stop();
        roiBadPixels_->Stop();
        SOAK_CHECK(basic_->histograms().sequence > 0, "the histogram engine never published");
        SOAK_CHECK(boxes_.shown.empty(), "a box: " << boxes_.shown.front());
        basic_.reset();
        roi_.reset();
        advanced_.reset();
        badPixels_.reset();
        roiBadPixels_.reset();
        workbench_.reset();
        engineQueue_.Take();
        queue_.Take();
        ++totals_.cycles;
    }

    OrvixHandle handle() { return workbench_->document().handle(); }
    GrabContext& grab() { return workbench_->engine().context(); }

    // The main frame's loop: the engine's and the workers' messages, and the analysis engines
    // fed with every frame the main frame forwards to its dialogs.
    void Dispatch() {
        for (const Queue::Message& m : queue_.Take()) {
            if (m.message == msg::kFrameArrived) {
                Analyse();
            }
            workbench_->Handle(m.message, m.w, m.l);
        }
        for (const Queue::Message& m : engineQueue_.Take()) {
            if (m.message == analysis_msg::kBadPixelDone) {
                badPixelsRunning_ = false;
            }
        }
    }

    void Analyse() {
        FrameImage& frame = workbench_->document().frameImage();
        SOAK_CHECK(basic_->NewFrame(frame), "no frame copy");
        SOAK_CHECK(roi_->NewFrame(frame), "no frame copy");
        SOAK_CHECK(advanced_->NewFrame(frame), "no frame copy");
        if (!badPixelsRunning_ && !badPixels_->running()) {
            BadPixelSettings b;
            b.mode = 0;
            b.low = 10;
            b.high = 200;
            b.horizontalCount = 2;
            b.verticalCount = 2;
            b.frames = 4;
            badPixelsRunning_ = badPixels_->Calc(b, frame);
        } else {
            badPixels_->NewFrame(frame);
        }
        if (!roiBadPixels_->running()) {
            RoiBadPixelSettings r;
            r.area = kWholeArea;
            roiBadPixels_->Start(r, frame);
        }
        ++totals_.analysedFrames;
    }

    // The board's error code after a call of its own that failed.
    int32_t LastError() {
        OrvixErrorInfo error{};
        library_.GetLastError(&error, 1);
        return error.code;
    }

    // Frames from the board; false once the board has no further frame (the signal is gone).
    bool Frames(uint32_t n) {
        if (sim_.hooks.advanceFrames(handle(), n) == ORVIX_SUCCESS) {
            return true;
        }
        const int32_t code = LastError();
        SOAK_CHECK(fault_ == Fault::kSignalLoss && code == ORVIX_ERR_REFUSED,
                   "advancing " << n << " frames: error " << code);
        return false;
    }

    void ExpectLines(const std::vector<std::string>& expected, const char* what) {
        const std::vector<std::string> lines = log_.Take();
        if (lines != expected) {
            Fail(number_, std::string(what) + ": the log says " + Joined(lines));
        }
    }

    // The grab frames the board handed over must all be counted, and shown or skipped.
    void CheckAccounted(uint64_t boardFrames, const char* what) {
        const GrabContext& g = grab();
        SOAK_CHECK(g.frameCounter == boardFrames,
                   what << ": counted " << g.frameCounter << " of " << boardFrames);
        SOAK_CHECK(g.frameCounter == g.framesDisplayed + g.framesSkipped,
                   what << ": grabbed " << g.frameCounter << ", displayed " << g.framesDisplayed
                        << ", skipped " << g.framesSkipped);
        uint32_t lost = 0;
        library_.GetInfo(handle(), ORVIX_FRAME_LOST, &lost);
        SOAK_CHECK(g.lostEvents == lost, what << ": " << g.lostEvents << " lost of " << lost);
        totals_.framesGrabbed += g.frameCounter;
        totals_.framesDisplayed += g.framesDisplayed;
        totals_.framesSkipped += g.framesSkipped;
        totals_.framesLost += lost;
        ++totals_.grabs;
    }

    // Stops with the user's command; a board that refuses five times is stopped by the next.
    void Stop(std::vector<std::string>& expected) {
        workbench_->GrabStop();
        if (fault_ == Fault::kStopRefused && number_ % 2 == 1) {
            SOAK_CHECK(workbench_->engine().lastStopFailed(), "five refusals, yet stopped");
            expected.push_back("Grab Stop fail.Please click the 'Grab Stop' Button again\n");
            workbench_->GrabStop();
        }
        expected.push_back("Grab Stop\n");
        SOAK_CHECK(sim_.hooks.advanceFrames(handle(), 1) != ORVIX_SUCCESS &&
                       LastError() == ORVIX_ERR_NOT_GRABBING,
                   "the board still grabs");
    }

    void RecordingGrab() {
        const uint64_t before = library_.frames();
        SOAK_CHECK(workbench_->GrabContinuous(), "the grab does not start");
        std::vector<std::string> expected = {"Start Grab"};
        Frames(3);  // the board has measured its rate
        video_ = (dir_ / ("cycle" + std::to_string(number_) + ".h264")).string();
        SOAK_CHECK(workbench_->StartVideoTo(video_), "the recording does not start");
        recordedFrom_ = library_.frames();
        sequenceDir_ = dir_ / ("sequence" + std::to_string(number_));
        fs::create_directories(sequenceDir_);
        extension_ = kSequenceExtensions[number_ % std::size(kSequenceExtensions)];
        if (extension_ == "pgm" && shape_.channels != 1) {
            extension_ = "ppm";  // PGM holds one channel
        }
        sequenceFrom_ = library_.frames();
        sequenceCount_ = 20 + number_ % 40;
        std::string error;
        SOAK_CHECK(workbench_->StartSequence((sequenceDir_ / ("f." + extension_)).string(),
                                             sequenceCount_, workbench_->imageSaveOptions(), error),
                   error);
        bool running = true;
        for (int chunk = 0; chunk < kChunks && running; ++chunk) {
            if (chunk == kFaultChunk) {
                running = Inject(expected);
            }
            if (running) {
                running = Frames(kChunkFrames) || WaitForSignalLoss(expected);
                // The engines also take the frame in place now, while the display writes the
                // next: at this rate the main frame forwards only every so many frames.
                if (running) {
                    Analyse();
                }
                Dispatch();
            }
            // A time-out ends the grab when its message is handled.
            if (running && !workbench_->engine().continuousRunning()) {
                running = false;
            }
        }
        if (fault_ == Fault::kTimeout) {
            SOAK_CHECK(!workbench_->engine().continuousRunning(), "no time-out ended the grab");
            expected.push_back("Grab(continuouse) time out!\n");
            expected.push_back("Grab Stop\n");
        } else if (running) {
            Stop(expected);
        }
        recordedTo_ = library_.frames();
        Dispatch();
        std::vector<std::string> lines = log_.Take();
        // Lost-frame notices come at most every 100 ms: one or more, the same line.
        lines.erase(std::unique(lines.begin(), lines.end()), lines.end());
        // The sequence speaks when it falls behind and when it ends, before or after the stop:
        // checked apart.
        auto behind = std::find_if(lines.begin(), lines.end(), [](const std::string& l) {
            return l.rfind("Image sequence: the saver cannot keep up", 0) == 0;
        });
        sequenceFellBehind_ = behind != lines.end();
        if (sequenceFellBehind_) {
            lines.erase(behind);
        }
        auto summary = std::find_if(lines.begin(), lines.end(), [](const std::string& l) {
            return l.rfind("Image sequence: ", 0) == 0;
        });
        SOAK_CHECK(summary != lines.end(), "no sequence summary in " << Joined(lines));
        sequenceSummary_ = *summary;
        lines.erase(summary);
        auto video = std::find(lines.begin(), lines.end(), "Video saved successfully");
        SOAK_CHECK(video != lines.end(), "no video result");
        lines.erase(video);
        if (fault_ == Fault::kLostFrames) {
            expected.insert(expected.begin() + 1,
                            "OrvixBoard lost frame for thread context change.\n");
        }
        if (lines != expected) {
            Fail(number_, "the recording grab's log says " + Joined(lines));
        }
        CheckAccounted(library_.frames() - before, "the recording grab");
    }

    bool WaitForSignalLoss(std::vector<std::string>& expected) {
        // No frame is due any more: the board's time moves on to the loss itself.
        SOAK_CHECK(sim_.hooks.advanceTime(handle(), 5000) == ORVIX_SUCCESS, "moving past the loss");
        SOAK_CHECK(queue_.WaitFor(msg::kSignalLost), "the watch-dog never noticed");
        Dispatch();
        SOAK_CHECK(workbench_->engine().idle(), "the signal loss did not stop the grab");
        expected.push_back("Board signal abnormal.Grab Stop\n");
        ++totals_.faults[FaultName(fault_)];
        return false;
    }

    // True while the grab goes on.
    bool Inject(std::vector<std::string>&) {
        switch (fault_) {
            case Fault::kLostFrames:
                SOAK_CHECK(sim_.hooks.advanceTime(handle(), kOverrunMicros) == ORVIX_SUCCESS,
                           "overrun");
                ++totals_.faults[FaultName(fault_)];
                return true;
            case Fault::kTimeout:
            case Fault::kStopRefused:
                ++totals_.faults[FaultName(fault_)];
                return true;
            default:
                return true;
        }
    }

    void CheckRecording() {
        const VideoRecorder& r = workbench_->videoRecorder();
        SOAK_CHECK(!r.running(), "the recorder still runs");
        SOAK_CHECK(r.result() == video::kSuccess, "recorder result " << r.result());
        const uint64_t delivered = recordedTo_ - recordedFrom_;
        SOAK_CHECK(r.framesQueued() == delivered,
                   "the recorder took " << r.framesQueued() << " of " << delivered << " frames");
        SOAK_CHECK(r.framesEncoded() == r.framesQueued(),
                   "encoded " << r.framesEncoded() << " of " << r.framesQueued());
        const long probed = ProbeFrames(video_);
        SOAK_CHECK(
            probed == static_cast<long>(r.framesEncoded()),
            "ffprobe reads " << probed << " frames of " << r.framesEncoded() << " in " << video_);
        totals_.framesRecorded += r.framesEncoded();
        fs::remove(video_);
    }

    void CheckSequence() {
        const SequenceSaver& s = workbench_->sequenceSaver();
        SOAK_CHECK(s.finished(), "the sequence still runs");
        SOAK_CHECK(s.failed() == 0, "failed files: " << s.failed());
        SOAK_CHECK(s.saved() == s.accepted(),
                   "saved " << s.saved() << " of " << s.accepted() << " accepted");
        // Every frame offered while the sequence wanted frames was taken or counted as missed.
        const uint64_t offered = recordedTo_ - sequenceFrom_;
        const uint64_t seen = static_cast<uint64_t>(s.accepted() + s.missed());
        SOAK_CHECK(s.accepted() <= sequenceCount_, s.accepted() << " of " << sequenceCount_);
        SOAK_CHECK(s.accepted() == sequenceCount_ ? seen <= offered : seen == offered,
                   "accepted " << s.accepted() << ", missed " << s.missed() << " of " << offered
                               << " offered, " << sequenceCount_ << " asked for");
        SOAK_CHECK(sequenceFellBehind_ == (s.missed() > 0),
                   "missed " << s.missed() << ", said so: " << sequenceFellBehind_);
        SOAK_CHECK(sequenceSummary_.rfind("Image sequence: " + std::to_string(s.saved()) + " of " +
                                              std::to_string(sequenceCount_) + " frames saved, " +
                                              std::to_string(s.missed()) + " missed",
                                          0) == 0,
                   sequenceSummary_);
        // Exactly the files 1 to saved, each one whole.
        std::vector<std::string> names;
        for (const auto& e : fs::directory_iterator(sequenceDir_)) {
            names.push_back(e.path().filename().string());
        }
        std::sort(names.begin(), names.end());
        SOAK_CHECK(names.size() == static_cast<size_t>(s.saved()),
                   names.size() << " files for " << s.saved() << " saved");
        const std::string base = (sequenceDir_ / "f").string();
        for (int i = 1; i <= s.saved(); ++i) {
            const std::string path = SequenceFileName(base, i, extension_);
            cv::Mat image;
            std::string error;
            SOAK_CHECK(LoadImageFile(path, image, error), path << ": " << error);
            SOAK_CHECK(image.cols == shape_.width && image.rows == shape_.height,
                       path << " is " << image.cols << " x " << image.rows);
        }
        totals_.sequenceFiles += static_cast<uint64_t>(s.saved());
        totals_.sequenceMissed += static_cast<uint64_t>(s.missed());
        fs::remove_all(sequenceDir_);
    }

    // After the fault: the engine starts again and runs as before.
    void PlainGrab() {
        const uint64_t before = library_.frames();
        SOAK_CHECK(workbench_->GrabContinuous(), "the grab after the fault does not start");
        std::vector<std::string> expected = {"Start Grab"};
        for (int i = 0; i < 4; ++i) {
            Frames(5);
            Dispatch();
        }
        Stop(expected);
        Dispatch();
        ExpectLines(expected, "the grab after the fault");
        CheckAccounted(library_.frames() - before, "the grab after the fault");
        SOAK_CHECK(grab().frameCounter == 20u, "counted " << grab().frameCounter << " of 20");
    }

    void StillImageAndConfiguration() {
        const std::string still = (dir_ / "still.png").string();
        SOAK_CHECK(workbench_->SaveImageTo(still), "the still image is not saved");
        workbench_->imageSaver().Wait();
        Dispatch();
        ExpectLines({std::string(kImageSavedText)}, "the still image");
        const std::string configuration = (dir_ / "board.vlcf").string();
        SOAK_CHECK(workbench_->SaveConfigurationTo(configuration), "no configuration saved");
        SOAK_CHECK(workbench_->LoadConfiguration(configuration), "the configuration does not load");
        ExpectLines(
            {"Save configuration successful!", "The configuration file was loaded successfully.\n"},
            "the configuration file");
        fs::remove(still);
        fs::remove(configuration);
    }

    Sim& sim_;
    fs::path dir_;
    int number_;
    Totals& totals_;
    bool verbose_;
    Fault fault_;
    Shape shape_;
    CountingLibrary library_;
    MemorySettings settings_;
    Log log_;
    Queue queue_;
    Queue engineQueue_;
    Boxes boxes_;
    std::unique_ptr<Workbench> workbench_;
    std::unique_ptr<HistogramAnalytics> basic_;
    std::unique_ptr<HistogramAnalytics> roi_;
    std::unique_ptr<HistogramAnalytics> advanced_;
    std::unique_ptr<BadPixelDetector> badPixels_;
    std::unique_ptr<RoiBadPixelDetector> roiBadPixels_;
    bool badPixelsRunning_ = false;

    std::string video_;
    uint64_t recordedFrom_ = 0;
    uint64_t recordedTo_ = 0;
    uint64_t sequenceFrom_ = 0;
    bool sequenceFellBehind_ = false;
    fs::path sequenceDir_;
    std::string extension_;
    int sequenceCount_ = 0;
    std::string sequenceSummary_;
};

double Megabytes(uint64_t bytes) {
    return static_cast<double>(bytes) / (1024.0 * 1024.0);
}

int Main(int argc, char** argv) {
    double seconds = 60;
    fs::path dir;
    bool verbose = false;
    for (int i = 1; i < argc; ++i) {
        const std::string a = argv[i];
        if (a == "--seconds" && i + 1 < argc) {
            seconds = std::atof(argv[++i]);
        } else if (a == "--dir" && i + 1 < argc) {
            dir = argv[++i];
        } else if (a == "--verbose") {
            verbose = true;
        } else {
            std::fprintf(stderr, "usage: %s [--seconds S] [--dir DIR] [--verbose]\n", argv[0]);
            return 2;
        }
    }
    if (dir.empty()) {
        dir = fs::temp_directory_path() / ("lumetra-soak-" + std::to_string(::getpid()));
    }
    fs::remove_all(dir);
    fs::create_directories(dir);

    // One heap arena: with one per thread, as glibc gives by default, freed memory stays resident
    // in whichever arena a worker of an earlier cycle happened to use, and the figure below would
    // measure that scatter rather than what the program keeps. (The heap in use is checked too.)
    mallopt(M_ARENA_MAX, 1);
    const size_t threadsAtStart = ThreadCount();
    Sim sim = LoadSim();
    Totals totals;
    const auto start = std::chrono::steady_clock::now();
    const auto end = start + std::chrono::duration<double>(seconds);
    // The first cycles bring the libraries' lasting state in (thread pools, caches): memory and
    // threads are measured from the end of the warm-up on, one turn of the schedule, which
    // takes in every shape and every sequence format too.
    const int warmUp = static_cast<int>(std::size(kSchedule));
    size_t threadsAfterWarmUp = 0;
    uint64_t residentAfterWarmUp = 0;
    uint64_t heapAfterWarmUp = 0;
    uint64_t residentPeak = 0;
    int cycle = 0;
    while (cycle < warmUp + 1 || std::chrono::steady_clock::now() < end) {
        g_cycle = cycle;
        Cycle(sim, dir, cycle, totals, verbose).Run();
        const size_t threads = ThreadCount();
        const uint64_t resident = ResidentBytes();
        if (cycle + 1 == warmUp) {
            threadsAfterWarmUp = threads;
            residentAfterWarmUp = resident;
            heapAfterWarmUp = HeapInUse();
        } else if (cycle + 1 > warmUp) {
            SOAK_CHECK(threads == threadsAfterWarmUp, threads << " threads after the cycle, "
                                                              << threadsAfterWarmUp
                                                              << " after the warm-up");
            residentPeak = std::max(residentPeak, resident);
        }
        if (verbose) {
            std::fprintf(stderr,
                         "cycle %d (%s): %zu threads, %.1f MiB resident, heap %.2f MiB in use\n",
                         cycle, FaultName(kSchedule[cycle % std::size(kSchedule)]), threads,
                         Megabytes(resident), Megabytes(HeapInUse()));
        }
        ++cycle;
    }
    const uint64_t residentAtEnd = ResidentBytes();
    const uint64_t heapAtEnd = HeapInUse();
    const double growth =
        100.0 * (static_cast<double>(residentAtEnd) - static_cast<double>(residentAfterWarmUp)) /
        static_cast<double>(residentAfterWarmUp);
    sim.library.reset();
    sim.hooks.Close();
    ::unsetenv("ORVIX_SIM_CONFIG");
    fs::remove_all(dir);
    const size_t threadsAtEnd = ThreadCount();
    const double elapsed =
        std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();

    std::printf("soak: %.0f s, %llu cycles, %llu grabs\n", elapsed,
                static_cast<unsigned long long>(totals.cycles),
                static_cast<unsigned long long>(totals.grabs));
    std::printf(
        "soak: frames grabbed %llu, displayed %llu, skipped by the display %llu, lost by "
        "the board %llu\n",
        static_cast<unsigned long long>(totals.framesGrabbed),
        static_cast<unsigned long long>(totals.framesDisplayed),
        static_cast<unsigned long long>(totals.framesSkipped),
        static_cast<unsigned long long>(totals.framesLost));
    std::printf(
        "soak: frames recorded %llu (all counted back by ffprobe), sequence files %llu "
        "(%llu frames missed), frames analysed %llu\n",
        static_cast<unsigned long long>(totals.framesRecorded),
        static_cast<unsigned long long>(totals.sequenceFiles),
        static_cast<unsigned long long>(totals.sequenceMissed),
        static_cast<unsigned long long>(totals.analysedFrames));
    std::string faults;
    uint64_t injected = 0;
    for (const auto& [name, count] : totals.faults) {
        faults += " " + name + " " + std::to_string(count) + ",";
        injected += count;
    }
    if (!faults.empty()) {
        faults.pop_back();
    }
    std::printf("soak: faults injected %llu:%s\n", static_cast<unsigned long long>(injected),
                faults.c_str());
    std::printf(
        "soak: resident memory after the warm-up %.1f MiB, at the end %.1f MiB (%+.2f %%), "
        "peak %.1f MiB\n",
        Megabytes(residentAfterWarmUp), Megabytes(residentAtEnd), growth, Megabytes(residentPeak));
    const bool heapKnown = heapAfterWarmUp > 0;
    const double heapGrowth =
        heapKnown
            ? 100.0 * (static_cast<double>(heapAtEnd) - static_cast<double>(heapAfterWarmUp)) /
                  static_cast<double>(heapAfterWarmUp)
            : 0.0;
    if (heapKnown) {
        std::printf(
            "soak: heap in use after the warm-up %.2f MiB, at the end %.2f MiB (%+.2f %%)\n",
            Megabytes(heapAfterWarmUp), Megabytes(heapAtEnd), heapGrowth);
    }
    std::printf("soak: threads at start %zu, after the warm-up %zu, at the end %zu\n",
                threadsAtStart, threadsAfterWarmUp, threadsAtEnd);
    std::fflush(stdout);

    g_cycle = cycle;
    // Under a sanitizer resident memory also holds the sanitizer's own: shadow, quarantine and
    // the bookkeeping of every thread that ever ran, which grows with the threads a cycle
    // starts. There the heap in use, as its allocator counts it, is the measure.
    SOAK_CHECK(kSanitized || growth < 1.0, "resident memory grew by " << growth << " %");
    SOAK_CHECK(heapGrowth < 1.0, "the heap in use grew by " << heapGrowth << " %");
    SOAK_CHECK(threadsAtEnd <= threadsAfterWarmUp, threadsAtEnd << " threads left at the end, "
                                                                << threadsAfterWarmUp
                                                                << " after the warm-up");
    std::printf("soak: passed\n");
    return 0;
}

}  // namespace
}  // namespace lumetra::soak

int main(int argc, char** argv) {
    return lumetra::soak::Main(argc, argv);
}
