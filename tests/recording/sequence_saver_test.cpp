// Numbered image sequences: names, counts, the queue bounded in bytes and what it cannot keep up
// with, several workers keeping numbers and order, and a disk that fails part-way.
#include "recording/sequence_saver.h"

#include <gtest/gtest.h>

#include <atomic>
#include <condition_variable>
#include <cstring>
#include <fstream>
#include <opencv2/imgcodecs.hpp>
#include <set>
#include <thread>

#include "test_support.h"

namespace lumetra {
namespace {

constexpr int kWidth = 16;
constexpr int kHeight = 8;
constexpr size_t kFrameBytes = kWidth * kHeight;

TEST(SequenceNames, BaseDashFourDigitsDotExtensionAndGeometryFromTheFrameFormat) {
    EXPECT_EQ(SequenceFileName("/data/run", 1, "tif"), "/data/run-0001.tif");
    EXPECT_EQ(SequenceFileName("run", 42, "png"), "run-0042.png");
    EXPECT_EQ(SequenceFileName("run", 12345, "bmp"), "run-12345.bmp");
    std::string base, ext;
    ASSERT_TRUE(SplitSequencePath("/data/a.b/run.tif", base, ext));
    EXPECT_EQ(base, "/data/a.b/run");
    EXPECT_EQ(ext, "tif");
    EXPECT_FALSE(SplitSequencePath("/data/a.b/run", base, ext));
    EXPECT_FALSE(SplitSequencePath("/data/.tif", base, ext));
    EXPECT_FALSE(SplitSequencePath("run.", base, ext));

    SequenceRequest r;
    r.setGeometry({640, 480, 12, 1, false});
    EXPECT_EQ(std::tie(r.channels, r.depth, r.bitsPerSample), std::tuple(1, 16, 12));
    EXPECT_EQ(r.frameBytes(), 640u * 480 * 2);
    r.setGeometry({640, 480, 32, 3, true});  // RGBC sent as three channels
    EXPECT_EQ(std::tie(r.channels, r.depth), std::tuple(4, 8));
    EXPECT_EQ(r.frameBytes(), 640u * 480 * 4);

    // An eighth of the memory, within 256 MiB and 2 GiB.
    constexpr uint64_t MiB = uint64_t{1} << 20;
    EXPECT_EQ(DefaultSequenceQueueBytes(1024 * MiB), 256 * MiB);
    EXPECT_EQ(DefaultSequenceQueueBytes(8192 * MiB), 1024 * MiB);
    EXPECT_EQ(DefaultSequenceQueueBytes(65536 * MiB), 2048 * MiB);
}

// A writer that holds each file until the test lets it go, so that the queue fills on cue. It
// keeps each file's name and first sample.
class Gate {
  public:
    using Entry = std::pair<std::string, int>;
    SequenceSaver::Writer writer() {
        return [this](const cv::Mat& image, const std::string& path, const ImageSaveOptions&,
                      StagedImageFile&, std::string& error) {
            std::unique_lock lock(mutex_);
            entered_.emplace_back(path, image.at<uint8_t>(0, 0));
            cv_.notify_all();
            cv_.wait(lock, [&] { return opened_ > 0; });
            --opened_;
            if (failAt_ == int(entered_.size())) {
                error = "disk gone";
                return false;
            }
            return true;
        };
    }
    void waitEntered(size_t n) {
        std::unique_lock lock(mutex_);
        cv_.wait(lock, [&] { return entered_.size() >= n; });
    }
    void open(int files) {
        std::lock_guard lock(mutex_);
        opened_ += files;
        cv_.notify_all();
    }
    void failAt(int n) { failAt_ = n; }
    std::vector<Entry> entered() {
        std::lock_guard lock(mutex_);
        return entered_;
    }

  private:
    std::mutex mutex_;
    std::condition_variable cv_;
    std::vector<Entry> entered_;
    int opened_ = 0;
    int failAt_ = 0;
};

class SequenceFixture : public ::testing::Test {
  protected:
    // queue: frames' worth of bytes (0: the default); workers: 0 for one per core.
    SequenceRequest Request(int count, const std::string& ext = "png", size_t queue = 0,
                            int workers = 1) {
        SequenceRequest r;
        r.base = dir / "seq";
        r.extension = ext;
        r.count = count;
        r.setGeometry({kWidth, kHeight, 8, 1, false});
        r.queueBytes = queue * kFrameBytes;
        r.workers = workers;
        return r;
    }
    void Push(int value, size_t size = kFrameBytes) {
        const std::vector<uint8_t> f(kFrameBytes, uint8_t(value));
        saver.push(f.data(), size, false);
    }
    void WaitFinished() {
        while (!saver.finished()) {
            std::this_thread::yield();
        }
    }

