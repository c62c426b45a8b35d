// Numbered image sequences: names, counts, the bounded queue and what it cannot keep up with.
#include "recording/sequence_saver.h"

#include <gtest/gtest.h>

#include <atomic>
#include <condition_variable>
#include <cstring>
#include <opencv2/imgcodecs.hpp>
#include <thread>

#include "test_support.h"

namespace lumetra {
namespace {

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
}

// A writer that holds each file until the test lets it go, so that the queue fills on cue. It
// keeps each file's name and first sample.
class Gate {
  public:
    using Entry = std::pair<std::string, int>;
    SequenceSaver::Writer writer() {
        return [this](const cv::Mat& image, const std::string& path, const ImageSaveOptions&,
                      std::string& error) {
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
    SequenceRequest Request(int count, const std::string& ext = "png", size_t queue = 0) {
        SequenceRequest r;
        r.base = dir / "seq";
        r.extension = ext;
        r.count = count;
        r.setGeometry({16, 8, 8, 1, false});
        r.queueFrames = queue;
        return r;
    }
    void Push(int value, size_t size = 16 * 8) {
        const std::vector<uint8_t> f(16 * 8, uint8_t(value));
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
    Push(1, 16 * 8 - 1);  // one byte short: not kept
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
    for (int i = 1; i <= 5; ++i) {
        const cv::Mat back =
            cv::imread(SequenceFileName(dir / "seq", i, "png"), cv::IMREAD_UNCHANGED);
        ASSERT_FALSE(back.empty()) << i;
        EXPECT_EQ(back.at<uint8_t>(3, 3), i * 10) << i;
    }
    EXPECT_FALSE(std::filesystem::exists(SequenceFileName(dir / "seq", 6, "png")));
    EXPECT_EQ(log.lines().back(), "Image sequence: 5 of 5 frames saved, 1 missed\n");
}

TEST_F(SequenceSaving, FramesBeyondTheQueueAreCountedAsMissed) {
    Gate gate;
    saver.setWriter(gate.writer());
    ASSERT_TRUE(saver.Start(Request(10, "png", 2), error)) << error;
    EXPECT_EQ(saver.queueCapacity(), 2u);
    Push(1);
    gate.waitEntered(1);  // the worker holds frame 1's buffer
    Push(2);              // takes the other buffer
    Push(3);              // no buffer: missed
    Push(4);              // missed
    EXPECT_EQ(saver.missed(), 2);
    EXPECT_EQ(saver.accepted(), 2);
    gate.open(1);
    gate.waitEntered(2);  // frame 1 written, its buffer back
    Push(5);
    gate.open(10);
    saver.Stop();
    EXPECT_EQ(saver.saved(), 3);
    EXPECT_EQ(saver.missed(), 2);
    // Numbers follow the frames kept, without gaps.
    EXPECT_EQ(gate.entered(), (std::vector<Gate::Entry>{{dir / "seq-0001.png", 1},
                                                        {dir / "seq-0002.png", 2},
                                                        {dir / "seq-0003.png", 5}}));
    EXPECT_EQ(log.lines().back(), "Image sequence: 3 of 10 frames saved, 2 missed\n");
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

TEST_F(SequenceSaving, AFailedWriteEndsTheSequenceAndNamesTheFile) {
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
    const auto lines = log.lines();
    ASSERT_GE(lines.size(), 2u);
    EXPECT_EQ(lines[0], "Save image fail: " + (dir / "seq-0002.png") + ": disk gone\n");
}

// finished() is the worker's last act. The log looks at finished() as the summary arrives, which
// catches the wrong order every time; the poller checks what a reader of finished() sees.
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
    quick.setWriter([](const cv::Mat&, const std::string&, const ImageSaveOptions&, std::string&) {
        return true;
    });
    for (int run = 0; run < 300; ++run) {
        watching.lines.clear();
        ASSERT_TRUE(quick.Start(Request(1, "raw", 2), error)) << error;
        std::vector<std::string> seen;
        std::thread reader([&] {
            while (!quick.finished()) {
            }
            seen = watching.lines.lines();
        });
        const std::vector<uint8_t> f(16 * 8, 7);
        quick.push(f.data(), f.size(), false);
        reader.join();
        ASSERT_FALSE(seen.empty()) << "run " << run;
        ASSERT_EQ(seen.back(), "Image sequence: 1 of 1 frames saved, 0 missed\n") << "run " << run;
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
    EXPECT_NE(error.find("does not exist"), std::string::npos);
    EXPECT_FALSE(saver.wantsFrames());
}

TEST_F(SequenceSaving, SixteenBitLzwTiffFilesCarryTheFrame) {
    SequenceRequest r = Request(2, "tif");
    r.setGeometry({40, 30, 12, 1, false});
    r.options.lzw = true;
    ASSERT_TRUE(saver.Start(r, error)) << error;
    std::vector<uint16_t> frame(40 * 30);
    for (size_t i = 0; i < frame.size(); ++i) {
        frame[i] = static_cast<uint16_t>(i * 3 % 4096);
    }
    saver.push(frame.data(), frame.size() * 2, false);
    saver.push(frame.data(), frame.size() * 2, false);
    saver.Stop();
    ASSERT_EQ(saver.saved(), 2);
    const test::TiffTags t = test::ReadTags(SequenceFileName(dir / "seq", 2, "tif"));
    EXPECT_EQ(t.bits, 16);
    EXPECT_EQ(t.compression, COMPRESSION_LZW);
    ASSERT_EQ(t.firstRow.size(), 80u);
    std::vector<uint16_t> row(40);
    std::memcpy(row.data(), t.firstRow.data(), 80);
    EXPECT_EQ(row, std::vector<uint16_t>(frame.begin(), frame.begin() + 40));
}

TEST_F(SequenceSaving, CompressedFramesAreDecodedFirst) {
    ASSERT_TRUE(saver.Start(Request(1), error)) << error;
    cv::Mat image(8, 16, CV_8UC1, cv::Scalar(77));
    std::vector<uint8_t> jpeg;
    cv::imencode(".jpg", image, jpeg);
    saver.push(jpeg.data(), jpeg.size(), true);
    saver.Stop();
    ASSERT_EQ(saver.saved(), 1);
    const cv::Mat back = cv::imread(dir / "seq-0001.png", cv::IMREAD_UNCHANGED);
    ASSERT_EQ(back.type(), CV_8UC1);
    EXPECT_NEAR(back.at<uint8_t>(4, 4), 77, 1);
}

// The callback thread pushes while the worker writes and the user stops: every frame accepted
// is saved, and every frame offered is either accepted or missed.
TEST_F(SequenceSaving, ConcurrentPushAndStopKeepTheCountsTrue) {
    ASSERT_TRUE(saver.Start(Request(1000, "raw", 3), error)) << error;
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

}  // namespace
}  // namespace lumetra
