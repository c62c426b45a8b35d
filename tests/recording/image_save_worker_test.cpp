// "Save Image" on its worker: the busy flag, message 0x4A0 and the failure line.
#include "recording/image_save_worker.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <opencv2/imgcodecs.hpp>

#include "test_support.h"

namespace lumetra {
namespace {

class SaveWorkerFixture : public ::testing::Test {
  protected:
    SaveWorkerFixture() {
        frame.setFormat({24, 16, 12, 1, false});
        BayerSettings bayer;
        NullMessageLog quiet;
        EXPECT_TRUE(frame.Allocate(12, bayer, quiet));
        frame.raw().mat().setTo(cv::Scalar(0x0A5F));
    }

    test::TempDir dir;
    test::RecordingLog log;
    test::RecordingSink sink;
    FrameImage frame;
    ImageSaveWorker worker{log, &sink};
};

using ImageSaveWorkerThreads = SaveWorkerFixture;

TEST_F(ImageSaveWorkerThreads, SavesACopyAndPostsTheMessage) {
    // A 12-bit frame goes to BMP through its top bits.
    ASSERT_TRUE(worker.SaveFrame(frame, dir / "a.bmp", {}));
    worker.Wait();
    const cv::Mat bmp = cv::imread(dir / "a.bmp", cv::IMREAD_UNCHANGED);
    ASSERT_EQ(bmp.type(), CV_8UC1);
    EXPECT_EQ(bmp.at<uint8_t>(2, 2), 0xA5);

    ASSERT_TRUE(worker.SaveFrame(frame, dir / "a.png", {}));
    // The copy was taken: changing the frame now does not change the file.
    {
        std::lock_guard lock(frame.frameLock());
        frame.raw().mat().setTo(cv::Scalar(1));
    }
    worker.Wait();
    EXPECT_FALSE(worker.busy());
    EXPECT_TRUE(worker.lastSucceeded());
    EXPECT_EQ(sink.posted(), (std::vector<test::Posted>(2, {msg::kImageSaved, 0, 0})));
    EXPECT_TRUE(log.lines().empty());
    const cv::Mat png = cv::imread(dir / "a.png", cv::IMREAD_UNCHANGED);
    ASSERT_EQ(png.type(), CV_16UC1);
    EXPECT_EQ(png.at<uint16_t>(5, 5), 0x0A5F);
}

TEST_F(ImageSaveWorkerThreads, FailuresAreLoggedWithPathAndReasonAndPostNothing) {
    const std::string path = dir / "missing/a.png";
    ASSERT_TRUE(worker.SaveFrame(frame, path, {}));
    worker.Wait();
    EXPECT_FALSE(worker.lastSucceeded());
    FrameImage empty;
    {
        std::lock_guard lock(empty.frameLock());
        empty.raw().Release();
    }
    EXPECT_FALSE(worker.SaveFrame(empty, dir / "a.png", {}));
    EXPECT_FALSE(worker.busy());
    EXPECT_TRUE(sink.posted().empty());
    EXPECT_EQ(log.lines(), (std::vector<std::string>{
                               "Save image fail: " + path +
                                   ": cannot create the file (No such file or directory)\n",
                               "Save image fail: " + (dir / "a.png") + ": there is no image\n"}));
}

// busy() false is the worker's last act: the report, a post or a log line, is out before it.
TEST_F(ImageSaveWorkerThreads, TheReportIsOutBeforeBusyClears) {
    struct Watching final : MessageSink, MessageLog {
        void post(uint32_t, intptr_t, intptr_t) override { note(); }
        void log(std::string_view) override { note(); }
        void note() {
            ++reports;
            idleAtReport += worker->busy() ? 0 : 1;
        }
        const ImageSaveWorker* worker = nullptr;
        std::atomic<int> reports{0};
        std::atomic<int> idleAtReport{0};
    } watching;
    ImageSaveWorker watched(watching, &watching);
    watching.worker = &watched;
    for (const std::string& path : {dir / "ok.png", dir / "missing/no.png"}) {
        ASSERT_TRUE(watched.SaveFrame(frame, path, {}));
        while (watched.busy()) {
        }
        watched.Wait();
    }
    EXPECT_EQ(watching.reports, 2);
    EXPECT_EQ(watching.idleAtReport, 0);
}

TEST_F(ImageSaveWorkerThreads, BusyRefusesASecondSaveUntilTheFirstEnds) {
    // A pipe holds the first save until the test reads it.
    const std::string fifo = dir / "pipe.bmp";
    ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
    ASSERT_TRUE(worker.SaveFrame(frame, fifo, {}));
    EXPECT_TRUE(worker.busy());
    EXPECT_FALSE(worker.SaveFrame(frame, dir / "b.png", {}));
    const int fd = open(fifo.c_str(), O_RDONLY);
    ASSERT_GE(fd, 0);
    std::vector<uint8_t> bytes;
    uint8_t buffer[4096];
    for (ssize_t n; (n = read(fd, buffer, sizeof buffer)) > 0;) {
        bytes.insert(bytes.end(), buffer, buffer + n);
    }
    close(fd);
    worker.Wait();
    EXPECT_FALSE(worker.busy());
    EXPECT_TRUE(worker.lastSucceeded());
    const cv::Mat back = cv::imdecode(bytes, cv::IMREAD_UNCHANGED);
    ASSERT_FALSE(back.empty());
    EXPECT_EQ(back.cols, 24);
    // The pipe was written through, not replaced by a file.
    struct stat st {};
    ASSERT_EQ(stat(fifo.c_str(), &st), 0);
    EXPECT_TRUE(S_ISFIFO(st.st_mode));
    ASSERT_TRUE(worker.SaveFrame(frame, dir / "b.png", {}));
    worker.Wait();
    EXPECT_EQ(sink.of(msg::kImageSaved).size(), 2u);
}

}  // namespace
}  // namespace lumetra
