// The fault matrix: every fault a board, a disk or a file can throw at the workbench, one row
// each, with the exact lines the message log shows (and the boxes the user sees), what must be
// left as it was, and a check that the next operation works.
#include <signal.h>
#include <sys/resource.h>

#include <algorithm>
#include <cstdio>
#include <functional>
#include <opencv2/core.hpp>
#include <opencv2/imgcodecs.hpp>

#include "analysis/roi.h"
#include "fault_rig.h"
#include "recording/image_save_worker.h"
#include "support/asan_options.h"

// Some rows ask for more memory than any machine has: the allocator must refuse, as the C
// library's does, and the code must say so, rather than the sanitizer stopping the program.
extern "C" const char* __asan_default_options() {
    return LUMETRA_ASAN_DEFAULT_OPTIONS ":allocator_may_return_null=1";
}
extern "C" const char* __tsan_default_options() {
    return "allocator_may_return_null=1";
}

namespace lumetra::test {
namespace {

// Two small boards; `keys` go to the first.
std::string Boards(const std::string& keys = {}) {
    return "[board0]\nwidth=64\nheight=48\n" + keys + "[board1]\nwidth=64\nheight=48\n";
}

cv::Mat Picture(int rows, int cols, int type) {
    cv::Mat m(rows, cols, type);
    cv::RNG rng(3);
    rng.fill(m, cv::RNG::UNIFORM, 0, 200);
    return m;
}

std::string ReadBytes(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), {});
}

void WriteBytes(const std::string& path, const std::string& bytes) {
    std::ofstream(path, std::ios::binary) << bytes;
}

std::vector<std::string> FilesIn(const std::filesystem::path& folder) {
    std::vector<std::string> names;
    for (const auto& e : std::filesystem::directory_iterator(folder)) {
        names.push_back(e.path().filename().string());
    }
    std::sort(names.begin(), names.end());
    return names;
}

struct FaultRow;