    test::TempDir dir;
    test::RecordingLog log;
    SequenceSaver saver{log};
    std::string error;
};

using SequenceSaving = SequenceFixture;

TEST_F(SequenceSaving, FinishesByItselfAtTheCountWithEveryFrameInItsFile) {
    ASSERT_TRUE(saver.Start(Request(5), error)) << error;
    EXPECT_TRUE(saver.wantsFrames());
    Push(1, kFrameBytes - 1);  // one byte short: not kept
    EXPECT_EQ(saver.accepted(), 0);
    EXPECT_EQ(saver.missed(), 1);
    for (int i = 1; i <= 8 && saver.wantsFrames(); ++i) {
        Push(i * 10);
    }
    EXPECT_FALSE(saver.wantsFrames());
    EXPECT_EQ(saver.accepted(), 5);
    WaitFinished();  // no Stop: the worker ends when the last file is written
    EXPECT_EQ(saver.saved(), 5);
    EXPECT_FALSE(saver.enabled());
    saver.Stop();
    EXPECT_EQ(saver.missed(), 1);
    EXPECT_EQ(saver.missedQueueFull(), 0);
    for (int i = 1; i <= 5; ++i) {
        const cv::Mat back =
            cv::imread(SequenceFileName(dir / "seq", i, "png"), cv::IMREAD_UNCHANGED);
        ASSERT_FALSE(back.empty()) << i;
        EXPECT_EQ(back.at<uint8_t>(3, 3), i * 10) << i;
    }
    EXPECT_FALSE(std::filesystem::exists(SequenceFileName(dir / "seq", 6, "png")));
    EXPECT_EQ(log.lines(), std::vector<std::string>{
                               "Image sequence: 5 of 5 frames saved, 1 missed (1 incomplete)\n"});
}

// The queue holds two frames' worth of bytes: the one being written and one waiting. What comes
// beyond is missed, said once while it happens and again, with the reason, at the end.
TEST_F(SequenceSaving, FramesBeyondTheBytesOfTheQueueAreMissedAndSaidSo) {
    Gate gate;
    saver.setWriter(gate.writer());
    ASSERT_TRUE(saver.Start(Request(10, "png", 2), error)) << error;
    EXPECT_EQ(saver.queueBytes(), 2 * kFrameBytes);
    Push(1);
    gate.waitEntered(1);  // the worker holds frame 1's buffer
    Push(2);              // takes the other buffer
    Push(3);              // no room: missed
    Push(4);              // missed
    EXPECT_EQ(saver.missed(), 2);
    EXPECT_EQ(saver.missedQueueFull(), 2);
    EXPECT_EQ(saver.accepted(), 2);
    EXPECT_EQ(saver.heldBytes(), 2 * kFrameBytes);
    EXPECT_TRUE(log.lines().empty());
    gate.open(1);
    gate.waitEntered(2);  // frame 1 written, its buffer back
    EXPECT_EQ(log.lines(), std::vector<std::string>{
                               "Image sequence: the saver cannot keep up, frames are being missed "
                               "(its queue of 256 bytes is full)\n"});
    Push(5);
    gate.open(10);
    saver.Stop();
    EXPECT_EQ(saver.saved(), 3);
    EXPECT_EQ(saver.missed(), 2);
    // Numbers follow the frames kept, without gaps.
    EXPECT_EQ(gate.entered(), (std::vector<Gate::Entry>{{dir / "seq-0001.png", 1},
                                                        {dir / "seq-0002.png", 2},
                                                        {dir / "seq-0003.png", 5}}));
    EXPECT_EQ(log.lines().back(),
              "Image sequence: 3 of 10 frames saved, 2 missed (the queue of 256 bytes full: the "
              "saver could not keep up)\n");
    EXPECT_EQ(saver.heldBytes(), 0u) << "the queue's memory is given back";
}

// The byte bound counts whatever frames take: a queue of three frames' bytes holds three frames,
// the third made when needed, and with frames both incomplete and unqueued the end says which.
TEST_F(SequenceSaving, TheQueueGrowsToItsBytesAndNoFurther) {
    Gate gate;
    saver.setWriter(gate.writer());
    ASSERT_TRUE(saver.Start(Request(10, "png", 3), error)) << error;
    EXPECT_EQ(saver.heldBytes(), 2 * kFrameBytes) << "one buffer per worker and one more, ready";
    Push(1);
    gate.waitEntered(1);
    Push(2);
    Push(3);  // a third buffer, made now
    EXPECT_EQ(saver.heldBytes(), 3 * kFrameBytes);
    Push(4);  // missed: the bytes are spent
    Push(5, 3);
    EXPECT_EQ(saver.accepted(), 3);
    EXPECT_EQ(saver.queued(), 2u);
    gate.open(10);
    saver.Stop();
    EXPECT_EQ(saver.saved(), 3);
    EXPECT_EQ(log.lines().back(),
              "Image sequence: 3 of 10 frames saved, 2 missed (1 with the queue of 384 bytes "
              "full: the saver could not keep up; 1 incomplete)\n");
}

TEST_F(SequenceSaving, StopWritesWhatIsQueued) {
    Gate gate;
    saver.setWriter(gate.writer());
    ASSERT_TRUE(saver.Start(Request(10, "png", 4), error)) << error;
    for (int i = 1; i <= 4; ++i) {
        Push(i);
    }
    std::thread stopper([&] { saver.Stop(); });
    gate.open(4);
    stopper.join();
    EXPECT_EQ(saver.saved(), 4);
    EXPECT_FALSE(saver.wantsFrames());
    Push(9);  // after the stop: ignored
    EXPECT_EQ(saver.accepted(), 4);
}

TEST_F(SequenceSaving, AFailedWriteEndsTheSequenceWithOneLineNamingTheFile) {
    Gate gate;
    gate.failAt(2);
    saver.setWriter(gate.writer());
    ASSERT_TRUE(saver.Start(Request(10, "png", 4), error)) << error;
    Push(1);
    Push(2);
    Push(3);
    gate.open(10);
    gate.waitEntered(2);
    WaitFinished();
    EXPECT_EQ(saver.saved(), 1);
    EXPECT_EQ(saver.failed(), 1);
    EXPECT_FALSE(saver.wantsFrames());
    // Frame 3 was not written after the failure.
    EXPECT_EQ(gate.entered().size(), 2u);
    EXPECT_EQ(log.lines(),
              std::vector<std::string>{"Save image fail: " + (dir / "seq-0002.png") +
                                       ": disk gone; the sequence ends with 1 of 10 frames "
                                       "saved, 0 missed\n"});
}

// finished() is the last worker's last act. The log looks at finished() as the summary arrives,
// which catches the wrong order every time; the poller checks what a reader of finished() sees.
// Two workers end together, so that the last one out is a race each run.
TEST_F(SequenceSaving, TheSummaryIsLoggedBeforeFinishedReadsTrue) {
    class WatchingLog final : public MessageLog {
      public:
        explicit WatchingLog(const SequenceSaver*& saver) : saver_(saver) {}
        void log(std::string_view text) override {
            if (saver_->finished()) {
                ++loggedAfterFinished;
            }
            lines.log(text);
        }
        std::atomic<int> loggedAfterFinished{0};
        test::RecordingLog lines;

      private:
        const SequenceSaver*& saver_;
    };
    const SequenceSaver* watched = nullptr;
    WatchingLog watching(watched);
    SequenceSaver quick(watching);
    watched = &quick;
    quick.setWriter([](const cv::Mat&, const std::string&, const ImageSaveOptions&,
                       StagedImageFile&, std::string&) { return true; });
    for (int run = 0; run < 300; ++run) {
        watching.lines.clear();
        ASSERT_TRUE(quick.Start(Request(2, "raw", 2, 2), error)) << error;
        std::vector<std::string> seen;
        int saved = 0;
        std::thread reader([&] {
            while (!quick.finished()) {
            }
            seen = watching.lines.lines();
            saved = quick.saved();
        });
        const std::vector<uint8_t> f(kFrameBytes, 7);
        quick.push(f.data(), f.size(), false);
        quick.push(f.data(), f.size(), false);
        reader.join();
        ASSERT_EQ(seen, std::vector<std::string>{"Image sequence: 2 of 2 frames saved, 0 missed\n"})
            << "run " << run;
        ASSERT_EQ(saved, 2) << "run " << run;
        quick.Stop();
    }
    EXPECT_EQ(watching.loggedAfterFinished, 0);
}

TEST_F(SequenceSaving, StartRefusesWhatCannotBeSaved) {
    EXPECT_FALSE(saver.Start(Request(0), error));
    EXPECT_EQ(error, "the count must be at least 1");
    EXPECT_FALSE(saver.Start(Request(3, "gif"), error));
    EXPECT_NE(error.find("unknown image file extension 'gif'"), std::string::npos);
    SequenceRequest r = Request(3);
    r.base = dir / "missing/seq";
    EXPECT_FALSE(saver.Start(r, error));
    EXPECT_EQ(error, "the folder " + (dir / "missing") + " does not exist");
    r = Request(3);
    r.queueBytes = kFrameBytes - 1;
    EXPECT_FALSE(saver.Start(r, error));
    EXPECT_EQ(error, "a queue of 127 bytes cannot hold one frame of 128 bytes");
    // A folder in which no file can be made (whoever runs the test).
    r = Request(3);
    r.base = "/proc/self/seq";
    EXPECT_FALSE(saver.Start(r, error));
    EXPECT_EQ(error.rfind("the folder /proc/self cannot be written (", 0), 0u) << error;
    EXPECT_FALSE(saver.wantsFrames());
    EXPECT_TRUE(log.lines().empty());
}

TEST_F(SequenceSaving, CompressedFramesAreDecodedFirst) {
    ASSERT_TRUE(saver.Start(Request(1), error)) << error;
    cv::Mat image(kHeight, kWidth, CV_8UC1, cv::Scalar(77));
    std::vector<uint8_t> jpeg;
    cv::imencode(".jpg", image, jpeg);
    saver.push(jpeg.data(), jpeg.size(), true);
    saver.Stop();
    ASSERT_EQ(saver.saved(), 1);
    const cv::Mat back = cv::imread(dir / "seq-0001.png", cv::IMREAD_UNCHANGED);
    ASSERT_EQ(back.type(), CV_8UC1);
    EXPECT_NEAR(back.at<uint8_t>(4, 4), 77, 1);
}

// The callback thread pushes while the workers write and the user stops: every frame accepted
// is saved, and every frame offered is either accepted or missed.
TEST_F(SequenceSaving, ConcurrentPushAndStopKeepTheCountsTrue) {
    ASSERT_TRUE(saver.Start(Request(1000, "raw", 3, 3), error)) << error;
    std::atomic<int> offered{0};
    std::thread callback([&] {
        for (int i = 0; i < 300; ++i) {
            if (saver.wantsFrames()) {
                Push(i % 250);
                ++offered;
            }
        }
    });
    while (offered < 50) {
        std::this_thread::yield();
    }
    saver.Stop();
    callback.join();
    EXPECT_EQ(saver.saved(), saver.accepted());
    EXPECT_LE(saver.accepted() + saver.missed(), offered.load());
    EXPECT_EQ(dir.entries(), saver.saved());
}

// ---- several workers ----

// A camera-like mono frame: a ramp moving with the frame number, with noise, so that every
// compression has work to do and every frame differs.
cv::Mat CameraFrame(int width, int height, int depth, int number) {
    cv::Mat m(height, width, depth == 16 ? CV_16UC1 : CV_8UC1);
    cv::RNG rng(uint64_t(1000 + number));
    for (int y = 0; y < height; ++y) {
        for (int x = 0; x < width; ++x) {
            const int ramp = (x * 5 + y * 3 + number * 11);
            const int noise = rng.uniform(0, 8);
            if (depth == 16) {
                m.at<uint16_t>(y, x) = static_cast<uint16_t>((ramp * 9 + noise) % 4096);
            } else {
                m.at<uint8_t>(y, x) = static_cast<uint8_t>((ramp + noise) % 256);
            }
        }
    }
    return m;
}

std::string ReadBytes(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), {});
}

