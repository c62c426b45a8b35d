// lumetra-cli grab: a single shot or a continuous grab, driven the way the workbench drives it.
#include <unistd.h>

#include <QJsonObject>
#include <chrono>
#include <cstdio>
#include <opencv2/imgcodecs.hpp>

#include "acquisition/grab_controller.h"
#include "cli/arguments.h"
#include "cli/cli_output.h"

namespace lumetra::cli {
namespace {

using Seconds = std::chrono::duration<double>;

struct GrabRequest {
    bool once = false;
    std::optional<int64_t> frames;
    std::optional<double> seconds;
    std::string snapshot;
};

struct GrabFigures {
    uint64_t grabbed = 0;
    uint64_t displayed = 0;
    uint64_t lost = 0;
    double fps = 0.0;
};

bool writeSnapshot(Session& s, const std::string& path) {
    FrameImage& frame = s.document->frameImage();
    std::lock_guard lock(frame.frameLock());
    if (!frame.raw().hasImage()) {
        s.log.log("Snapshot " + path + " not written: there is no frame\n");
        return false;
    }
    bool written = false;
    try {
        written = cv::imwrite(path, frame.raw().mat());
    } catch (const cv::Exception& e) {
        s.log.log("Snapshot " + path + " not written: " + e.what() + "\n");
        return false;
    }
    if (!written) {
        s.log.log("Snapshot " + path +
                  " not written: unknown extension or the file cannot be made\n");
    }
    return written;
}

void printFigures(Session& s, const GrabFigures& f, bool ok) {
    if (s.options.json) {
        QJsonObject o;
        o["framesGrabbed"] = static_cast<qint64>(f.grabbed);
        o["framesDisplayed"] = static_cast<qint64>(f.displayed);
        o["framesLost"] = static_cast<qint64>(f.lost);
        o["fps"] = f.fps;
        o["ok"] = ok;
        if (s.options.verbose) {
            QJsonObject messages;
            for (auto [m, n] : s.sink.counts()) {
                messages[QString::number(m)] = static_cast<qint64>(n);
            }
            o["messages"] = messages;
        }
        o["log"] = LogArray(s);
        PrintJson(o);
        return;
    }
    std::printf(
        "framesGrabbed   %llu\nframesDisplayed %llu\nframesLost      %llu\nfps             %.2f\n",
        static_cast<unsigned long long>(f.grabbed), static_cast<unsigned long long>(f.displayed),
        static_cast<unsigned long long>(f.lost), f.fps);
    if (s.options.verbose) {
        for (auto [m, n] : s.sink.counts()) {
            std::printf("message 0x%03X (%u) x %llu\n", m, m, static_cast<unsigned long long>(n));
        }
    }
}

}  // namespace

int RunGrab(Session& s) {
    Arguments args("grab", s.options.args);
    GrabRequest o;
    o.once = args.Flag("--once");
    o.frames = args.Integer("--frames");
    o.seconds = args.Number("--seconds");
    o.snapshot = args.Value("--snapshot").value_or("");
    if (!args.Finish()) {
        return 2;
    }
    if (int(o.once) + int(o.frames.has_value()) + int(o.seconds.has_value()) != 1 ||
        (o.frames && *o.frames <= 0) || (o.seconds && *o.seconds <= 0)) {
        std::fputs("lumetra-cli grab: give one of --once, --frames N or --seconds S (N, S > 0)\n",
                   stderr);
        return 2;
    }
    if (!s.OpenDocument()) {
        return NoBoard(s);
    }
    CKELM_PCIE_VexCardDoc& doc = *s.document;
    GrabEngine& engine = doc.grabEngine();
    GrabController controller(doc, s.prompt);
    s.sink.setAnswer([&controller](uint32_t m, intptr_t, intptr_t) -> intptr_t {
        return m == msg::kCameraStatus ? controller.CameraStatusAnswer() : 0;
    });
    const QueuedSink::Handler handle = [&](uint32_t m, intptr_t w, intptr_t l) {
        return controller.Handle(m, w, l);
    };

    GrabFigures figures;
    bool ok = false;
    const auto start = std::chrono::steady_clock::now();
    if (o.once) {
        controller.SingleShot();
        s.sink.Dispatch(handle, std::chrono::milliseconds(0));
        ok = engine.context().frameCounter == 1;
    } else if (controller.StartContinuous()) {
        const bool tty = isatty(STDERR_FILENO) != 0;
        auto nextProgress = start + std::chrono::seconds(1);
        bool stoppedByItself = false;
        for (;;) {
            s.sink.Dispatch(handle, std::chrono::milliseconds(20));
            const auto now = std::chrono::steady_clock::now();
            const uint32_t frames = engine.context().frameCounter;
            if (!engine.grabbing) {
                // The watch-dog or a time-out ended it; let the watch-dog finish its stop.
                stoppedByItself = true;
                engine.StopWatchDog();
                break;
            }
            if ((o.frames && int64_t{frames} >= *o.frames) ||
                (o.seconds && Seconds(now - start).count() >= *o.seconds)) {
                break;
            }
            if (tty && now >= nextProgress) {
                const double elapsed = Seconds(now - start).count();
                std::fprintf(stderr, "\r%u frames, %.1f fps, %u lost   ", frames, frames / elapsed,
                             engine.context().lostEvents.load());
                nextProgress += std::chrono::seconds(1);
            }
        }
        if (tty) {
            std::fputs("\n", stderr);
        }
        const double elapsed = Seconds(std::chrono::steady_clock::now() - start).count();
        figures.fps = elapsed > 0 ? engine.context().frameCounter / elapsed : 0.0;
        if (!stoppedByItself) {
            controller.Stop();
        }
        s.sink.Dispatch(handle, std::chrono::milliseconds(0));
        ok = !stoppedByItself && !engine.lastStopFailed();
    }
    figures.grabbed = engine.context().frameCounter;
    figures.displayed = engine.context().framesDisplayed;
    figures.lost = engine.context().lostEvents;
    if (ok && !o.snapshot.empty()) {
        ok = writeSnapshot(s, o.snapshot);
    }
    printFigures(s, figures, ok);
    return ok ? 0 : 1;
}

}  // namespace lumetra::cli