class FaultMatrix : public FaultRig, public ::testing::WithParamInterface<FaultRow> {
  public:
    // Waits for a worker that ends on its own; the limit only keeps a broken build from hanging.
    static void WaitUntil(const std::function<bool()>& done) {
        const auto limit = std::chrono::steady_clock::now() + std::chrono::seconds(60);
        while (!done() && std::chrono::steady_clock::now() < limit) {
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
        ASSERT_TRUE(done());
    }

    // What the Frame image holds, to show that a refused file or frame changed nothing.
    struct FrameState {
        FrameFormat format;
        uint64_t frames = 0;
        cv::Mat pixels;
    };
    FrameState Frame() {
        FrameImage& f = workbench->document().frameImage();
        std::lock_guard lock(f.frameLock());
        return {f.format(), f.frameCount(), f.raw().mat().clone()};
    }
    void ExpectFrameUnchanged(const FrameState& before) {
        const FrameState now = Frame();
        EXPECT_EQ(now.format.width, before.format.width);
        EXPECT_EQ(now.format.height, before.format.height);
        EXPECT_EQ(now.format.bitsPerPixel, before.format.bitsPerPixel);
        EXPECT_EQ(now.frames, before.frames);
        ASSERT_EQ(now.pixels.size, before.pixels.size);
        ASSERT_EQ(now.pixels.type(), before.pixels.type());
        EXPECT_EQ(cv::norm(now.pixels, before.pixels, cv::NORM_INF), 0);
    }

    // A grab running with the recorder's frame rate known.
    void GrabWithRate() {
        ASSERT_TRUE(workbench->GrabContinuous());
        Frames(3);
    }
    void StopAndDispatch() {
        workbench->GrabStop();
        Dispatch();
    }
    // The image the next operations open.
    std::string GoodPng() {
        const std::string path = Path("good.png");
        std::string error;
        EXPECT_TRUE(SaveImageFile(Picture(20, 30, CV_8UC3), path, {}, error)) << error;
        return path;
    }
    void ExpectImageOpens() {
        log.clear();
        EXPECT_TRUE(workbench->OpenFile(GoodPng())) << ::testing::PrintToString(Lines());
        EXPECT_EQ(Frame().format.width, 30);
        EXPECT_TRUE(Lines().empty());
    }
    void ExpectRecordingWorks() {
        log.clear();
        GrabWithRate();
        const std::string video = Path("next.h264");
        ASSERT_TRUE(workbench->StartVideoTo(video)) << ::testing::PrintToString(prompt.boxes);
        Frames(6);
        StopAndDispatch();
        EXPECT_EQ(workbench->videoRecorder().framesEncoded(), 6u);
        EXPECT_GT(std::filesystem::file_size(video), 0u);
        EXPECT_EQ(Lines(), (std::vector<std::string>{"Start Grab", "Grab Stop\n",
                                                     "Video saved successfully"}));
    }
    std::vector<uint32_t> Parameters() {
        const BoardParameters& p = workbench->document().parameters();
        return {p.width(), p.height(), p.imageType(), p.dataFormat(), p.taps()};
    }
    void ExpectConfigurationLoads(const std::string& path) {
        log.clear();
        EXPECT_TRUE(workbench->LoadConfiguration(path));
        EXPECT_EQ(Lines(),
                  std::vector<std::string>{"The configuration file was loaded successfully.\n"});
    }
};

struct FaultRow {
    std::string name;
    std::string ini;
    // Provokes the fault; lines and boxes are collected from the moment the workbench is open.
    std::function<void(FaultMatrix&)> provoke;
    // The exact lines and boxes, in order (a row's paths are known only to its rig).
    std::function<std::vector<std::string>(FaultMatrix&)> lines;
    std::vector<std::string> boxes;
    // What must hold after the fault, then the operation that must work next.
    std::function<void(FaultMatrix&)> next;
    // Repeated notices (one per 100 ms of board time at most) collapse into one.
    bool collapseRepeats = false;
};

void PrintTo(const FaultRow& row, std::ostream* os) {
    *os << row.name;
}

std::function<std::vector<std::string>(FaultMatrix&)> Texts(std::vector<std::string> lines) {
    return [lines](FaultMatrix&) { return lines; };
}

TEST_P(FaultMatrix, SaysWhatHappenedAndWorksOn) {
    const FaultRow& row = GetParam();
    Open(row.ini);
    row.provoke(*this);
    if (HasFatalFailure()) {
        return;
    }
    std::vector<std::string> lines = Lines();
    if (row.collapseRepeats) {
        lines.erase(std::unique(lines.begin(), lines.end()), lines.end());
    }
    EXPECT_EQ(lines, row.lines(*this));
    EXPECT_EQ(prompt.boxes, row.boxes);
    prompt.boxes.clear();
    row.next(*this);
}

// ---- the board ----

const FaultRow kBoardRows[] = {
    {"FirstBoardDoesNotOpen",
     "[board0]\nopen_fails=1\n[board1]\nwidth=64\nheight=48\n",
     [](FaultMatrix&) {},
     Texts({}),
     {},
     [](FaultMatrix& t) {
         EXPECT_EQ(t.workbench->document().boardIndex(), 1);
         EXPECT_EQ(t.workbench->document().boardName(), "PCIe-CXP4 Simulator");
         t.ExpectGrabWorks();
     }},
    {"NoBoardOpens",
     "[board0]\nopen_fails=1\n[board1]\nopen_fails=1\n",
     [](FaultMatrix& t) {
         EXPECT_FALSE(t.workbench->GrabContinuous());
         t.workbench->GrabOnce();
         t.workbench->StartVideoTo(t.Path("v.h264"));
     },
     Texts({"Board has not been opened.\n", "Board has not been selected.\n"}),
     {"Frame rate is 0, exit save"},
     [](FaultMatrix& t) {
         EXPECT_FALSE(t.workbench->document().hasBoard());
         EXPECT_FALSE(std::filesystem::exists(t.Path("v.h264")));
         t.ExpectImageOpens();  // without a board the workbench still opens images
     }},
    {"ParameterSetFails",
     Boards("fail_set=0x10000002\n"),
     [](FaultMatrix& t) { t.workbench->Calibration(); },
     Texts({"Set image height failed", "Calibration Pass\n"}),
     {},
     [](FaultMatrix& t) { t.ExpectGrabWorks(); }},
    {"ParameterGetFails",
     Boards("bayer=3\nfail_get=0x10000015\n"),
     [](FaultMatrix&) {},
     Texts({}),
     {},
     [](FaultMatrix& t) {
         // The read failed: the cache keeps its own value instead of the board's 3.
         EXPECT_EQ(t.workbench->document().parameters().get(ORVIX_BAYER_PATTERN),
                   BoardParameters().get(ORVIX_BAYER_PATTERN));
         EXPECT_EQ(t.workbench->document().parameters().width(), 64u) << "other reads work";
         t.ExpectGrabWorks();
     }},
    {"SignalLoss",
     Boards("signal_loss_after_ms=1000\n"),
     [](FaultMatrix& t) {
         ASSERT_TRUE(t.workbench->GrabContinuous());
         t.Frames(59);
         ASSERT_EQ(t.hooks.advanceTime(t.handle(), 20000), ORVIX_SUCCESS);  // past 1000 ms
         ASSERT_TRUE(t.sink.WaitFor(msg::kSignalLost));
         t.Dispatch();
         EXPECT_TRUE(t.workbench->engine().idle());
         t.ExpectFramesAccountedFor();
     },
     Texts({"Start Grab", "Board signal abnormal.Grab Stop\n"}),
     {},
     [](FaultMatrix& t) { t.ExpectGrabWorks(); }},
};
INSTANTIATE_TEST_SUITE_P(Board, FaultMatrix, ::testing::ValuesIn(kBoardRows),
                         [](const auto& info) { return info.param.name; });

// ---- stopping: the board refuses 1 to 5 times; five refusals leave it grabbing ----

std::vector<FaultRow> StopRows() {
    std::vector<FaultRow> rows;
    for (int refusals = 1; refusals <= 5; ++refusals) {
        FaultRow row;
        row.name = "StopRefused" + std::to_string(refusals) + "Times";
        row.ini = Boards("stop_failures=" + std::to_string(refusals) + "\n");
        row.provoke = [](FaultMatrix& t) {
            ASSERT_TRUE(t.workbench->GrabContinuous());
            t.Frames(3);
            t.StopAndDispatch();
            EXPECT_TRUE(t.workbench->engine().idle()) << "torn down even when refused";
            t.ExpectFramesAccountedFor();
        };
        if (refusals < 5) {
            row.lines = Texts({"Start Grab", "Grab Stop\n"});
            row.next = [](FaultMatrix& t) {
                EXPECT_NE(t.hooks.advanceFrames(t.handle(), 1), ORVIX_SUCCESS)
                    << "the board stopped";
                t.ExpectGrabWorks();
            };
        } else {
            row.lines =
                Texts({"Start Grab", "Grab Stop fail.Please click the 'Grab Stop' Button again\n"});
            row.next = [](FaultMatrix& t) {
                EXPECT_TRUE(t.workbench->engine().lastStopFailed());
                // The board still grabs; its frames reach no callback. The next stop stops it.
                t.Frames(2);
                EXPECT_EQ(t.workbench->engine().context().frameCounter, 3u);
                t.log.clear();
                t.workbench->GrabStop();
                EXPECT_EQ(t.Lines(), std::vector<std::string>{"Grab Stop\n"});
                EXPECT_NE(t.hooks.advanceFrames(t.handle(), 1), ORVIX_SUCCESS);
                t.log.clear();
                ASSERT_TRUE(t.workbench->GrabContinuous());
                t.Frames(3);
                t.workbench->GrabStop();  // refused five times again, as configured
                t.workbench->GrabStop();
                EXPECT_EQ(t.workbench->engine().context().frameCounter, 3u);
                EXPECT_EQ(
                    t.Lines(),
                    (std::vector<std::string>{
                        "Start Grab", "Grab Stop fail.Please click the 'Grab Stop' Button again\n",
                        "Grab Stop\n"}));
            };
        }
        rows.push_back(row);
    }
    return rows;
}
INSTANTIATE_TEST_SUITE_P(Stop, FaultMatrix, ::testing::ValuesIn(StopRows()),
                         [](const auto& info) { return info.param.name; });

// ---- single shots, time-outs, lost frames, damaged frames ----

FaultRow SingleShotRow(const std::string& name, int code, const std::string& text) {
    return {name,
            Boards("single_shot_error=" + std::to_string(code) + "\n"),
            [](FaultMatrix& t) {
                t.workbench->GrabOnce();
                EXPECT_TRUE(t.workbench->engine().idle());
                EXPECT_GE(t.sink.count(msg::kCameraStatus), 1u);
                EXPECT_EQ(t.workbench->engine().context().frameCounter, 0u);
            },
            Texts({"Start Grab", text}),
            {},
            [](FaultMatrix& t) { t.ExpectGrabWorks(); }};
}

const FaultRow kGrabRows[] = {
    SingleShotRow("SingleShotStillRunning", 40, "Grab(once) process is running.Please wait..."),
    SingleShotRow("SingleShotAborted", 42, "Grab Abort!"),
    SingleShotRow("SingleShotFails", 15,
                  "Grab (1 Shot) fail. Please check the paramter and board signal\n"),
    {"FrameTimesOut",
     Boards("timeout_every=5\n"),
     [](FaultMatrix& t) {
         ASSERT_TRUE(t.workbench->GrabContinuous());
         t.Frames(5);  // the fifth starts and never completes
         ASSERT_TRUE(t.sink.WaitFor(msg::kGrabTimeout));
         t.Dispatch();
         EXPECT_TRUE(t.workbench->engine().idle());
         EXPECT_EQ(t.workbench->engine().context().frameCounter, 4u);
         t.ExpectFramesAccountedFor();
     },
     Texts({"Start Grab", "Grab(continuouse) time out!\n", "Grab Stop\n"}),
     {},
     [](FaultMatrix& t) { t.ExpectGrabWorks(4); }},
    {"RingOverrun",
     Boards(),
     [](FaultMatrix& t) {
         ASSERT_TRUE(t.workbench->GrabContinuous());
         t.Frames(2);
         // A second's worth of frames at once: more than the ring of 8 holds.
         ASSERT_EQ(t.hooks.advanceTime(t.handle(), 1000000), ORVIX_SUCCESS);
         t.Dispatch();
         EXPECT_TRUE(t.workbench->engine().continuousRunning()) << "lost frames do not stop it";
         uint32_t lost = 0;
         ASSERT_EQ(t.library->GetInfo(t.handle(), ORVIX_FRAME_LOST, &lost), ORVIX_SUCCESS);
         EXPECT_GT(lost, 0u);
         EXPECT_EQ(t.workbench->engine().context().lostEvents, lost);
         t.Frames(2);
         t.StopAndDispatch();
         // Every frame the board did not lose was counted.
         EXPECT_EQ(t.workbench->engine().context().frameCounter + lost, 2u + 60u + 2u);
         t.ExpectFramesAccountedFor();
     },
     Texts({"Start Grab", "OrvixBoard lost frame for thread context change.\n", "Grab Stop\n"}),
     {},
     [](FaultMatrix& t) { t.ExpectGrabWorks(); },
     /*collapseRepeats=*/true},
    {"CorruptJpegFrames",
     "[board0]\nname=PCIe-CL JPEG Simulator\nversion=0x000A0100\nwidth=64\nheight=48\n"
     "pattern=noise\n[board1]\n",
     [](FaultMatrix& t) {
         ASSERT_EQ(t.library->SetInfo(t.handle(), ORVIX_JPEG_COMPRESS_ENABLE, 1), ORVIX_SUCCESS);
         t.damaging->truncateJpeg = true;
         // Each grab command makes the Frame image afresh; a frame that does not decode leaves
         // it so (the views show the background), never half decoded.
         auto expectNoFrame = [&t] {
             const auto f = t.Frame();
             EXPECT_EQ(f.frames, 0u);
             double low = 0;
             double high = 0;
             cv::minMaxLoc(f.pixels.reshape(1), &low, &high);
             EXPECT_EQ(low, high) << "nothing of a damaged frame reaches the Frame image";
         };
         t.workbench->GrabOnce();
         expectNoFrame();
         const GrabContext& g = t.workbench->engine().context();
         EXPECT_EQ(g.framesDisplayed, 0u);
         EXPECT_EQ(g.framesSkipped, 1u);
         ASSERT_TRUE(t.workbench->GrabContinuous());
         t.Frames(12);
         t.StopAndDispatch();
         EXPECT_EQ(g.frameCounter, 12u);
         EXPECT_EQ(g.framesDisplayed, 0u);
         t.ExpectFramesAccountedFor();
         expectNoFrame();
     },
     // The decoder's complaint goes to the debug output only.
     Texts({"Start Grab", "Grab (1 Shot) completed\n", "Start Grab", "Grab Stop\n"}),
     {},
     [](FaultMatrix& t) {
         t.damaging->truncateJpeg = false;
         t.workbench->GrabOnce();
         EXPECT_EQ(t.workbench->engine().context().framesDisplayed, 1u);
         const auto f = t.Frame();
         EXPECT_EQ(f.frames, 1u);
         double low = 0;
         double high = 0;
         cv::minMaxLoc(f.pixels.reshape(1), &low, &high);
         EXPECT_LT(low, high) << "the board's noise frame is there";
     }},
};
INSTANTIATE_TEST_SUITE_P(Grab, FaultMatrix, ::testing::ValuesIn(kGrabRows),
                         [](const auto& info) { return info.param.name; });

// ---- the disk and the memory while recording ----

const FaultRow kRecordingRows[] = {
    {"DiskFullWhileRecording",
     Boards(),
     [](FaultMatrix& t) {
         std::filesystem::create_symlink("/dev/full", t.Path("full.h264"));
         t.GrabWithRate();
         ASSERT_TRUE(t.workbench->StartVideoTo(t.Path("full.h264")));
         t.Frames(30);
         t.StopAndDispatch();
         EXPECT_FALSE(t.workbench->videoRecorder().running());
         EXPECT_EQ(t.workbench->videoRecorder().result(), video::kWriteFailed);
     },
     Texts({"Start Grab", "Grab Stop\n", "Failed to write data, Exit saving"}),
     {},
     [](FaultMatrix& t) { t.ExpectRecordingWorks(); }},
    {"DiskFullDuringSequence",
     Boards(),
     [](FaultMatrix& t) {
         std::filesystem::create_directories(t.dir / "seq");
         std::filesystem::create_symlink("/dev/full", t.dir / "seq/f-0003.png");
         t.GrabWithRate();
         std::string error;
         ASSERT_TRUE(t.workbench->StartSequence(t.Path("seq/f.png"), 5,
                                                t.workbench->imageSaveOptions(), error))
             << error;
         t.Frames(8);
         // The sequence ends on its own at the failed file.
         FaultMatrix::WaitUntil([&] { return t.workbench->sequenceSaver().finished(); });
         t.StopAndDispatch();
         const SequenceSaver& saver = t.workbench->sequenceSaver();
         EXPECT_EQ(saver.saved(), 2);
         EXPECT_EQ(saver.failed(), 1);
         // The files before the failure stay, none after it appears, the device is left as it
         // was and no temporary file is left behind.
         EXPECT_EQ(FilesIn(t.dir / "seq"),
                   (std::vector<std::string>{"f-0001.png", "f-0002.png", "f-0003.png"}));
         EXPECT_TRUE(std::filesystem::is_symlink(t.dir / "seq/f-0003.png"));
     },
     [](FaultMatrix& t) {
         return std::vector<std::string>{
             "Start Grab",
             SaveFailedText(t.Path("seq/f-0003.png"),
                            "cannot write the file (No space left on device); the sequence "
                            "ends with 2 of 5 frames saved, 0 missed"),
             "Grab Stop\n"};
     },
     {},
     [](FaultMatrix& t) {
         for (int i = 1; i <= 2; ++i) {
             cv::Mat image;
             std::string error;
             EXPECT_TRUE(LoadImageFile(SequenceFileName(t.Path("seq/f"), i, "png"), image, error))
                 << error;
             EXPECT_EQ(image.cols, 64);
         }
         t.log.clear();
         t.GrabWithRate();
         std::filesystem::create_directories(t.dir / "seq2");
         std::string error;
         ASSERT_TRUE(t.workbench->StartSequence(t.Path("seq2/g.tif"), 3,
                                                t.workbench->imageSaveOptions(), error));
         t.Frames(3);
         FaultMatrix::WaitUntil([&] { return t.workbench->sequenceSaver().finished(); });
         t.StopAndDispatch();
         EXPECT_EQ(t.workbench->sequenceSaver().saved(), 3);
         EXPECT_EQ(t.Lines(), (std::vector<std::string>{
                                  "Start Grab", "Image sequence: 3 of 3 frames saved, 0 missed\n",
                                  "Grab Stop\n"}));
     }},
    {"LessThan2GiBFree",
     Boards(),
     [](FaultMatrix& t) {
         t.system.free = 0x7FFFFFFF;  // more than this is needed
         t.GrabWithRate();
         EXPECT_FALSE(t.workbench->StartVideoTo(t.Path("small.h264")));
         EXPECT_FALSE(t.workbench->videoRecorder().running());
         EXPECT_FALSE(std::filesystem::exists(t.Path("small.h264")));
         t.StopAndDispatch();
     },
     Texts({"Start Grab", "Grab Stop\n"}),
     {"Failed to create video file"},
     [](FaultMatrix& t) {
         t.system.free = 0x80000000;
         t.ExpectRecordingWorks();
     }},
    {"MemoryGuard",
     Boards(),
     [](FaultMatrix& t) {
         t.GrabWithRate();
         ASSERT_TRUE(t.workbench->StartVideoTo(t.Path("guarded.h264")));
         t.system.load = 91;
         t.Frames(5);
         t.StopAndDispatch();
         EXPECT_EQ(t.workbench->videoRecorder().framesQueued(), 0u);
         EXPECT_EQ(t.workbench->videoRecorder().result(), video::kOutOfMemory);
     },
     // The refused push says it once; the worker's end says the file's result again.
     Texts({"Start Grab", "Grab Stop\n", "Out of memory, waiting for the image to save ...",
            "Out of memory, waiting for the image to save ..."}),
     {},
     [](FaultMatrix& t) {
         t.system.load = 90;  // at the limit frames are still taken
         t.ExpectRecordingWorks();
     }},
    {"StillImageSaveFailsKeepsTheEarlierFile",
     Boards(),
     [](FaultMatrix& t) {
         t.workbench->GrabOnce();
         const std::string shot = t.Path("shot.png");
         WriteBytes(shot, "the earlier file");
         // A file size limit makes every write past 16 bytes fail, as a full disk does.
         struct sigaction ignore {};
         ignore.sa_handler = SIG_IGN;
         struct sigaction previous {};
         ASSERT_EQ(sigaction(SIGXFSZ, &ignore, &previous), 0);
         rlimit old{};
         ASSERT_EQ(getrlimit(RLIMIT_FSIZE, &old), 0);
         rlimit small = old;
         small.rlim_cur = 16;
         ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &small), 0);
         EXPECT_TRUE(t.workbench->SaveImageTo(shot));
         t.workbench->imageSaver().Wait();
         setrlimit(RLIMIT_FSIZE, &old);
         sigaction(SIGXFSZ, &previous, nullptr);
         t.Dispatch();
         EXPECT_EQ(ReadBytes(shot), "the earlier file");
         EXPECT_EQ(FilesIn(t.dir), (std::vector<std::string>{"shot.png", "sim.ini"}))
             << "no temporary file is left";
     },
     [](FaultMatrix& t) {
         return std::vector<std::string>{
             "Start Grab", "Grab (1 Shot) completed\n",
             SaveFailedText(t.Path("shot.png"), "cannot write the file (File too large)")};
     },
     {},
     [](FaultMatrix& t) {
         t.log.clear();
         EXPECT_TRUE(t.workbench->SaveImageTo(t.Path("shot.png")));
         t.workbench->imageSaver().Wait();
         t.Dispatch();
         EXPECT_EQ(t.Lines(), std::vector<std::string>{std::string(kImageSavedText)});
         cv::Mat saved;
         std::string error;
         ASSERT_TRUE(LoadImageFile(t.Path("shot.png"), saved, error)) << error;
         EXPECT_EQ(cv::norm(saved, t.Frame().pixels, cv::NORM_INF), 0);
     }},
};
INSTANTIATE_TEST_SUITE_P(Recording, FaultMatrix, ::testing::ValuesIn(kRecordingRows),
                         [](const auto& info) { return info.param.name; });

