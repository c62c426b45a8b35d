// Lumetra's grab path on a GenICam camera against plain Aravis consumers, side by side, on
// Aravis's fake GigE Vision camera (started here on 127.0.0.1) at its largest frame size:
//   Lumetra     the board document and its grab engine (callbacks, frame store, display thread,
//               watch-dog) over libOrvixAravis, loaded as the application loads it;
//   ArvStream   a loop that only pops each buffer from an ArvStream and pushes it back;
//   arv-camera-test-0.8, Aravis's own test tool, as a separate process.
// Each run grabs for the same time; CPU is the consumer process's user + system time (the fake
// camera's own process is not counted). Prints the median of the runs: frames per second, CPU
// per frame and frames lost. Goal: Lumetra within 1.2x of the plain consumer's CPU per frame,
// no frame lost.
#include <arv.h>
#include <stdlib.h>
#include <sys/resource.h>
#include <sys/time.h>
#include <sys/wait.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "acquisition/board_document.h"
#include "base/settings.h"
#include "fake_camera.h"

namespace {

using Steady = std::chrono::steady_clock;

struct Run {
    double fps = 0;
    double cpuMsPerFrame = 0;
    uint64_t frames = 0;
    uint64_t lost = 0;
};

double CpuSeconds(const rusage& r) {
    return double(r.ru_utime.tv_sec + r.ru_stime.tv_sec) +
           double(r.ru_utime.tv_usec + r.ru_stime.tv_usec) / 1e6;
}

double SelfCpu() {
    rusage r{};
    getrusage(RUSAGE_SELF, &r);
    return CpuSeconds(r);
}

class QuietSink final : public lumetra::MessageSink {
  public:
    void post(uint32_t, intptr_t, intptr_t) override {}
};

// The application's path: document, grab engine and its threads, over the board library.
Run LumetraRun(lumetra::BoardLibrary& lib, double seconds) {
    lumetra::MemorySettings settings;
    lumetra::NullMessageLog log;
    QuietSink sink;
    lumetra::DocumentServices services;
    services.library = &lib;
    services.settings = &settings;
    services.log = &log;
    services.sink = &sink;
    services.resourceConfigPath = "/nonexistent";
    lumetra::CKELM_PCIE_VexCardDoc doc(services);
    Run r;
    if (!doc.hasBoard()) {
        std::printf("Lumetra: the camera did not open\n");
        return r;
    }
    const OrvixHandle h = doc.handle();
    // The largest frame the camera has.
    lib.SetInfo(h, ORVIX_IMAGE_OFFSET_X, 0);
    for (uint32_t id : {ORVIX_IMAGE_WIDTH, ORVIX_IMAGE_HEIGHT}) {
        for (uint32_t v = 65535; v >= 1; v /= 2) {
            if (lib.SetInfo(h, id, v) == ORVIX_SUCCESS) {
                // Found a power of two below the maximum: climb to the maximum itself.
                uint32_t step = v / 2;
                while (step > 0) {
                    if (lib.SetInfo(h, id, v + step) == ORVIX_SUCCESS) {
                        v += step;
                    }
                    step /= 2;
                }
                break;
            }
        }
    }
    lib.SetInfo(h, ORVIX_IMAGE_TYPE, 0);
    lib.SetInfo(h, ORVIX_BAYER_PATTERN, 0);
    lib.SetInfo(h, ORVIX_DATA_FORMAT, 8);
    OrvixErrorInfo e{};
    lib.GetLastError(&e, 1);
    doc.ReadBackParameters();
    if (!doc.AllocateFrameMemory()) {
        std::printf("Lumetra: no frame memory\n");
        return r;
    }
    lumetra::GrabEngine& engine = doc.grabEngine();
    const double cpu0 = SelfCpu();
    const auto t0 = Steady::now();
    if (engine.StartContinuous(h, false) != lumetra::GrabEngine::StartResult::kStarted) {
        std::printf("Lumetra: the grab did not start\n");
        return r;
    }
    engine.StartWatchDog();
    std::this_thread::sleep_for(std::chrono::duration<double>(seconds));
    const uint32_t frames = engine.context().frameCounter;
    const double elapsed = std::chrono::duration<double>(Steady::now() - t0).count();
    uint32_t lost = 0;
    lib.GetInfo(h, ORVIX_FRAME_LOST, &lost);
    engine.StopGrab();
    const double cpu = SelfCpu() - cpu0;
    r.frames = frames;
    r.lost = lost;
    r.fps = frames / elapsed;
    r.cpuMsPerFrame = frames ? cpu * 1000.0 / frames : 0;
    static bool told = false;
    if (!told) {
        std::printf("frame size %u x %u, 8-bit mono\n", doc.parameters().width(),
                    doc.parameters().height());
        told = true;
    }
    return r;
}

// The board library alone: a frame-ready callback that reads the buffer's status and address,
// as the engine does, and touches no pixel.
struct BareConsumer {
    lumetra::BoardLibrary* lib;
    OrvixHandle handle;
    uint32_t buffers;
    uint32_t next = 0;
    std::atomic<uint64_t> frames{0};
    static void OnReady(uint32_t, void* self) {
        auto* c = static_cast<BareConsumer*>(self);
        OrvixBufferStatus status{};
        void* address = nullptr;
        c->lib->GetBufferStatusEx(c->handle, c->next % c->buffers, &status);
        c->lib->GetBufferAddress(c->handle, c->next % c->buffers, &address);
        ++c->next;
        ++c->frames;
    }
};

Run LibraryRun(lumetra::BoardLibrary& lib, double seconds) {
    Run r;
    int32_t count = 0;
    lib.GetBoardCount(ORVIX_BOARD_TYPE_PCIE, &count);
    const OrvixHandle h = lib.Open(ORVIX_BOARD_TYPE_PCIE, 0);
    if (h == ORVIX_INVALID_HANDLE) {
        std::printf("library: the camera did not open\n");
        return r;
    }
    uint32_t buffers = 8;
    lib.GetInfo(h, ORVIX_BUFFER_COUNT, &buffers);
    BareConsumer consumer{&lib, h, buffers};
    lib.RegisterCallback(h, ORVIX_EVENT_FRAME_READY, &BareConsumer::OnReady, &consumer);
    const double cpu0 = SelfCpu();
    const auto t0 = Steady::now();
    lib.StartGrab(h, 0);
    std::this_thread::sleep_for(std::chrono::duration<double>(seconds));
    const uint64_t frames = consumer.frames;
    const double elapsed = std::chrono::duration<double>(Steady::now() - t0).count();
    uint32_t lost = 0;
    lib.GetInfo(h, ORVIX_FRAME_LOST, &lost);
    lib.StopGrab(h);
    const double cpu = SelfCpu() - cpu0;
    lib.UnRegisterCallback(h, ORVIX_EVENT_FRAME_READY);
    lib.Close(h);
    r.frames = frames;
    r.lost = lost;
    r.fps = frames / elapsed;
    r.cpuMsPerFrame = frames ? cpu * 1000.0 / frames : 0;
    return r;
}

// Nothing but Aravis: pop each buffer and push it back.
Run PlainRun(double seconds, uint32_t width, uint32_t height, uint32_t buffers) {
    Run r;
    GError* error = nullptr;
    ArvCamera* camera = arv_camera_new(lumetra::test::kFakeCameraAddress, &error);
    if (camera == nullptr) {
        std::printf("ArvStream: %s\n", error ? error->message : "no camera");
        g_clear_error(&error);
        return r;
    }
    arv_camera_set_region(camera, 0, 0, static_cast<gint>(width), static_cast<gint>(height),
                          nullptr);
    arv_camera_set_pixel_format(camera, ARV_PIXEL_FORMAT_MONO_8, nullptr);
    arv_camera_set_acquisition_mode(camera, ARV_ACQUISITION_MODE_CONTINUOUS, nullptr);
    const guint payload = arv_camera_get_payload(camera, nullptr);
    ArvStream* stream = arv_camera_create_stream(camera, nullptr, nullptr, &error);
    if (stream == nullptr) {
        std::printf("ArvStream: %s\n", error ? error->message : "no stream");
        g_clear_error(&error);
        g_object_unref(camera);
        return r;
    }
    for (uint32_t i = 0; i < buffers; ++i) {
        arv_stream_push_buffer(stream, arv_buffer_new_allocate(payload));
    }
    const double cpu0 = SelfCpu();
    const auto t0 = Steady::now();
    arv_camera_start_acquisition(camera, nullptr);
    uint64_t frames = 0;
    uint64_t lost = 0;
    guint64 lastId = 0;
    const auto end = t0 + std::chrono::duration<double>(seconds);
    while (Steady::now() < end) {
        ArvBuffer* b = arv_stream_timeout_pop_buffer(stream, 100000);
        if (b == nullptr) {
            continue;
        }
        if (arv_buffer_get_status(b) == ARV_BUFFER_STATUS_SUCCESS) {
            const guint64 id = arv_buffer_get_frame_id(b);
            if (frames > 0 && id > lastId + 1 && id - lastId < 32768) {
                lost += id - lastId - 1;
            }
            lastId = id;
            ++frames;
        } else {
            ++lost;
        }
        arv_stream_push_buffer(stream, b);
    }
    const double elapsed = std::chrono::duration<double>(Steady::now() - t0).count();
    arv_camera_stop_acquisition(camera, nullptr);
    const double cpu = SelfCpu() - cpu0;
    g_object_unref(stream);
    g_object_unref(camera);
    r.frames = frames;
    r.lost = lost;
    r.fps = frames / elapsed;
    r.cpuMsPerFrame = frames ? cpu * 1000.0 / frames : 0;
    return r;
}

// Aravis's own test tool, as its own process.
Run ToolRun(double seconds, uint32_t width, uint32_t height) {
    Run r;
    const std::string out = "/tmp/lumetra-aravis-bench-" + std::to_string(getpid()) + ".txt";
    const auto t0 = Steady::now();
    std::fflush(stdout);  // the child would write what is buffered a second time
    const pid_t pid = fork();
    if (pid == 0) {
        freopen(out.c_str(), "w", stdout);
        const std::string w = std::to_string(width), h = std::to_string(height);
        const std::string d = std::to_string(static_cast<int>(seconds));
        execlp("arv-camera-test-0.8", "arv-camera-test-0.8", "-n",
               lumetra::test::kFakeCameraAddress, "-w", w.c_str(), "-h", h.c_str(), "--duration",
               d.c_str(), static_cast<char*>(nullptr));
        _exit(127);
    }
    int status = 0;
    rusage usage{};
    wait4(pid, &status, 0, &usage);
    const double elapsed = std::chrono::duration<double>(Steady::now() - t0).count();
    FILE* f = fopen(out.c_str(), "r");
    char line[256];
    uint64_t completed = 0, failures = 0, underruns = 0, missing = 0;
    while (f != nullptr && fgets(line, sizeof line, f) != nullptr) {
        unsigned long long v = 0;
        if (sscanf(line, "n_completed_buffers = %llu", &v) == 1)
            completed = v;
        if (sscanf(line, "n_failures = %llu", &v) == 1)
            failures = v;
        if (sscanf(line, "n_underruns = %llu", &v) == 1)
            underruns = v;
        if (sscanf(line, "n_missing_frames = %llu", &v) == 1)
            missing = v;
    }
    if (f != nullptr) {
        fclose(f);
    }
    std::remove(out.c_str());
    if (!WIFEXITED(status) || completed == 0) {
        std::printf("arv-camera-test-0.8 did not run (status %d)\n", status);
        return r;
    }
    r.frames = completed;
    r.lost = failures + underruns + missing;
    // The tool's start-up (camera connection, GenICam parsing) is part of its time.
    r.fps = completed / std::min(elapsed, seconds);
    r.cpuMsPerFrame = CpuSeconds(usage) * 1000.0 / completed;
    return r;
}

Run Median(std::vector<Run> runs) {
    Run m;
    if (runs.empty()) {
        return m;
    }
    auto pick = [&](auto field) {
        std::vector<double> v;
        for (const Run& r : runs) {
            v.push_back(static_cast<double>(r.*field));
        }
        std::sort(v.begin(), v.end());
        return v[v.size() / 2];
    };
    m.fps = pick(&Run::fps);
    m.cpuMsPerFrame = pick(&Run::cpuMsPerFrame);
    m.frames = static_cast<uint64_t>(pick(&Run::frames));
    uint64_t lost = 0;
    for (const Run& r : runs) {
        lost += r.lost;
    }
    m.lost = lost;
    return m;
}

}  // namespace

