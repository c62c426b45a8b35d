// "Start Save Video", "Stop Save Video" and the handling of message 0x496.
#include "recording/video_controller.h"

#include <gtest/gtest.h>

#include <fstream>

#include "recording/recording_settings.h"
#include "test_support.h"

namespace lumetra {
namespace {

using std::chrono::milliseconds;
using test::Probe;

class FakeHost final : public VideoHost {
  public:
    double frameRate() override { return rate; }
    VideoGeometry geometry() override { return geometry_; }
    bool continuousGrabRunning() override { return grabbing; }
    bool boardCompresses() override { return compresses; }

    double rate = 60.0;
    VideoGeometry geometry_{160, 120, 0, 8};
    bool grabbing = true;
    bool compresses = false;
};

class ControllerFixture : public ::testing::Test {
  protected:
    ControllerFixture()
        : recorder({&sink, &clock, &system}), controller(recorder, host, settings, log, prompt) {}

    void capRate(bool on, int cap = 30) {
        settings.writeInt("Video", "FrameRateLimit", on ? 1 : 0);
        settings.writeInt("Video", "FrameRate", cap);
    }
    bool push(int number) {
        const auto frame = test::MonoFrame(160, 120, number);
        return recorder.PushFrame(frame.data(), frame.size());
    }