// ---- configuration files: a damaged or foreign file changes nothing ----

std::string Replace(std::string text, const std::string& from, const std::string& to) {
    const size_t at = text.find(from);
    if (at != std::string::npos) {
        text.replace(at, from.size(), to);
    }
    return text;
}

// A file of the right form whose checksum is right again after the change.
std::string Resealed(const std::string& body) {
    char line[32];
    std::snprintf(line, sizeof line, "crc32=0x%08X\n", [&] {
        // zlib's CRC-32, bit by bit: the file's own checksum.
        uint32_t crc = 0xFFFFFFFFu;
        for (unsigned char c : body) {
            crc ^= c;
            for (int k = 0; k < 8; ++k) {
                crc = (crc >> 1) ^ (0xEDB88320u & (0u - (crc & 1u)));
            }
        }
        return ~crc;
    }());
    return body + line;
}

std::string Body(const std::string& file) {
    return file.substr(0, file.rfind("crc32="));
}

// Saves the board's configuration, then writes a spoilt copy of it; the row loads the copy.
FaultRow ConfigurationRow(const std::string& name,
                          std::function<std::string(const std::string& good)> spoil) {
    return {name,
            Boards(),
            [spoil](FaultMatrix& t) {
                ASSERT_TRUE(t.workbench->SaveConfigurationTo(t.Path("good.vlcf")));
                // Besides its fault the file asks for another height, so that a file applied
                // in part would show.
                const std::string good = ReadBytes(t.Path("good.vlcf"));
                const std::string otherHeight =
                    Resealed(Replace(Body(good), "0x10000002=48\n", "0x10000002=40\n"));
                ASSERT_NE(otherHeight, good);
                WriteBytes(t.Path("bad.vlcf"), spoil(otherHeight));
                const auto before = t.Parameters();
                EXPECT_FALSE(t.workbench->LoadConfiguration(t.Path("bad.vlcf")));
                EXPECT_EQ(t.Parameters(), before);
                uint32_t width = 0;
                uint32_t height = 0;
                t.library->GetInfo(t.handle(), ORVIX_IMAGE_WIDTH, &width);
                t.library->GetInfo(t.handle(), ORVIX_IMAGE_HEIGHT, &height);
                EXPECT_EQ(width, 64u);
                EXPECT_EQ(height, 48u);
            },
            Texts({"Save configuration successful!",
                   "The selected configuration file is not the latest version or the "
                   "configuration parameter is invalid.Please select other configuration "
                   "file.\n"}),
            {},
            [](FaultMatrix& t) {
                t.ExpectConfigurationLoads(t.Path("good.vlcf"));
                t.ExpectGrabWorks();
            }};
}

