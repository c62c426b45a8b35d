// Paint of the main image view in a 1280 x 960 window (run it under Xvfb, where Mesa draws on the
// processor) for 4096 x 3072 frames: 8-bit mono, 12-bit mono ("Adaptive"), 8-bit Bayer
// demosaiced and 8-bit BGR, each at zoom fit, 1:1 and 384 with pixel values. Beside each, in the
// same run: the renderer alone (what the view computes before OpenGL), the time under the frame
// lock, and cv::resize of the same visible part alone (the floor of the work). Then a live
// stream: the simulated board at 4096 x 3072, 60 frames a second, through the grab engine, with
// the view painting whenever the engine asks.
//
//   xvfb-run -a -s "-screen 0 1600x1200x24" env QT_QPA_PLATFORM=xcb build/bin/paint_bench
//   [--runs N] [--live SECONDS] [--save DIR]   (DIR: a PNG of each case as displayed)
#include <stdlib.h>
#include <unistd.h>

#include <QApplication>
#include <QDir>
#include <QElapsedTimer>
#include <QImage>
#include <QMetaObject>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include <opencv2/imgproc.hpp>

#include "acquisition/board_document.h"
#include "base/settings.h"
#include "imaging/display_modes.h"
#include "imaging/ui/main_view.h"
#include "imaging/view_render.h"

namespace lumetra {
namespace {

using Steady = std::chrono::steady_clock;

double Ms(Steady::duration d) {
    return std::chrono::duration<double, std::milli>(d).count();
}

double Median(std::vector<double> v) {
    if (v.empty()) {
        return 0;
    }
    std::sort(v.begin(), v.end());
    return v.size() % 2 ? v[v.size() / 2] : (v[v.size() / 2 - 1] + v[v.size() / 2]) / 2;
}

// Posts the engine's repaint requests to the view's thread, as the main window does; counts them.
class ViewSink final : public MessageSink {
  public:
    void post(uint32_t message, intptr_t, intptr_t) override {
        if (message == msg::kPaint) {
            ++paintRequests;
            CLumetraMainWnd* view = view_.load();
            if (view != nullptr) {
                QMetaObject::invokeMethod(view, qOverload<>(&QWidget::update),
                                          Qt::QueuedConnection);
            }
        }
    }
    void attach(CLumetraMainWnd* view) { view_ = view; }
    std::atomic<uint64_t> paintRequests{0};

  private:
    std::atomic<CLumetraMainWnd*> view_{nullptr};
};

struct Window {
    explicit Window(CKELM_PCIE_VexCardDoc& document, MessageLog& log, MessageSink* sink)
        : view(document.viewSources(), log, sink) {
        view.resize(1280, 960);
        view.show();
        QObject::connect(&view, &QOpenGLWidget::frameSwapped, [this] {
            swapped = Steady::now();
            ++swaps;
        });
        // Until the window is up and the first paint (which only clears) has passed.
        for (int i = 0; i < 50 && view.paintCount() < 2; ++i) {
            QApplication::processEvents(QEventLoop::AllEvents, 20);
            usleep(10000);
        }
    }

    // One paint: update() to the frame on the screen. False when none came.
    bool Paint(double& cycleMs) {
        const int before = swaps;
        const Steady::time_point start = Steady::now();
        view.update();
        while (swaps == before) {
            QApplication::processEvents(QEventLoop::AllEvents, 5);
            if (Ms(Steady::now() - start) > 5000) {
                return false;
            }
        }
        cycleMs = Ms(swapped - start);
        return true;
    }

    CLumetraMainWnd view;
    Steady::time_point swapped{};
    int swaps = 0;
};

struct Rig {
    Rig() {
        DocumentServices services;
        services.settings = &settings;
        services.log = &log;
        services.resourceConfigPath = "/nonexistent/BoardConfig.ini";
        document = std::make_unique<CKELM_PCIE_VexCardDoc>(services);
    }

    void Load(const cv::Mat& pixels, int bitsPerPixel, BayerSettings bayer) {
        FrameImage& frame = document->frameImage();
        document->bayer() = bayer;
        std::lock_guard lock(frame.frameLock());
        FrameFormat f;
        f.width = pixels.cols;
        f.height = pixels.rows;
        f.bitsPerPixel = bitsPerPixel;
        f.channels = pixels.channels();
        frame.setFormat(f);
        frame.Allocate(bitsPerPixel, document->bayer(), log);
        Put(pixels, false);
    }

    void Put(const cv::Mat& pixels, bool lock = true) {
        FrameImage& frame = document->frameImage();
        std::unique_lock guard(frame.frameLock(), std::defer_lock);
        if (lock) {
            guard.lock();
        }
        cv::Mat target = frame.raw().mat();
        pixels.copyTo(target);
        frame.countFrame();
    }