    test::RecordingSink sink;
    ManualClock clock;
    test::FakeSystem system;
    test::TempDir dir;
    test::RecordingLog log;
    test::RecordingPrompt prompt;
    MemorySettings settings;
    FakeHost host;
    VideoRecorder recorder;
    VideoController controller;
};

using VideoCommands = ControllerFixture;

TEST_F(VideoCommands, BoardAndSettingsDecideWhatStartDoes) {
    host.compresses = true;
    controller.OnContinuousGrabStarted();
    EXPECT_FALSE(controller.canStart());
    host.compresses = false;
    controller.OnContinuousGrabStarted();
    EXPECT_TRUE(controller.canStart());

    const VideoRateSettings defaults = ReadVideoRateSettings(settings);
    EXPECT_FALSE(defaults.limit);
    EXPECT_EQ(defaults.cap, 30.0);
    // Uncapped: the board's rate, stopping on the first error.
    ASSERT_TRUE(controller.Start(dir / "v.h264"));
    EXPECT_TRUE(recorder.stopOnError());
    EXPECT_EQ(recorder.rate(), 60.0);
    EXPECT_FALSE(controller.canStart());
    EXPECT_TRUE(controller.canStop());
    controller.Stop();
    EXPECT_TRUE(controller.canStart());

    capRate(true, 25);
    ASSERT_TRUE(controller.Start(dir / "v.h264"));
    EXPECT_FALSE(recorder.stopOnError());
    EXPECT_EQ(recorder.rate(), 25.0);
    controller.Stop();
    host.rate = 12.5;  // below the cap: kept
    ASSERT_TRUE(controller.Start(dir / "w.h264"));
    EXPECT_EQ(recorder.rate(), 12.5);
    controller.Stop();
    // Success is logged and, even with capping on, starts nothing; codes the recorder never
    // posts log nothing.
    ASSERT_TRUE(sink.waitFor(msg::kVideoResult, 3));
    controller.HandleResult(sink.of(msg::kVideoResult)[2].lParam);
    controller.HandleResult(4);
    EXPECT_EQ(log.lines(), (std::vector<std::string>{"Video saved successfully"}));
    EXPECT_FALSE(recorder.running());
    EXPECT_EQ(recorder.fileCounter(), 1);
}

TEST_F(VideoCommands, ZeroRateOrLowDiskSpaceNeverOpensAFile) {
    host.rate = 0.0;
    EXPECT_FALSE(controller.Start(dir / "v.h264"));
    host.rate = 60.0;
    capRate(true, 0);  // capped at a zero cap: the same
    EXPECT_FALSE(controller.Start(dir / "v.h264"));
    capRate(false);
    system.free = uint64_t{1} << 30;
    EXPECT_FALSE(controller.Start(dir / "v.h264"));
    EXPECT_EQ(prompt.texts,
              (std::vector<std::string>{"Frame rate is 0, exit save", "Frame rate is 0, exit save",
                                        "Failed to create video file"}));
    EXPECT_FALSE(std::filesystem::exists(dir / "v.h264"));
    EXPECT_FALSE(recorder.running());
}

TEST_F(VideoCommands, ErrorWithStopOnErrorEndsTheRecording) {
    ASSERT_TRUE(controller.Start(dir / "v.h264"));
    controller.HandleResult(video::kFileTooLarge);
    controller.HandleResult(video::kWriteFailed);
    EXPECT_EQ(log.lines(), (std::vector<std::string>{"Save video file is too large, Exit save",
                                                     "Failed to write data, Exit saving"}));
    EXPECT_FALSE(std::filesystem::exists(dir / "v_1.h264"));
    controller.Stop();
}

// With capping on, a file that reaches the limit ends at a frame boundary by itself and is
// continued in "_1" at half the rate.
TEST_F(VideoCommands, FullFileContinuesInTheNextNumberAtHalfTheRate) {
    capRate(true, 30);
    host.rate = 30.0;
    std::ofstream(dir / "v_1.h264") << "taken";
    // The first picture of 160 x 120 takes about 12 kB, the next ones 1 to 3 kB.
    recorder.setFileLimit(20000);
    ASSERT_TRUE(controller.Start(dir / "v.h264"));
    int offered = 0;
    while (recorder.running() && recorder.result() == video::kSuccess && offered < 400) {
        push(offered++);
        clock.advance(milliseconds(30));
    }
    ASSERT_TRUE(sink.waitFor(msg::kVideoResult));
    ASSERT_EQ(sink.of(msg::kVideoResult)[0].lParam, video::kFileTooLarge);
    EXPECT_FALSE(recorder.running());
    const uint64_t firstFrames = recorder.framesEncoded();
    const auto firstSize = std::filesystem::file_size(dir / "v.h264");
    EXPECT_EQ(int64_t(firstSize), recorder.bytesWritten());
    EXPECT_LE(firstSize, 20000u);
    EXPECT_GT(firstSize, 12000u);
    EXPECT_GT(firstFrames, 0u);

    controller.HandleResult(video::kFileTooLarge);
    EXPECT_EQ(log.lines(),
              (std::vector<std::string>{"Save video file is too large, Let's save it next time"}));
    ASSERT_TRUE(recorder.running());
    EXPECT_EQ(recorder.path(), dir / "v_2.h264");  // "_1" was taken
    EXPECT_EQ(recorder.rate(), 15.0);
    EXPECT_EQ(recorder.width(), 160);
    recorder.setFileLimit(video::kFileLimit);
    for (int i = 0; i < 5; ++i) {
        EXPECT_TRUE(push(i));
        clock.advance(milliseconds(15));
    }
    controller.Stop();
    // What was written decodes: the refused frame was not half written.
    EXPECT_EQ(Probe(dir / "v.h264").frames, int(firstFrames));
    const auto second = Probe(dir / "v_2.h264");
    EXPECT_EQ(second.frames, 5);
    EXPECT_EQ(second.width, 160);
    EXPECT_TRUE(test::IsGreyPixFmt(second.pixFmt)) << second.pixFmt;
}

TEST_F(VideoCommands, HalvingStopsAtOneFramePerSecondAndAtTheEndOfTheGrab) {
    capRate(true, 30);
    host.rate = 1.5;
    ASSERT_TRUE(controller.Start(dir / "v.h264"));
    controller.HandleResult(video::kWriteFailed);
    EXPECT_EQ(log.lines().back(), "Failed to write data,  Let's save it next time");
    EXPECT_EQ(recorder.rate(), 1.0);
    EXPECT_EQ(recorder.path(), dir / "v_1.h264");
    controller.HandleResult(video::kWriteFailed);
    EXPECT_EQ(recorder.rate(), 1.0);
    EXPECT_EQ(recorder.path(), dir / "v_2.h264");
    controller.Stop();
    host.grabbing = false;
    controller.HandleResult(video::kWriteFailed);
    EXPECT_FALSE(recorder.running());
    EXPECT_FALSE(std::filesystem::exists(dir / "v_3.h264"));
}

TEST_F(VideoCommands, OutOfMemoryStartsANewFileWithoutAStaleReport) {
    capRate(true, 30);
    ASSERT_TRUE(controller.Start(dir / "v.h264"));
    system.load = 95;
    EXPECT_FALSE(push(0));
    ASSERT_TRUE(sink.waitFor(msg::kVideoResult));
    system.load = 20;
    controller.HandleResult(sink.of(msg::kVideoResult)[0].lParam);
    EXPECT_EQ(log.lines(),
              (std::vector<std::string>{"Out of memory, waiting for the image to save ..."}));
    ASSERT_TRUE(recorder.running());
    EXPECT_EQ(recorder.result(), video::kSuccess);
    EXPECT_EQ(recorder.path(), dir / "v_1.h264");
    controller.Stop();
    // The superseded file's worker stayed quiet; the new file reports success.
    const auto results = sink.of(msg::kVideoResult);
    ASSERT_EQ(results.size(), 2u);
    EXPECT_EQ(results[1].lParam, video::kSuccess);
}

TEST(VideoDialog, DefaultNameCarriesTheTime) {
    std::tm t{};
    t.tm_year = 2024 - 1900;
    t.tm_mon = 0;
    t.tm_mday = 9;
    t.tm_hour = 7;
    t.tm_min = 5;
    t.tm_sec = 3;
    EXPECT_EQ(DefaultVideoFileName(t), "Video_20240109_070503.h264");
}

}  // namespace
}  // namespace lumetra