const FaultRow kConfigurationRows[] = {
    ConfigurationRow("VlcfChecksumWrong",
                     [](const std::string& f) { return Replace(f, "=64\n", "=80\n"); }),
    ConfigurationRow("VlcfTruncated",
                     [](const std::string& f) { return f.substr(0, f.size() / 2); }),
    ConfigurationRow("VlcfOfAnotherVersion",
                     [](const std::string& f) {
                         return Resealed(Replace(Body(f), "OrvixBoardConfiguration 1",
                                                 "OrvixBoardConfiguration 2"));
                     }),
    ConfigurationRow("VlcfValueOutOfRange",
                     [](const std::string& f) {
                         return Resealed(Replace(Body(f), "0x10000001=64\n", "0x10000001=0\n"));
                     }),
    ConfigurationRow("VlcfUnknownParameter",
                     [](const std::string& f) { return Resealed(Body(f) + "0x7FFFFFFF=1\n"); }),
    ConfigurationRow("VlcfIsAnImage",
                     [](const std::string&) {
                         cv::Mat m = Picture(4, 4, CV_8UC1);
                         std::string bytes = "\x89PNG\r\n\x1a\n";
                         return bytes + std::string(reinterpret_cast<char*>(m.data), 16);
                     }),
    ConfigurationRow("VlcfEmpty", [](const std::string&) { return std::string(); }),
};
INSTANTIATE_TEST_SUITE_P(Configuration, FaultMatrix, ::testing::ValuesIn(kConfigurationRows),
                         [](const auto& info) { return info.param.name; });