    MemorySettings settings;
    NullMessageLog log;
    std::unique_ptr<CKELM_PCIE_VexCardDoc> document;
};

struct Case {
    const char* name;
    int type;
    int bitsPerPixel;
    int bayer;
};

// Two frames that differ, as a stream's do: a scene with detail and noise.
std::vector<cv::Mat> Frames(const Case& c) {
    std::vector<cv::Mat> frames;
    for (int i = 0; i < 2; ++i) {
        cv::Mat m(3072, 4096, c.type);
        const double high = CV_MAT_DEPTH(c.type) == CV_16U ? 4096 : 256;
        cv::randu(m, cv::Scalar::all(0), cv::Scalar::all(high));
        cv::Mat ramp(3072, 4096, CV_32F);
        for (int y = 0; y < ramp.rows; ++y) {
            float* row = ramp.ptr<float>(y);
            for (int x = 0; x < ramp.cols; ++x) {
                row[x] = static_cast<float>(((x + 7 * i) % 512) * high / 1024.0);
            }
        }
        cv::Mat rampTyped;
        ramp.convertTo(rampTyped, CV_MAT_DEPTH(c.type));
        if (m.channels() == 3) {
            cv::cvtColor(rampTyped, rampTyped, cv::COLOR_GRAY2BGR);
        }
        cv::addWeighted(m, 0.5, rampTyped, 0.5, 0, m);
        frames.push_back(m);
    }
    return frames;
}

void Bench(int runs, const QString& saveDir) {
    const Case cases[] = {{"8-bit mono", CV_8UC1, 8, 0},
                          {"12-bit mono (Adaptive)", CV_16UC1, 12, 0},
                          {"8-bit Bayer (RGGB)", CV_8UC1, 8, 2},
                          {"8-bit BGR", CV_8UC3, 24, 0}};
    enum class Zoom { Fit, OneToOne, Max };
    const std::pair<Zoom, const char*> zooms[] = {
        {Zoom::Fit, "fit"}, {Zoom::OneToOne, "1:1"}, {Zoom::Max, "384 + values"}};

    Rig rig;
    Window window(*rig.document, rig.log, nullptr);
    CLumetraMainWnd& view = window.view;
    if (!view.contextReady()) {
        std::printf("no OpenGL context the view can draw with\n");
        return;
    }
    // The platform's own cost of one frame on the screen: an empty view.
    std::vector<double> empty;
    for (int i = 0; i < runs; ++i) {
        double cycle = 0;
        if (window.Paint(cycle)) {
            empty.push_back(cycle);
        }
    }
    std::printf("window 1280 x 960, frames 4096 x 3072, median of %d paints each\n", runs);
    std::printf(
        "an empty view, update() to the frame on the screen: %.2f ms (Qt's composition "
        "and the swap)\n\n",
        Median(empty));
    std::printf("%-24s %-13s %9s %9s %9s %11s %9s\n", "frame", "zoom", "render", "locked", "paint",
                "on screen", "resize");
    std::printf("%-24s %-13s %9s %9s %9s %11s %9s\n", "", "", "ms", "ms", "ms", "ms", "ms");

    ViewRenderer renderer;
    for (const Case& c : cases) {
        const std::vector<cv::Mat> frames = Frames(c);
        rig.Load(frames[0], c.bitsPerPixel, {c.bayer != 0, c.bayer});
        view.frameSizeChanged();
        for (const auto& [zoom, zoomName] : zooms) {
            switch (zoom) {
                case Zoom::Fit:
                    view.runCommand(viewcmd::kZoomFit);
                    break;
                case Zoom::OneToOne:
                    view.runCommand(viewcmd::kOriginalSize);
                    break;
                case Zoom::Max:
                    view.runCommand(viewcmd::kMaximumImage);
                    view.runCommand(viewcmd::kDecimal);
                    break;
            }
            std::vector<double> render, locked, paint, cycle, resize;
            for (int i = 0; i < runs + 2; ++i) {
                rig.Put(frames[static_cast<size_t>(i % 2)]);
                double onScreen = 0;
                if (!window.Paint(onScreen)) {
                    std::printf("no paint came\n");
                    return;
                }
                // The same work without OpenGL, and the resize of the same part alone.
                ViewSettings s;
                s.rect = view.imageRect();
                s.zoom = view.zoom();
                s.client = view.clientSize();
                s.mode = rig.document->displayMode;
                s.dataFormat = view.dataFormat();
                s.bayer = rig.document->bayer();
                const Steady::time_point t0 = Steady::now();
                renderer.Render(rig.document->frameImage(), s, cv::Mat());
                const double renderMs = Ms(Steady::now() - t0);
                const VisiblePart part = MapVisible(s.rect, s.zoom, frames[0].size(), s.client);
                cv::Mat resized;
                const Steady::time_point t1 = Steady::now();
                cv::resize(frames[0](part.source), resized, cv::Size(), s.zoom, s.zoom,
                           cv::INTER_NEAREST);
                const double resizeMs = Ms(Steady::now() - t1);
                if (i < 2) {
                    continue;  // warm-up
                }
                render.push_back(renderMs);
                locked.push_back(renderer.info().lockedMs);
                paint.push_back(view.lastDrawMs());
                cycle.push_back(onScreen);
                resize.push_back(resizeMs);
            }
            std::printf("%-24s %-13s %9.2f %9.2f %9.2f %11.2f %9.2f\n", c.name, zoomName,
                        Median(render), Median(locked), Median(paint), Median(cycle),
                        Median(resize));
            if (!saveDir.isEmpty()) {
                QString file = QString("%1/%2 %3.png").arg(saveDir, c.name, zoomName);
                file.replace(':', '-');
                view.viewImage().save(file);
            }
        }
    }
    std::printf(
        "\nrender: the view's renderer alone; locked: of it, under the frame lock; paint: "
        "paintGL (render, glDrawPixels, overlays, glFinish);\non screen: update() to "
        "frameSwapped (adds Qt's composition and the swap); resize: cv::resize of the "
        "visible part alone (nearest).\ngoal: paint at most 10 ms\n");
}

void Live(double seconds) {
    const std::string ini = "/tmp/lumetra-paint-bench-" + std::to_string(getpid()) + ".ini";
    std::ofstream(ini) << "[board0]\nwidth=4096\nheight=3072\nfps=60\nbuffers=16\n"
                          "image_type=0\ndata_format=8\ntaps=8\npattern=bars\n";
    setenv("ORVIX_SIM_CONFIG", ini.c_str(), 1);
    BoardLibraryLoad load = LoadBoardLibrary(DefaultBoardLibraryPath());
    if (!load.library) {
        std::printf("live: %s\n", load.error.c_str());
        return;
    }
    MemorySettings settings;
    NullMessageLog log;
    ViewSink sink;
    DocumentServices services;
    services.library = load.library.get();
    services.settings = &settings;
    services.log = &log;
    services.sink = &sink;
    services.resourceConfigPath = "/nonexistent/BoardConfig.ini";
    CKELM_PCIE_VexCardDoc document(services);
    if (!document.hasBoard() || !document.AllocateFrameMemory()) {
        std::printf("live: the simulated board did not open\n");
        return;
    }
    Window window(document, log, &sink);
    window.view.runCommand(viewcmd::kZoomFit);
    GrabEngine& engine = document.grabEngine();
    engine.setLastPaint(&window.view.lastPaintMs());
    sink.attach(&window.view);

    const int paintsBefore = window.view.paintCount();
    const Steady::time_point start = Steady::now();
    if (engine.StartContinuous(document.handle(), false) != GrabEngine::StartResult::kStarted) {
        std::printf("live: the grab did not start\n");
        return;
    }
    std::vector<double> paintMs;
    int seen = paintsBefore;
    while (Ms(Steady::now() - start) < seconds * 1000) {
        QApplication::processEvents(QEventLoop::AllEvents, 5);
        if (window.view.paintCount() != seen) {
            seen = window.view.paintCount();
            paintMs.push_back(window.view.lastDrawMs());
        }
    }
    const double elapsed = Ms(Steady::now() - start) / 1000;
    uint32_t boardLost = 0;
    load.library->GetInfo(document.handle(), ORVIX_FRAME_LOST, &boardLost);
    const uint32_t grabbed = engine.context().frameCounter;
    const uint32_t lostEvents = engine.context().lostEvents;
    const uint64_t requests = sink.paintRequests;
    engine.StopGrab();
    sink.attach(nullptr);
    std::remove(ini.c_str());
    const int paints = window.view.paintCount() - paintsBefore;
    std::printf("\nlive: simulated board 4096 x 3072 8-bit at 60 fps, zoom fit, %.1f s\n", elapsed);
    std::printf("  frames grabbed %u (%.1f/s), frames lost %u (lost events %u)\n", grabbed,
                grabbed / elapsed, boardLost, lostEvents);
    std::printf(
        "  repaints asked by the engine %.1f/s, paints %.1f/s, median paint %.2f ms, "
        "last paint handed to the engine %d ms\n",
        requests / elapsed, paints / elapsed, Median(paintMs), window.view.lastPaintMs().load());
}

}  // namespace
}  // namespace lumetra

