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
#include "recording/image_save_worker.h"
#include "recording/recording_settings.h"
#include "recording/sequence_saver.h"
#include "recording/video_controller.h"
#include "workbench/grab_controller.h"

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
    bool lzw = false;
    std::optional<std::pair<int, int>> dpi;
};

struct GrabFigures {
    uint64_t grabbed = 0;
    uint64_t displayed = 0;
    uint64_t lost = 0;
    double fps = 0.0;
};

// The recording paths of one run; each is there only when asked for.
// The board document's recording paths, when this run uses them.
struct Recording {
    VideoRecorder* recorder = nullptr;
    std::unique_ptr<DocumentVideoHost> host;
    VideoController* video = nullptr;
    bool videoStarted = false;
    SequenceSaver* saver = nullptr;
};

std::optional<std::pair<int, int>> ParseDpi(const std::string& text) {
    const size_t comma = text.find(',');
    if (comma == std::string::npos) {
        return std::nullopt;
    }
    const auto x = ParseInteger(text.substr(0, comma));
    const auto y = ParseInteger(text.substr(comma + 1));
    if (!x || !y || *x <= 0 || *y <= 0 || *x > 100000 || *y > 100000) {
        return std::nullopt;
    }
    return std::make_pair(static_cast<int>(*x), static_cast<int>(*y));
}

ImageSaveOptions SaveOptionsOf(Session& s, const GrabRequest& o) {
    ImageSaveOptions options = ReadImageSaveOptions(s.settings);
    options.lzw = options.lzw || o.lzw;
    if (o.dpi) {
        options.dpiX = o.dpi->first;
        options.dpiY = o.dpi->second;
    }
    return options;
}

FrameFormat DocumentFrameFormat(const CKELM_PCIE_VexCardDoc& doc) {
    const ImageFormatRecord& r = doc.imageFormat();
    FrameFormat f;
    f.width = static_cast<int>(r.width);
    f.height = static_cast<int>(r.height);
    f.bitsPerPixel = static_cast<int>(r.bitsPerPixel);
    f.channels = static_cast<int>(r.channels);
    f.rgbc = r.rgbdExtended;
    return f;
}