class SequenceWorkers : public SequenceFixture {
  protected:
    // Saves the frames with the given workers into folder; the frames go in as fast as the
    // queue takes them (it holds them all).
    void SaveAll(const std::vector<cv::Mat>& frames, const std::string& folder,
                 const std::string& ext, const ImageSaveOptions& options, int workers) {
        std::filesystem::create_directories(folder);
        SequenceRequest r;
        r.base = folder + "/f";
        r.extension = ext;
        r.count = int(frames.size());
        const int depth = frames[0].depth() == CV_16U ? 16 : 8;
        r.setGeometry({frames[0].cols, frames[0].rows, depth == 16 ? 12 : 8, 1, false});
        r.options = options;
        r.queueBytes = frames.size() * frames[0].total() * frames[0].elemSize();
        r.workers = workers;
        SequenceSaver s(log);
        ASSERT_TRUE(s.Start(r, error)) << error;
        EXPECT_EQ(s.workers(), workers);
        for (const cv::Mat& f : frames) {
            s.push(f.data, f.total() * f.elemSize(), false);
        }
        s.Stop();
        EXPECT_EQ(s.saved(), int(frames.size()));
        EXPECT_EQ(s.missed(), 0);
    }
};

// Four workers against one: every format and TIFF compression gives files byte for byte the
// same as the single writer's, each holding its own frame's samples.
TEST_F(SequenceWorkers, FilesAreTheSingleWritersByteForByte) {
    const struct {
        const char* ext;
        TiffCompression compression;
    } formats[] = {{"tif", TiffCompression::kNone},    {"tif", TiffCompression::kLzw},
                   {"tif", TiffCompression::kDeflate}, {"tif", TiffCompression::kZstd},
                   {"png", TiffCompression::kNone},    {"raw", TiffCompression::kNone}};
    for (int depth : {8, 16}) {
        std::vector<cv::Mat> frames;
        for (int n = 0; n < 12; ++n) {
            frames.push_back(CameraFrame(96, 40, depth, n));
        }
        for (const auto& format : formats) {
            const std::string name = std::string(format.ext) + "-" +
                                     std::string(TiffCompressionName(format.compression)) + "-" +
                                     std::to_string(depth);
            SCOPED_TRACE(name);
            ImageSaveOptions options;
            options.tiffCompression = format.compression;
            SaveAll(frames, dir / (name + "-one"), format.ext, options, 1);
            SaveAll(frames, dir / (name + "-four"), format.ext, options, 4);
            for (int n = 1; n <= 12; ++n) {
                const std::string one = SequenceFileName(dir / (name + "-one/f"), n, format.ext);
                const std::string four = SequenceFileName(dir / (name + "-four/f"), n, format.ext);
                const std::string bytes = ReadBytes(one);
                ASSERT_FALSE(bytes.empty()) << one;
                EXPECT_EQ(bytes, ReadBytes(four)) << four;
                cv::Mat back;
                if (std::string(format.ext) == "raw") {
                    ASSERT_TRUE(LoadRawImageFile(four, {96, 40, depth, 1}, back, error)) << error;
                } else {
                    back = cv::imread(four, cv::IMREAD_UNCHANGED);  // libtiff and libpng
                }
                ASSERT_EQ(back.type(), frames[0].type()) << four;
                EXPECT_EQ(cv::norm(back, frames[size_t(n - 1)], cv::NORM_INF), 0) << four;
            }
            EXPECT_EQ(
                std::distance(std::filesystem::directory_iterator(dir / (name + "-four")), {}), 12)
                << "no temporary file is left";
        }
    }
}