int main(int argc, char** argv) {
    const QByteArray platform = qgetenv("QT_QPA_PLATFORM");
    if (qEnvironmentVariableIsEmpty("DISPLAY") || (!platform.isEmpty() && platform != "xcb")) {
        std::fprintf(stderr,
                     "paint_bench needs an X display with OpenGL: run it as\n  xvfb-run -a "
                     "-s \"-screen 0 1600x1200x24\" env QT_QPA_PLATFORM=xcb %s\n",
                     argv[0]);
        return 2;
    }
    qputenv("QT_QPA_PLATFORM", "xcb");
    int runs = 9;
    double live = 10;
    QString saveDir;
    for (int i = 1; i + 1 < argc; i += 2) {
        if (std::strcmp(argv[i], "--runs") == 0) {
            runs = std::max(1, std::atoi(argv[i + 1]));
        } else if (std::strcmp(argv[i], "--live") == 0) {
            live = std::atof(argv[i + 1]);
        } else if (std::strcmp(argv[i], "--save") == 0) {
            saveDir = argv[i + 1];
            QDir().mkpath(saveDir);
        }
    }
    QApplication app(argc, argv);
    lumetra::Bench(runs, saveDir);
    if (live > 0) {
        lumetra::Live(live);
    }
    return 0;
}