// ---- image files: refused with one line, the Frame image as it was ----

struct ImageCase {
    std::string name;
    std::function<std::string(FaultMatrix&)> write;  // writes the file, returns its name
    std::string reason;
};

std::string Encoded(FaultMatrix& t, const std::string& name, int type,
                    const ImageSaveOptions& options = {}) {
    std::string error;
    EXPECT_TRUE(SaveImageFile(Picture(32, 40, type), t.Path(name), options, error)) << error;
    return ReadBytes(t.Path(name));
}

// A JPEG whose frame header (SOF0 0xC0, SOF2 0xC2) claims 65000 x 65000 pixels.
std::string Claiming(std::string jpeg, char sof) {
    const size_t at = jpeg.find(std::string("\xFF") + sof);
    EXPECT_NE(at, std::string::npos);
    if (at != std::string::npos) {
        for (size_t field : {at + 5, at + 7}) {  // height, then width, most significant first
            jpeg[field] = static_cast<char>(65000 >> 8);
            jpeg[field + 1] = static_cast<char>(65000 & 0xFF);
        }
    }
    return jpeg;
}

// A little-endian TIFF whose first directory claims side x side pixels in one strip.
std::string ClaimingTiff(std::string tiff, uint32_t side) {
    auto word = [&](size_t at) {
        return uint32_t(uint8_t(tiff[at])) | uint32_t(uint8_t(tiff[at + 1])) << 8;
    };
    EXPECT_EQ(tiff.substr(0, 2), "II");
    const size_t ifd = word(4) | size_t(word(6)) << 16;
    const size_t entries = word(ifd);
    for (size_t i = 0; i < entries; ++i) {
        const size_t e = ifd + 2 + 12 * i;
        const uint32_t tag = word(e);
        if (tag == 256 || tag == 257 || tag == 278) {  // width, length, rows per strip
            tiff[e + 2] = 4;                           // LONG
            tiff[e + 3] = 0;
            for (int b = 0; b < 4; ++b) {
                tiff[e + 8 + size_t(b)] = static_cast<char>(side >> (8 * b));
            }
        }
    }
    return tiff;
}