// A writer whose file 1 waits until the test has looked: files 2 to 5 are written meanwhile, yet
// none of them takes its name before file 1 has; then all appear, each with its own frame.
TEST_F(SequenceWorkers, FilesTakeTheirNamesInOrderHoweverTheWorkersFinish) {
    std::mutex mutex;
    std::condition_variable cv;
    std::set<int> written;
    bool release = false;
    saver.setWriter([&](const cv::Mat& image, const std::string& path,
                        const ImageSaveOptions& options, StagedImageFile& staged,
                        std::string& error) {
        const int number = image.at<uint8_t>(0, 0);
        if (number == 1) {
            std::unique_lock lock(mutex);
            cv.wait(lock, [&] { return release; });
        }
        const bool ok = StageImageFile(image, path, options, staged, error);
        std::lock_guard lock(mutex);
        written.insert(number);
        cv.notify_all();
        return ok;
    });
    ASSERT_TRUE(saver.Start(Request(5, "png", 5, 4), error)) << error;
    for (int n = 1; n <= 5; ++n) {
        Push(n);
    }
    // Four workers: 1 held, 2, 3 and 4 written, then 5.
    {
        std::unique_lock lock(mutex);
        cv.wait(lock, [&] { return written.size() == 4; });
    }
    std::vector<std::string> named;
    for (int n = 1; n <= 5; ++n) {
        if (std::filesystem::exists(SequenceFileName(dir / "seq", n, "png"))) {
            named.push_back(SequenceFileName(dir / "seq", n, "png"));
        }
    }
    EXPECT_TRUE(named.empty()) << ::testing::PrintToString(named);
    EXPECT_EQ(saver.saved(), 0);
    EXPECT_EQ(dir.entries(), 4) << "four files written beside their names";
    {
        std::lock_guard lock(mutex);
        release = true;
        cv.notify_all();
    }
    WaitFinished();
    EXPECT_EQ(saver.saved(), 5);
    for (int n = 1; n <= 5; ++n) {
        const cv::Mat back =
            cv::imread(SequenceFileName(dir / "seq", n, "png"), cv::IMREAD_UNCHANGED);
        ASSERT_FALSE(back.empty()) << n;
        EXPECT_EQ(back.at<uint8_t>(0, 0), n);
    }
    EXPECT_EQ(dir.entries(), 5);
}

