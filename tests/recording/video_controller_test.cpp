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

std::vector<uint8_t> Frame(int number) {
    std::vector<uint8_t> f(160 * 120);
    for (size_t i = 0; i < f.size(); ++i) {
        f[i] = static_cast<uint8_t>((i * 31 + size_t(number) * 17) % 251);
    }
    return f;
}

class ControllerFixture : public ::testing::Test {
  protected:
    ControllerFixture()
        : recorder({&sink, &clock, &system}), controller(recorder, host, settings, log, prompt) {}

    void capRate(bool on, int cap = 30) {
        settings.writeInt("Video", "FrameRateLimit", on ? 1 : 0);
        settings.writeInt("Video", "FrameRate", cap);
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

TEST_F(VideoCommands, DefaultSettingsRecordAtTheBoardRateAndStopOnError) {
    const VideoRateSettings defaults = ReadVideoRateSettings(settings);
    EXPECT_FALSE(defaults.limit);
    EXPECT_EQ(defaults.cap, 30.0);
    ASSERT_TRUE(controller.Start(dir / "v.h264"));
    EXPECT_TRUE(recorder.stopOnError());
    EXPECT_EQ(recorder.rate(), 60.0);
    EXPECT_FALSE(controller.canStart());
    EXPECT_TRUE(controller.canStop());
    controller.Stop();
    EXPECT_TRUE(controller.canStart());
}

TEST_F(VideoCommands, CappingLimitsTheRateAndClearsStopOnError) {
    capRate(true, 25);
    ASSERT_TRUE(controller.Start(dir / "v.h264"));
    EXPECT_FALSE(recorder.stopOnError());
    EXPECT_EQ(recorder.rate(), 25.0);
    controller.Stop();
    host.rate = 12.5;  // below the cap: kept
    ASSERT_TRUE(controller.Start(dir / "w.h264"));
    EXPECT_EQ(recorder.rate(), 12.5);
    controller.Stop();
}

TEST_F(VideoCommands, ZeroRateNeverOpensAFile) {
    host.rate = 0.0;
    EXPECT_FALSE(controller.Start(dir / "v.h264"));
    EXPECT_EQ(prompt.texts, (std::vector<std::string>{"Frame rate is 0, exit save"}));
    EXPECT_FALSE(std::filesystem::exists(dir / "v.h264"));
    EXPECT_FALSE(recorder.running());
    // Capped at a zero cap: the same.
    host.rate = 60.0;
    capRate(true, 0);
    EXPECT_FALSE(controller.Start(dir / "v.h264"));
    EXPECT_EQ(prompt.texts.size(), 2u);
}

TEST_F(VideoCommands, LowDiskSpaceIsReportedAsAFailedFile) {
    system.free = uint64_t{1} << 30;
    EXPECT_FALSE(controller.Start(dir / "v.h264"));
    EXPECT_EQ(prompt.texts, (std::vector<std::string>{"Failed to create video file"}));
    EXPECT_FALSE(std::filesystem::exists(dir / "v.h264"));
}

TEST_F(VideoCommands, CompressingBoardDisablesStartAndRefusesFrames) {
    host.compresses = true;
    controller.OnContinuousGrabStarted();
    EXPECT_FALSE(controller.canStart());
    host.compresses = false;
    controller.OnContinuousGrabStarted();
    EXPECT_TRUE(controller.canStart());
}

TEST_F(VideoCommands, SuccessIsLoggedAndStartsNothing) {
    ASSERT_TRUE(controller.Start(dir / "v.h264"));
    controller.Stop();
    ASSERT_TRUE(sink.waitFor(msg::kVideoResult));
    controller.HandleResult(sink.of(msg::kVideoResult)[0].lParam);
    EXPECT_EQ(log.lines(), (std::vector<std::string>{"Video saved successfully"}));
    EXPECT_FALSE(recorder.running());
    EXPECT_EQ(recorder.fileCounter(), 1);
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

// With capping on, a file that reaches the limit is continued in "_1" at half the rate.
TEST_F(VideoCommands, FullFileContinuesInTheNextNumberAtHalfTheRate) {
    capRate(true, 30);
    host.rate = 30.0;
    std::ofstream(dir / "v_1.h264") << "taken";
    recorder.setFileLimit(20000);
    ASSERT_TRUE(controller.Start(dir / "v.h264"));
    int offered = 0;
    while (recorder.running() && recorder.result() == video::kSuccess && offered < 400) {
        const auto frame = Frame(offered++);
        recorder.PushFrame(frame.data(), frame.size());
        clock.advance(milliseconds(30));
    }
    ASSERT_TRUE(sink.waitFor(msg::kVideoResult));
    ASSERT_EQ(sink.of(msg::kVideoResult)[0].lParam, video::kFileTooLarge);
    const uint64_t firstFrames = recorder.framesEncoded();

    controller.HandleResult(video::kFileTooLarge);
    EXPECT_EQ(log.lines(),
              (std::vector<std::string>{"Save video file is too large, Let's save it next time"}));
    ASSERT_TRUE(recorder.running());
    EXPECT_EQ(recorder.path(), dir / "v_2.h264");  // "_1" was taken
    EXPECT_EQ(recorder.rate(), 15.0);
    EXPECT_EQ(recorder.width(), 160);
    recorder.setFileLimit(video::kFileLimit);
    for (int i = 0; i < 5; ++i) {
        const auto frame = Frame(i);
        EXPECT_TRUE(recorder.PushFrame(frame.data(), frame.size()));
        clock.advance(milliseconds(15));
    }
    controller.Stop();
    EXPECT_LE(std::filesystem::file_size(dir / "v.h264"), 20000u);
    EXPECT_EQ(Probe(dir / "v.h264").frames, int(firstFrames));
    const auto second = Probe(dir / "v_2.h264");
    EXPECT_EQ(second.frames, 5);
    EXPECT_EQ(second.width, 160);
    EXPECT_TRUE(test::IsGreyPixFmt(second.pixFmt)) << second.pixFmt;
}

TEST_F(VideoCommands, HalvingStopsAtOneFramePerSecond) {
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
}

TEST_F(VideoCommands, NoNewFileOnceTheGrabHasEnded) {
    capRate(true, 30);
    ASSERT_TRUE(controller.Start(dir / "v.h264"));
    controller.Stop();
    host.grabbing = false;
    controller.HandleResult(video::kWriteFailed);
    EXPECT_FALSE(recorder.running());
    EXPECT_FALSE(std::filesystem::exists(dir / "v_1.h264"));
}

TEST_F(VideoCommands, OutOfMemoryStartsANewFileWithoutAStaleReport) {
    capRate(true, 30);
    ASSERT_TRUE(controller.Start(dir / "v.h264"));
    const auto frame = Frame(0);
    system.load = 95;
    EXPECT_FALSE(recorder.PushFrame(frame.data(), frame.size()));
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

TEST_F(VideoCommands, UnknownResultCodesLogNothing) {
    controller.HandleResult(7);
    EXPECT_TRUE(log.lines().empty());
}

}  // namespace
}  // namespace lumetra