std::string ProgressiveJpeg() {
    std::vector<uint8_t> bytes;
    cv::imencode(".jpg", Picture(16, 16, CV_8UC3), bytes, {cv::IMWRITE_JPEG_PROGRESSIVE, 1});
    return std::string(bytes.begin(), bytes.end());
}

FaultRow ImageRow(const ImageCase& c) {
    return {c.name,
            Boards(),
            [c](FaultMatrix& t) {
                const std::string name = c.write(t);
                const auto before = t.Frame();
                EXPECT_FALSE(t.workbench->OpenFile(t.Path(name)));
                t.ExpectFrameUnchanged(before);
            },
            [c](FaultMatrix& t) {
                return std::vector<std::string>{OpenFailedText(t.Path(c.write(t)), c.reason)};
            },
            {},
            [](FaultMatrix& t) { t.ExpectImageOpens(); }};
}

const std::vector<ImageCase> kImageCases = {
    {"ImageEmpty",
     [](FaultMatrix& t) {
         WriteBytes(t.Path("empty.png"), "");
         return std::string("empty.png");
     },
     "the file is empty"},
    {"ImageOfNoKnownFormat",
     [](FaultMatrix& t) {
         WriteBytes(t.Path("notes.png"), "these are notes, not pixels");
         return std::string("notes.png");
     },
     "unsupported image format (BMP, JPEG, PNG, TIFF, PGM and PPM are read)"},
    {"ImageTruncatedPng",
     [](FaultMatrix& t) {
         const std::string png = Encoded(t, "cut.png", CV_8UC3);
         WriteBytes(t.Path("cut.png"), png.substr(0, png.size() / 2));
         return std::string("cut.png");
     },
     "the file is damaged or truncated (the data end early)"},
    {"ImageTruncatedJpeg",
     [](FaultMatrix& t) {
         const std::string jpg = Encoded(t, "cut.jpg", CV_8UC3);
         WriteBytes(t.Path("cut.jpg"), jpg.substr(0, jpg.size() / 2));
         return std::string("cut.jpg");
     },
     "the JPEG data are damaged or truncated (Premature end of JPEG file)"},
    // A few hundred bytes that claim 65000 x 65000 pixels are refused at once, without the
    // gigabytes they claim.
    {"ImageClaimsHugeDimensions",
     [](FaultMatrix& t) {
         WriteBytes(t.Path("huge.jpg"), Claiming(Encoded(t, "huge.jpg", CV_8UC1), '\xC0'));
         return std::string("huge.jpg");
     },
     "the JPEG data are damaged or truncated (too little data for a 65000 x 65000 picture)"},
    {"ProgressiveImageTooLarge",
     [](FaultMatrix& t) {
         WriteBytes(t.Path("huge.jpg"), Claiming(ProgressiveJpeg(), '\xC2'));
         return std::string("huge.jpg");
     },
     "the JPEG data are damaged or truncated (a 65000 x 65000 picture is too large)"},
    {"TiffClaimsAMillionByAMillionPixels",
     [](FaultMatrix& t) {
         WriteBytes(t.Path("huge.tif"), ClaimingTiff(Encoded(t, "huge.tif", CV_16UC1), 1u << 20));
         return std::string("huge.tif");
     },
     "the file is damaged or truncated (2738 bytes of strips for a 1048576 x 1048576 picture)"},
    // Zstandard has no simple bound on what a byte stands for: the memory guard says no.
    {"ZstdTiffClaimsAMillionByAMillionPixels",
     [](FaultMatrix& t) {
         const std::string tif =
             Encoded(t, "huge.tif", CV_16UC1, {.tiffCompression = TiffCompression::kZstd});
         WriteBytes(t.Path("huge.tif"), ClaimingTiff(tif, 1u << 20));
         return std::string("huge.tif");
     },
     "no memory for a 1048576 x 1048576 picture"},
    {"ImageTruncatedBmp",
     [](FaultMatrix& t) {
         const std::string bmp = Encoded(t, "cut.bmp", CV_8UC1);
         WriteBytes(t.Path("cut.bmp"), bmp.substr(0, bmp.size() - 100));
         return std::string("cut.bmp");
     },
     "the file is damaged or truncated (2258 of 2358 bytes)"},
    {"ImageTruncatedTiff16Bit",
     [](FaultMatrix& t) {
         const std::string tif = Encoded(t, "cut.tif", CV_16UC4);
         WriteBytes(t.Path("cut.tif"), tif.substr(0, tif.size() / 2));
         return std::string("cut.tif");
     },
     "the file is damaged or truncated (TIFFFetchDirectory: Can not read TIFF directory count)"},
};