// File 3 fails once files 4 and 5 have been written beside their names: 1 and 2 stay, 3 to 5
// never appear, the file 4 already on disk keeps its bytes, and one line says it all.
TEST_F(SequenceWorkers, AFileThatCannotBeWrittenEndsTheSequenceAndLeavesTheDiskAsItWas) {
    const std::string existing = SequenceFileName(dir / "seq", 4, "tif");
    std::ofstream(existing) << "an earlier run's file";
    std::mutex mutex;
    std::condition_variable cv;
    std::set<int> written;
    saver.setWriter([&](const cv::Mat& image, const std::string& path,
                        const ImageSaveOptions& options, StagedImageFile& staged,
                        std::string& error) {
        const int number = image.at<uint8_t>(0, 0);
        if (number == 3) {
            std::unique_lock lock(mutex);
            cv.wait(lock, [&] { return written.count(4) == 1 && written.count(5) == 1; });
            error = "cannot write the file (No space left on device)";
            return false;
        }
        const bool ok = StageImageFile(image, path, options, staged, error);
        std::lock_guard lock(mutex);
        written.insert(number);
        cv.notify_all();
        return ok;
    });
    ASSERT_TRUE(saver.Start(Request(10, "tif", 10, 3), error)) << error;
    for (int n = 1; n <= 6; ++n) {
        Push(n);
    }
    WaitFinished();
    saver.Stop();
    EXPECT_EQ(saver.saved(), 2);
    EXPECT_EQ(saver.failed(), 1);
    EXPECT_EQ(log.lines(), std::vector<std::string>{
                               "Save image fail: " + SequenceFileName(dir / "seq", 3, "tif") +
                               ": cannot write the file (No space left on device); the sequence "
                               "ends with 2 of 10 frames saved, 0 missed\n"});
    for (int n = 1; n <= 2; ++n) {
        const cv::Mat back =
            cv::imread(SequenceFileName(dir / "seq", n, "tif"), cv::IMREAD_UNCHANGED);
        ASSERT_FALSE(back.empty()) << n;
        EXPECT_EQ(back.at<uint8_t>(0, 0), n);
    }
    EXPECT_FALSE(std::filesystem::exists(SequenceFileName(dir / "seq", 3, "tif")));
    EXPECT_FALSE(std::filesystem::exists(SequenceFileName(dir / "seq", 5, "tif")));
    EXPECT_EQ(ReadBytes(existing), "an earlier run's file");
    EXPECT_EQ(dir.entries(), 3) << "files 1, 2 and the earlier 4; nothing temporary";
}

// A real full disk: file 3's name leads to /dev/full. The files before it are saved, the device
// is left alone, and no later file is made.
TEST_F(SequenceWorkers, AFullDiskPartWayNamesTheFileAndTheFramesSaved) {
    const std::string full = SequenceFileName(dir / "seq", 3, "tif");
    std::filesystem::create_symlink("/dev/full", full);
    ASSERT_TRUE(saver.Start(Request(8, "tif", 8, 2), error)) << error;
    for (int n = 1; n <= 8 && saver.wantsFrames(); ++n) {
        Push(n);
    }
    saver.Stop();
    EXPECT_EQ(saver.saved(), 2);
    EXPECT_EQ(log.lines().back(),
              "Save image fail: " + full +
                  ": cannot write the file (No space left on device); the sequence ends with 2 "
                  "of 8 frames saved, 0 missed\n");
    EXPECT_TRUE(std::filesystem::is_symlink(full));
    EXPECT_EQ(dir.entries(), 3);
}

}  // namespace
}  // namespace lumetra
