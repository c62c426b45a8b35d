// lumetra-cli grab: a single shot or a continuous grab, driven the way the workbench drives it,
// with the recording paths: an H.264 recording, a numbered image sequence, a snapshot.
#include <unistd.h>

#include <QJsonObject>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <memory>

#include "cli/arguments.h"
#include "cli/cli_output.h"
#include "cli/save_options.h"

namespace lumetra::cli {
namespace {

using Seconds = std::chrono::duration<double>;

struct GrabRequest {
    bool once = false;
    std::optional<int64_t> frames;
    std::optional<double> seconds;
    std::string snapshot;
    std::string record;
    std::string save;
    std::optional<int64_t> count;
    TiffChoices tiff;
};

struct GrabFigures {
    uint64_t grabbed = 0;
    uint64_t displayed = 0;
    uint64_t lost = 0;
    double fps = 0.0;
};

ImageSaveOptions SaveOptionsOf(Workbench& wb, const GrabRequest& o) {
    ImageSaveOptions options = wb.imageSaveOptions();
    ApplyTiffChoices(o.tiff, options);
    return options;
}

void printFigures(Session& s, const GrabFigures& f, const GrabRequest& o, bool ok) {
    Workbench& wb = *s.workbench;
    const VideoRecorder* recorder = o.record.empty() ? nullptr : &wb.videoRecorder();
    const SequenceSaver* saver = o.save.empty() ? nullptr : &wb.sequenceSaver();
    if (s.options.json) {
        QJsonObject out;
        out["framesGrabbed"] = static_cast<qint64>(f.grabbed);
        out["framesDisplayed"] = static_cast<qint64>(f.displayed);
        out["framesLost"] = static_cast<qint64>(f.lost);
        out["fps"] = f.fps;
        if (recorder) {
            QJsonObject v;
            v["file"] = QString::fromStdString(recorder->path());
            v["files"] = recorder->fileCounter();
            v["result"] = recorder->result();
            v["framesEncoded"] = static_cast<qint64>(recorder->framesEncoded());
            v["rate"] = recorder->rate();
            v["failures"] = wb.video().failures();
            out["video"] = v;
        }
        if (saver) {
            QJsonObject q;
            q["requested"] = saver->requested();
            q["saved"] = saver->saved();
            q["missed"] = saver->missed();
            q["failed"] = saver->failed();
            out["sequence"] = q;
        }
        if (!o.snapshot.empty()) {
            out["snapshot"] = QString::fromStdString(o.snapshot);
        }
        out["ok"] = ok;
        if (s.options.verbose) {
            QJsonObject messages;
            for (auto [m, n] : s.sink.counts()) {
                messages[QString::number(m)] = static_cast<qint64>(n);
            }
            out["messages"] = messages;
        }
        out["log"] = LogArray(s);
        PrintJson(out);
        return;
    }
    std::printf(
        "framesGrabbed   %llu\nframesDisplayed %llu\nframesLost      %llu\nfps             %.2f\n",
        static_cast<unsigned long long>(f.grabbed), static_cast<unsigned long long>(f.displayed),
        static_cast<unsigned long long>(f.lost), f.fps);
    if (recorder) {
        std::printf("videoFile       %s\nvideoFiles      %d\nvideoResult     %d\n",
                    recorder->path().c_str(), recorder->fileCounter(), recorder->result());
    }
    if (saver) {
        std::printf("sequenceSaved   %d of %d\nsequenceMissed  %d\n", saver->saved(),
                    saver->requested(), saver->missed());
    }
    if (s.options.verbose) {
        for (auto [m, n] : s.sink.counts()) {
            std::printf("message 0x%03X (%u) x %llu\n", m, m, static_cast<unsigned long long>(n));
        }
    }
}

bool Validate(Arguments& args, const GrabRequest& o) {
    const bool bySequence = o.count.has_value() && !o.frames && !o.seconds && !o.once;
    if (int(o.once) + int(o.frames.has_value()) + int(o.seconds.has_value()) != 1 && !bySequence) {
        args.Error("give one of --once, --frames N or --seconds S (or --save with --count)");
        return false;
    }
    if ((o.frames && *o.frames <= 0) || (o.seconds && *o.seconds <= 0)) {
        args.Error("--frames and --seconds need a value above 0");
        return false;
    }
    if (o.once && (!o.record.empty() || !o.save.empty())) {
        args.Error("--record and --save need a continuous grab (--frames, --seconds or --count)");
        return false;
    }
    if (o.save.empty() != !o.count.has_value()) {
        args.Error("--save DIR/NAME.EXT and --count N go together");
        return false;
    }
    if (o.count && *o.count < 1) {
        args.Error("--count needs a value of at least 1");
        return false;
    }
    return true;
}

}  // namespace

int RunGrab(Session& s) {
    Arguments args("grab", s.options.args);
    GrabRequest o;
    o.once = args.Flag("--once");
    o.frames = args.Integer("--frames");
    o.seconds = args.Number("--seconds");
    o.snapshot = args.Value("--snapshot").value_or("");
    o.record = args.Value("--record").value_or("");
    o.save = args.Value("--save").value_or("");
    o.count = args.Integer("--count");
    if (!ParseTiffChoices(args, o.tiff) || !args.Finish() || !Validate(args, o)) {
        return 2;
    }
    if (!o.save.empty()) {
        std::string base;
        std::string extension;
        if (!SplitSequencePath(o.save, base, extension)) {
            args.Error("--save needs DIR/NAME.EXT, not '" + o.save + "'");
            return 2;
        }
    }
    if (!o.snapshot.empty() && ImageFileTypeOf(o.snapshot) == ImageFileType::kUnknown) {
        args.Error("--snapshot needs a .bmp, .jpg, .png, .tif, .raw, .pgm or .ppm file, not '" +
                   o.snapshot + "'");
        return 2;
    }
    s.OpenDocument();
    Workbench& wb = *s.workbench;
    GrabEngine& engine = wb.engine();
    if (!s.document->hasBoard()) {
        // The command runs all the same, so that the user reads what the main frame says.
        if (o.once) {
            wb.GrabOnce();
        } else {
            wb.GrabContinuous();
        }
        s.Dispatch();
        printFigures(s, GrabFigures{}, o, false);
        return 1;
    }
    if (!o.save.empty()) {
        // The command line names the folder to fill, as a save dialog would let one make it.
        const std::filesystem::path folder = std::filesystem::path(o.save).parent_path();
        std::error_code ec;
        if (!folder.empty() && !std::filesystem::is_directory(folder, ec) &&
            !std::filesystem::create_directories(folder, ec)) {
            args.Error("cannot make the folder '" + folder.string() + "': " + ec.message());
            return 2;
        }
    }
    const ImageSaveOptions saveOptions = SaveOptionsOf(wb, o);
    const bool recording = !o.record.empty();

    bool ok = true;
    if (!o.save.empty()) {
        std::string error;
        if (!wb.StartSequence(o.save, static_cast<int>(*o.count), saveOptions, error)) {
            s.log.log("Save image sequence fail: " + o.save + ": " + error + "\n");
            ok = false;
        }
    }

    GrabFigures figures;
    if (!ok) {
        // The sequence could not start: nothing is grabbed.
    } else if (o.once) {
        ok = s.SingleShot();
    } else if (wb.GrabContinuous()) {
        // The time counts from the grab's start, so that --seconds S at R frames per second
        // delivers S x R frames.
        const auto start = std::chrono::steady_clock::now();
        if (recording) {
            wb.StartVideoWhenRated(o.record);
        }
        const SequenceSaver* saver = o.save.empty() ? nullptr : &wb.sequenceSaver();
        const bool tty = isatty(STDERR_FILENO) != 0;
        auto nextProgress = start + std::chrono::seconds(1);
        bool stoppedByItself = false;
        for (;;) {
            s.Dispatch(std::chrono::milliseconds(20));
            const auto now = std::chrono::steady_clock::now();
            const double elapsed = Seconds(now - start).count();
            const uint32_t frames = engine.context().frameCounter;
            if (!engine.continuousRunning()) {
                // A time-out or the watch-dog ended it; the workbench has run the stop.
                stoppedByItself = true;
                break;
            }
            const VideoRecorder& recorder = wb.videoRecorder();
            const bool videoOver = recording && !wb.videoPending() && !recorder.running();
            // With a recording, --frames counts the frames it took.
            const uint64_t counted = recording ? recorder.framesQueued() : frames;
            const bool sequenceDone = !o.save.empty() && !wb.sequenceSaver().wantsFrames();
            if (videoOver || (o.frames && counted >= uint64_t(*o.frames)) ||
                (o.seconds && elapsed >= *o.seconds) || (!o.frames && !o.seconds && sequenceDone)) {
                break;
            }
            if (tty && now >= nextProgress) {
                std::fprintf(stderr, "\r%u frames, %.1f fps, %u lost", frames, frames / elapsed,
                             engine.context().lostEvents.load());
                if (saver != nullptr) {
                    // What the saver could not take is said while it happens.
                    std::fprintf(stderr, "; sequence %d of %d saved, %d missed", saver->saved(),
                                 saver->requested(), saver->missed());
                }
                std::fputs("   ", stderr);
                nextProgress += std::chrono::seconds(1);
            }
        }
        if (tty) {
            std::fputs("\n", stderr);
        }
        const double elapsed = Seconds(std::chrono::steady_clock::now() - start).count();
        figures.fps = elapsed > 0 ? engine.context().frameCounter / elapsed : 0.0;
        if (!stoppedByItself) {
            // The recording ends first, so that it holds what was counted; the stop ends the
            // sequence too, each after writing what it holds.
            wb.StopVideo();
            wb.GrabStop();
        }
        s.Dispatch();
        ok = ok && !stoppedByItself && !engine.lastStopFailed();
    } else {
        ok = false;
    }
    if (!o.save.empty()) {
        SequenceSaver& saver = wb.sequenceSaver();
        saver.Stop();
        ok = ok && saver.failed() == 0 && saver.saved() > 0;
    }
    if (recording) {
        wb.StopVideo();
        s.Dispatch();
        const VideoRecorder& recorder = wb.videoRecorder();
        ok = ok && !recorder.path().empty() && recorder.result() == video::kSuccess &&
             wb.video().failures() == 0;
    }
    figures.grabbed = engine.context().frameCounter;
    figures.displayed = engine.context().framesDisplayed;
    figures.lost = engine.context().lostEvents;
    if (ok && !o.snapshot.empty()) {
        ok = wb.SaveImageTo(o.snapshot, saveOptions);
        wb.imageSaver().Wait();
        s.Dispatch();
        ok = ok && wb.imageSaver().lastSucceeded();
    }
    printFigures(s, figures, o, ok);
    return ok ? 0 : 1;
}

}  // namespace lumetra::cli