void printFigures(Session& s, const GrabFigures& f, const Recording& rec, const GrabRequest& o,
                  bool ok) {
    if (s.options.json) {
        QJsonObject out;
        out["framesGrabbed"] = static_cast<qint64>(f.grabbed);
        out["framesDisplayed"] = static_cast<qint64>(f.displayed);
        out["framesLost"] = static_cast<qint64>(f.lost);
        out["fps"] = f.fps;
        if (rec.recorder) {
            QJsonObject v;
            v["file"] = QString::fromStdString(rec.recorder->path());
            v["files"] = rec.recorder->fileCounter();
            v["result"] = rec.recorder->result();
            v["framesEncoded"] = static_cast<qint64>(rec.recorder->framesEncoded());
            v["rate"] = rec.recorder->rate();
            out["video"] = v;
        }
        if (rec.saver) {
            QJsonObject q;
            q["requested"] = rec.saver->requested();
            q["saved"] = rec.saver->saved();
            q["missed"] = rec.saver->missed();
            q["failed"] = rec.saver->failed();
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
    if (rec.recorder) {
        std::printf("videoFile       %s\nvideoFiles      %d\nvideoResult     %d\n",
                    rec.recorder->path().c_str(), rec.recorder->fileCounter(),
                    rec.recorder->result());
    }
    if (rec.saver) {
        std::printf("sequenceSaved   %d of %d\nsequenceMissed  %d\n", rec.saver->saved(),
                    rec.saver->requested(), rec.saver->missed());
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
    o.lzw = args.Flag("--lzw");
    if (auto dpi = args.Value("--dpi")) {
        o.dpi = ParseDpi(*dpi);
        if (!o.dpi) {
            args.Error("--dpi needs X,Y with whole numbers above 0, not '" + *dpi + "'");
        }
    }
    if (!args.Finish() || !Validate(args, o)) {
        return 2;
    }
    SequenceRequest sequence;
    if (!o.save.empty() && !SplitSequencePath(o.save, sequence.base, sequence.extension)) {
        args.Error("--save needs DIR/NAME.EXT, not '" + o.save + "'");
        return 2;
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
    if (!o.snapshot.empty() && ImageFileTypeOf(o.snapshot) == ImageFileType::kUnknown) {
        args.Error("--snapshot needs a .bmp, .jpg, .png, .tif or .raw file, not '" + o.snapshot +
                   "'");
        return 2;
    }
    if (!s.OpenDocument()) {
        return NoBoard(s);
    }
    CKELM_PCIE_VexCardDoc& doc = *s.document;
    GrabEngine& engine = doc.grabEngine();
    GrabController& controller = s.workbench->grab();
    const ImageSaveOptions saveOptions = SaveOptionsOf(s, o);

    Recording rec;
    if (!o.record.empty()) {
        rec.recorder = &s.workbench->videoRecorder();
        rec.host = std::make_unique<DocumentVideoHost>(doc);
        rec.video = &s.workbench->video();
    }
    bool ok = true;
    if (!o.save.empty()) {
        rec.saver = &s.workbench->sequenceSaver();
        sequence.count = static_cast<int>(*o.count);
        sequence.setGeometry(DocumentFrameFormat(doc));
        sequence.options = saveOptions;
        std::string error;
        if (!rec.saver->Start(sequence, error)) {
            s.log.log("Save image sequence fail: " + o.save + ": " + error + "\n");
            rec.saver = nullptr;
            ok = false;
        }
    }

    s.sink.setAnswer([&controller](uint32_t m, intptr_t, intptr_t) -> intptr_t {
        return m == msg::kCameraStatus ? controller.CameraStatusAnswer() : 0;
    });
    const QueuedSink::Handler handle = [&](uint32_t m, intptr_t w, intptr_t l) -> intptr_t {
        if (m == msg::kVideoResult) {
            if (rec.video) {
                rec.video->HandleResult(l);
            }
            return 0;
        }
        if (m == msg::kImageSaved) {
            s.log.log(kImageSavedText);
            return 0;
        }
        return controller.Handle(m, w, l);
    };

    GrabFigures figures;
    const auto start = std::chrono::steady_clock::now();
    if (!ok) {
        // The sequence could not start: nothing is grabbed.
    } else if (o.once) {
        controller.SingleShot();
        s.sink.Dispatch(handle, std::chrono::milliseconds(0));
        ok = engine.context().frameCounter == 1;
    } else if (controller.StartContinuous()) {
        if (rec.video) {
            rec.video->OnContinuousGrabStarted();
        }
        const bool tty = isatty(STDERR_FILENO) != 0;
        auto nextProgress = start + std::chrono::seconds(1);
        bool stoppedByItself = false;
        for (;;) {
            s.sink.Dispatch(handle, std::chrono::milliseconds(20));
            const auto now = std::chrono::steady_clock::now();
            const double elapsed = Seconds(now - start).count();
            const uint32_t frames = engine.context().frameCounter;
            if (!engine.grabbing) {
                // The watch-dog or a time-out ended it; let the watch-dog finish its stop
                // before anything else touches the consumers.
                stoppedByItself = true;
                engine.StopWatchDog();
                break;
            }
            // The board measures its rate over a few frames; recording starts once it has one.
            if (rec.video && !rec.videoStarted && (rec.host->frameRate() > 0 || elapsed > 2.0)) {
                rec.videoStarted = true;
                if (!rec.video->Start(o.record)) {
                    ok = false;
                    break;
                }
            }
            const bool sequenceDone = rec.saver && !rec.saver->wantsFrames();
            if ((o.frames && int64_t{frames} >= *o.frames) ||
                (o.seconds && elapsed >= *o.seconds) || (!o.frames && !o.seconds && sequenceDone)) {
                break;
            }
            if (tty && now >= nextProgress) {
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
            // Ends the sequence and the recording too, each after writing what it holds.
            controller.Stop();
        } else {
            engine.setConsumers(nullptr, nullptr);
            if (rec.saver) {
                rec.saver->Stop();
            }
            if (rec.recorder) {
                rec.recorder->Stop();
            }
        }
        s.sink.Dispatch(handle, std::chrono::milliseconds(0));
        ok = ok && !stoppedByItself && !engine.lastStopFailed();
    } else {
        ok = false;
    }
    engine.setConsumers(nullptr, nullptr);
    if (rec.saver) {
        rec.saver->Stop();
        ok = ok && rec.saver->failed() == 0 && rec.saver->saved() > 0;
    }
    if (rec.recorder) {
        rec.recorder->Stop();
        s.sink.Dispatch(handle, std::chrono::milliseconds(0));
        ok = ok && rec.videoStarted && rec.recorder->result() == video::kSuccess;
    }
    figures.grabbed = engine.context().frameCounter;
    figures.displayed = engine.context().framesDisplayed;
    figures.lost = engine.context().lostEvents;
    if (ok && !o.snapshot.empty()) {
        ImageSaveWorker snapshot(s.log, &s.sink);
        snapshot.SaveFrame(doc.frameImage(), o.snapshot, saveOptions);
        snapshot.Wait();
        s.sink.Dispatch(handle, std::chrono::milliseconds(0));
        ok = snapshot.lastSucceeded();
    }
    printFigures(s, figures, rec, o, ok);
    return ok ? 0 : 1;
}

}  // namespace lumetra::cli