int main(int argc, char** argv) {
    const std::string library = argc > 1 && *argv[1] != '\0'
                                    ? argv[1]
                                    : lumetra::ExecutableDirectory() + "/../lib/libOrvixAravis.so";
    const double seconds = argc > 2 ? std::atof(argv[2]) : 8.0;
    const int runs = argc > 3 ? std::atoi(argv[3]) : 5;

    lumetra::test::FakeCamera camera;
    if (const std::string why = camera.Start(); !why.empty()) {
        std::printf("%s\n", why.c_str());
        return 1;
    }
    setenv("LUMETRA_ARAVIS_CAMERAS", lumetra::test::kFakeCameraAddress, 1);
    lumetra::BoardLibraryLoad load = lumetra::LoadBoardLibrary(library);
    if (!load.library) {
        std::printf("%s\n", load.error.c_str());
        return 1;
    }
    std::printf(
        "Aravis grab benchmark: %s on Aravis's fake camera (127.0.0.1), %d runs of %.0f s\n",
        library.c_str(), runs, seconds);

    std::vector<Run> lumetra, bare, plain, tool;
    uint32_t width = 0, height = 0;
    for (int i = 0; i < runs; ++i) {
        lumetra.push_back(LumetraRun(*load.library, seconds));
        if (width == 0) {
            // The geometry Lumetra's run settled on, for the other consumers.
            GError* error = nullptr;
            ArvCamera* c = arv_camera_new(lumetra::test::kFakeCameraAddress, &error);
            if (c != nullptr) {
                width = static_cast<uint32_t>(arv_camera_get_integer(c, "Width", nullptr));
                height = static_cast<uint32_t>(arv_camera_get_integer(c, "Height", nullptr));
                g_object_unref(c);
            }
            g_clear_error(&error);
        }
        bare.push_back(LibraryRun(*load.library, seconds));
        plain.push_back(PlainRun(seconds, width, height, 16));
        tool.push_back(ToolRun(seconds, width, height));
    }
    auto each = [](const char* name, const std::vector<Run>& v) {
        std::printf("%-28s", name);
        for (const Run& r : v) {
            std::printf("  %5.1f fps %6.3f ms", r.fps, r.cpuMsPerFrame);
        }
        std::printf("\n");
    };
    std::printf("each run (frames per second, CPU per frame):\n");
    each("Lumetra", lumetra);
    each("libOrvixAravis alone", bare);
    each("plain ArvStream", plain);
    each("arv-camera-test-0.8", tool);
    const Run l = Median(lumetra), b = Median(bare), p = Median(plain), t = Median(tool);
    std::printf("%-28s %10s %16s %8s\n", "consumer (median)", "frames/s", "CPU ms/frame", "lost");
    std::printf("%-28s %10.2f %16.3f %8llu\n", "Lumetra (engine + library)", l.fps, l.cpuMsPerFrame,
                static_cast<unsigned long long>(l.lost));
    std::printf("%-28s %10.2f %16.3f %8llu\n", "libOrvixAravis, no engine", b.fps, b.cpuMsPerFrame,
                static_cast<unsigned long long>(b.lost));
    std::printf("%-28s %10.2f %16.3f %8llu\n", "plain ArvStream consumer", p.fps, p.cpuMsPerFrame,
                static_cast<unsigned long long>(p.lost));
    std::printf("%-28s %10.2f %16.3f %8llu\n", "arv-camera-test-0.8", t.fps, t.cpuMsPerFrame,
                static_cast<unsigned long long>(t.lost));
    std::printf("Lumetra / plain ArvStream CPU per frame: %.2fx (goal <= 1.2x, no frame lost)\n",
                p.cpuMsPerFrame > 0 ? l.cpuMsPerFrame / p.cpuMsPerFrame : 0.0);
    std::printf("libOrvixAravis alone / plain ArvStream: %.2fx\n",
                p.cpuMsPerFrame > 0 ? b.cpuMsPerFrame / p.cpuMsPerFrame : 0.0);
    return 0;
}