std::vector<FaultRow> ImageRows() {
    std::vector<FaultRow> rows;
    for (const ImageCase& c : kImageCases) {
        rows.push_back(ImageRow(c));
    }
    // Raw files of the wrong size, told with both sizes.
    struct RawCase {
        std::string name;
        RawLayout layout;
        size_t bytes;
        std::string reason;
    };
    const RawCase raws[] = {
        {"RawOneByteShort",
         {4, 4, 8, 1},
         15,
         "the size does not match: 4 x 4 x 1 channel of 8 bits needs 16 bytes, the file has 15 "
         "bytes"},
        {"RawOneByteLong",
         {2, 2, 12, 3},
         25,
         "the size does not match: 2 x 2 x 3 channels of 12 bits needs 24 bytes, the file has 25 "
         "bytes"},
        {"RawSixteenBitTakenForEight",
         {4, 2, 8, 4},
         64,
         "the size does not match: 4 x 2 x 4 channels of 8 bits needs 32 bytes, the file has 64 "
         "bytes"},
    };
    for (const RawCase& r : raws) {
        rows.push_back({r.name,
                        Boards(),
                        [r](FaultMatrix& t) {
                            WriteBytes(t.Path("frame.raw"), std::string(r.bytes, '\x11'));
                            const auto before = t.Frame();
                            EXPECT_FALSE(t.workbench->OpenRawImage(t.Path("frame.raw"), r.layout));
                            t.ExpectFrameUnchanged(before);
                        },
                        [r](FaultMatrix& t) {
                            return std::vector<std::string>{
                                OpenFailedText(t.Path("frame.raw"), r.reason)};
                        },
                        {},
                        [r](FaultMatrix& t) {
                            WriteBytes(t.Path("right.raw"), std::string(r.layout.bytes(), '\x22'));
                            t.log.clear();
                            EXPECT_TRUE(t.workbench->OpenRawImage(t.Path("right.raw"), r.layout));
                            EXPECT_TRUE(t.Lines().empty());
                            EXPECT_EQ(t.Frame().format.width, r.layout.width);
                        }});
    }
    return rows;
}
INSTANTIATE_TEST_SUITE_P(Images, FaultMatrix, ::testing::ValuesIn(ImageRows()),
                         [](const auto& info) { return info.param.name; });

