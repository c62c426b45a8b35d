// Grab throughput on the simulated board, side by side with a plain memcpy of the same frames:
//   (a) 640 x 480 8-bit at 1000 fps for 10 s, (b) 4096 x 3072 8-bit as fast as the board goes.
// A consumer copies every frame as the recorder does. Prints frames delivered per second, GB/s
// through the frame-ready path, lost frames, and the frame-ready path's time per frame next to
// a memcpy of one frame.
#include <stdlib.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include "acquisition/board_document.h"
#include "base/settings.h"

namespace lumetra {
namespace {

using Clock = std::chrono::steady_clock;

// Times the frame-ready callback of the real library.
class TimingLibrary final : public ForwardingBoardLibrary {
  public:
    explicit TimingLibrary(BoardLibrary& inner) : ForwardingBoardLibrary(inner) {}

    int RegisterCallback(OrvixHandle h, uint32_t ev, OrvixCallback fn, void* ctx) override {
        if (ev != ORVIX_EVENT_FRAME_READY) {
            return inner_.RegisterCallback(h, ev, fn, ctx);
        }
        timed_ = fn;
        timedContext_ = ctx;
        return inner_.RegisterCallback(h, ev, &TimingLibrary::Timed, this);
    }

    std::atomic<uint64_t> calls{0};
    std::atomic<uint64_t> nanoseconds{0};

  private:
    static void Timed(uint32_t event, void* self) {
        auto* t = static_cast<TimingLibrary*>(self);
        const auto start = Clock::now();
        t->timed_(event, t->timedContext_);
        const auto ns = std::chrono::duration_cast<std::chrono::nanoseconds>(Clock::now() - start);
        t->nanoseconds += static_cast<uint64_t>(ns.count());
        ++t->calls;
    }

    OrvixCallback timed_ = nullptr;
    void* timedContext_ = nullptr;
};

// Copies every frame into a buffer of its own, as the recorder's queue does.
class CopyingConsumer final : public FrameConsumer {
  public:
    explicit CopyingConsumer(size_t bytes) : copy_(bytes) {}
    bool wantsFrames() const override { return true; }
    void push(const void* address, size_t size, bool) override {
        std::memcpy(copy_.data(), address, std::min(size, copy_.size()));
        ++frames;
        bytes += size;
    }
    void stop() override {}
    std::atomic<uint64_t> frames{0};
    std::atomic<uint64_t> bytes{0};

  private:
    std::vector<uint8_t> copy_;
};

class QuietSink final : public MessageSink {
  public:
    void post(uint32_t, intptr_t, intptr_t) override {}
};

// A plain memcpy of the same frames in the same state: a ring of source buffers like the board's,
// each freshly written (as the board's producer does) before it is copied; only the copy counts.
double memcpyNanoseconds(size_t bytes, size_t ringBuffers) {
    std::vector<std::vector<uint8_t>> ring(ringBuffers, std::vector<uint8_t>(bytes, 7));
    std::vector<uint8_t> dst(bytes, 0);
    const int rounds = static_cast<int>(std::max<size_t>(32, (size_t{1} << 32) / bytes));
    std::chrono::nanoseconds total{0};
    for (int i = 0; i < rounds; ++i) {
        std::vector<uint8_t>& src = ring[static_cast<size_t>(i) % ringBuffers];
        std::memset(src.data(), i & 0xFF, bytes);
        const auto start = Clock::now();
        std::memcpy(dst.data(), src.data(), bytes);
        total += Clock::now() - start;
    }
    // Keeps the copies from being optimised away.
    volatile uint8_t last = dst[bytes - 1];
    (void)last;
    return double(total.count()) / rounds;
}

constexpr size_t kRingBuffers = 16;

struct Scenario {
    const char* name;
    int width, height, fps;
    double seconds;
};

void run(const Scenario& sc, const std::string& library) {
    const std::string ini = "/tmp/lumetra-grab-bench-" + std::to_string(getpid()) + ".ini";
    std::ofstream(ini) << "[board0]\nwidth=" << sc.width << "\nheight=" << sc.height
                       << "\nfps=" << sc.fps << "\nbuffers=" << kRingBuffers << "\npattern=bars\n";
    setenv("ORVIX_SIM_CONFIG", ini.c_str(), 1);

    BoardLibraryLoad load = LoadBoardLibrary(library);
    if (!load.library) {
        std::printf("%s: %s\n", sc.name, load.error.c_str());
        return;
    }
    TimingLibrary timing(*load.library);
    MemorySettings settings;
    NullMessageLog log;
    QuietSink sink;
    DocumentServices services;
    services.library = &timing;
    services.settings = &settings;
    services.log = &log;
    services.sink = &sink;
    services.resourceConfigPath = "/nonexistent";
    CKELM_PCIE_VexCardDoc doc(services);
    if (!doc.hasBoard() || !doc.AllocateFrameMemory()) {
        std::printf("%s: the simulated board did not open\n", sc.name);
        return;
    }
    const size_t frameBytes = size_t(sc.width) * size_t(sc.height);
    CopyingConsumer consumer(frameBytes);
    GrabEngine& engine = doc.grabEngine();
    engine.setConsumers(nullptr, &consumer);

    const auto start = Clock::now();
    if (engine.StartContinuous(doc.handle(), false) != GrabEngine::StartResult::kStarted) {
        std::printf("%s: the grab did not start\n", sc.name);
        return;
    }
    std::this_thread::sleep_for(std::chrono::duration<double>(sc.seconds));
    uint32_t boardLost = 0;
    timing.GetInfo(doc.handle(), ORVIX_FRAME_LOST, &boardLost);
    const double elapsed = std::chrono::duration<double>(Clock::now() - start).count();
    const uint64_t frames = consumer.frames;
    const uint64_t callbacks = timing.calls;
    const double callbackNs = callbacks ? double(timing.nanoseconds) / callbacks : 0.0;
    engine.StopGrab();
    std::remove(ini.c_str());

    const double copyNs = memcpyNanoseconds(frameBytes, kRingBuffers);
    std::printf("%-34s %9.1f frames/s %7.2f GB/s  lost %-6u (events %u)\n", sc.name,
                frames / elapsed, double(consumer.bytes) / elapsed / 1e9, boardLost,
                engine.context().lostEvents.load());
    std::printf("%-34s frame-ready path %9.1f us/frame   memcpy %9.1f us/frame   ratio %.2f\n", "",
                callbackNs / 1000.0, copyNs / 1000.0, copyNs > 0 ? callbackNs / copyNs : 0.0);
}

}  // namespace
}  // namespace lumetra

int main(int argc, char** argv) {
    const std::string library =
        argc > 1 && *argv[1] != '\0' ? argv[1] : lumetra::DefaultBoardLibraryPath();
    const double seconds = argc > 2 ? std::atof(argv[2]) : 10.0;
    std::printf("grab benchmark, board library %s\n", library.c_str());
    lumetra::run({"(a) 640 x 480 8-bit @ 1000 fps", 640, 480, 1000, seconds}, library);
    lumetra::run({"(b) 4096 x 3072 8-bit, unpaced", 4096, 3072, 100000, std::min(seconds, 5.0)},
                 library);
    std::printf("goals: (a) no frame lost; (b) frame-ready path within 1.3x of memcpy\n");
    return 0;
}