// ---- ROIConfig.ini: a damaged file gives defaults where it is damaged, and is saved whole ----

struct RoiCase {
    std::string name;
    std::string file;
    std::vector<RoiRect> read;
};

const RoiCase kRoiCases[] = {
    {"RoiCountNotANumber", "[Config]\nROICount=two\nROI0StartX=5\n", {{5, 0, 100, 100}}},
    {"RoiCountNegative", "[Config]\nROICount=-3\n", {kDefaultRoi}},
    {"RoiCountTooLarge", "[Config]\nROICount=100000\n", {kDefaultRoi}},
    {"RoiValuesDamaged",
     "[Config]\nROICount=2\nROI0StartX=5\nROI0StopX=oops\nROI1StartY=99999999999\n"
     "ROI1StopY=7x\n",
     {{5, 0, 100, 100}, {0, 0, 100, 100}}},
    {"RoiFileIsBinary", std::string("\x89PNG\r\n\x1a\n\0\0\0\rIHDR", 16), {kDefaultRoi}},
    {"RoiFileMissing", "", {kDefaultRoi}},
};

class RoiConfigFaults : public ::testing::TestWithParam<RoiCase> {};

TEST_P(RoiConfigFaults, DefaultsWhereDamagedThenSavesWhole) {
    const RoiCase& c = GetParam();
    const std::filesystem::path dir = std::filesystem::temp_directory_path() /
                                      ("lumetra-roi-" + std::to_string(::getpid()) + c.name);
    std::filesystem::create_directories(dir);
    const std::string path = RoiConfigPath(dir.string());
    if (!c.file.empty()) {
        WriteBytes(path, c.file);
    }
    EXPECT_EQ(LoadRoiSet(path), c.read);
    // Next: the set the dialog keeps is written and read back as it is.
    const std::vector<RoiRect> set = {{1, 2, 30, 40}, {10, 10, 20, 20}};
    ASSERT_TRUE(SaveRoiSet(path, set));
    EXPECT_EQ(LoadRoiSet(path), set);
    EXPECT_EQ(FirstUnreasonableRoi(set, 64, 48), std::nullopt);
    std::filesystem::remove_all(dir);
}

INSTANTIATE_TEST_SUITE_P(Roi, RoiConfigFaults, ::testing::ValuesIn(kRoiCases),
                         [](const auto& info) { return info.param.name; });

}  // namespace
}  // namespace lumetra::test
