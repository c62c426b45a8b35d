// The H.264 recorder: its numbers, its start checks, its refusals and pacing, and the files it
// writes, read back with ffprobe and ffmpeg.
#include "recording/video_recorder.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cstring>
#include <fstream>
#include <opencv2/core.hpp>
#include <thread>

#include "recording/video_controller.h"
#include "recording/video_encoder_params.h"
#include "test_support.h"

namespace lumetra {
namespace {

using std::chrono::milliseconds;
using test::FakeSystem;
using test::Probe;
using test::RecordingSink;
using test::TempDir;

// A mono frame with a bar that moves with the frame number over a textured background.
std::vector<uint8_t> MonoFrame(int width, int height, int number) {
    std::vector<uint8_t> f(size_t(width) * height);
    for (int y = 0; y < height; ++y) {
        for (int x = 0; x < width; ++x) {
            const bool bar = ((x + number * 3) % width) < width / 8;
            f[size_t(y) * width + x] = bar ? 230 : static_cast<uint8_t>((x * 7 + y * 13) % 97 + 20);
        }
    }
    return f;
}

TEST(VideoNumbers, BitRateFollowsWidthAndRateOnly) {
    EXPECT_EQ(VideoBitRate(640, 30.0), 2560);
    EXPECT_EQ(VideoBitRate(1920, 30.0), 7680);
    // Truncated twice: 1920 x 4000 x 29.97 / 30 = 7672320, then / 1000.
    EXPECT_EQ(VideoBitRate(1920, 29.97), 7672);
    // 100 x 4000 x 1 / 30 = 13333.3 -> 13333 -> 13.
    EXPECT_EQ(VideoBitRate(100, 1.0), 13);
    EXPECT_EQ(VideoBitRate(640, 15.0), 1280);
}

TEST(VideoNumbers, EncoderParametersCarryTheRateAndTheColourSpace) {
    x264_param_t p{};
    ASSERT_TRUE(SetVideoEncoderParams(p, 640, 480, 0, 30.0));
    EXPECT_EQ(p.rc.i_rc_method, X264_RC_ABR);
    EXPECT_EQ(p.rc.i_bitrate, 2560);
    EXPECT_EQ(p.rc.i_vbv_max_bitrate, 5120);
    EXPECT_EQ(p.rc.i_vbv_buffer_size, 2560);
    EXPECT_EQ(p.i_fps_num, 30u);
    EXPECT_EQ(p.i_csp, X264_CSP_I400);
    EXPECT_EQ(p.vui.b_fullrange, 1);
    EXPECT_EQ(p.b_repeat_headers, 1);
    EXPECT_EQ(p.i_threads, X264_THREADS_AUTO);

    ASSERT_TRUE(SetVideoEncoderParams(p, 1920, 1200, 1, 59.94));
    EXPECT_EQ(p.i_csp, X264_CSP_BGR);
    EXPECT_EQ(p.i_fps_num, 59u);  // truncated
    EXPECT_EQ(p.rc.i_bitrate, 15344);
    EXPECT_EQ(p.vui.b_fullrange, -1);  // left to x264
    // An unknown image type keeps the preset's colour space.
    ASSERT_TRUE(SetVideoEncoderParams(p, 64, 64, 9, 30.0));
    EXPECT_EQ(p.i_csp, X264_CSP_I420);
}

TEST(VideoNumbers, TwelveBitSamplesLoseTheirLowFourBits) {
    const uint16_t in[] = {0x0FFF, 0x0A5F, 0x0010, 0x000F, 0x0000};
    uint8_t out[5] = {};
    ShiftTo8Bits(in, out, 5, 12 - 8);
    EXPECT_EQ(out[0], 0xFF);
    EXPECT_EQ(out[1], 0xA5);
    EXPECT_EQ(out[2], 0x01);
    EXPECT_EQ(out[3], 0x00);
    EXPECT_EQ(out[4], 0x00);
    const uint16_t full[] = {0xFFFF, 0x8000};
    ShiftTo8Bits(full, out, 2, 8);
    EXPECT_EQ(out[0], 0xFF);
    EXPECT_EQ(out[1], 0x80);
}

TEST(VideoNumbers, MemoryLoadIsUsedOverTotalPhysical) {
    MemoryStatus m = ParseMemInfo(
        "MemTotal:       16000000 kB\nMemFree:         1000000 kB\nMemAvailable:    4000000 kB\n");
    EXPECT_EQ(m.totalPhysical, 16000000ull * 1024);
    EXPECT_EQ(m.loadPercent, 75);                            // the page cache counts as available
    m = ParseMemInfo("MemTotal: 1000 kB\nMemFree: 1 kB\n");  // an old kernel: no MemAvailable
    EXPECT_EQ(m.loadPercent, 99);
    EXPECT_EQ(ParseMemInfo("").totalPhysical, 0u);
}

TEST(VideoNumbers, ResultTextsFollowTheStopOnErrorFlag) {
    EXPECT_EQ(VideoResultText(0, true), "Video saved successfully");
    EXPECT_EQ(VideoResultText(0, false), "Video saved successfully");
    EXPECT_EQ(VideoResultText(1, false), "Out of memory, waiting for the image to save ...");
    EXPECT_EQ(VideoResultText(2, true), "Failed to write data, Exit saving");
    EXPECT_EQ(VideoResultText(2, false), "Failed to write data,  Let's save it next time");
    EXPECT_EQ(VideoResultText(3, true), "Save video file is too large, Exit save");
    EXPECT_EQ(VideoResultText(3, false), "Save video file is too large, Let's save it next time");
    EXPECT_EQ(VideoResultText(4, false), "");
}

TEST(VideoFileNames, FirstCallKeepsThePathLaterOnesNumberAndSkipExistingFiles) {
    TempDir dir;
    VideoRecorder recorder;
    const std::string base = dir / "run.h264";
    EXPECT_EQ(recorder.NextFileName(base), base);
    EXPECT_EQ(recorder.fileCounter(), 1);
    EXPECT_EQ(recorder.NextFileName(base), dir / "run_1.h264");
    std::ofstream(dir / "run_1.h264") << "x";
    std::ofstream(dir / "run_2.h264") << "x";
    EXPECT_EQ(recorder.NextFileName(base), dir / "run_3.h264");
    EXPECT_EQ(recorder.fileCounter(), 3);
    // The counter stays where the last free name was found.
    std::ofstream(dir / "run_3.h264") << "x";
    EXPECT_EQ(recorder.NextFileName(base), dir / "run_4.h264");
    recorder.resetFileCounter();
    EXPECT_EQ(recorder.NextFileName(base), base);
}

class RecorderFixture : public ::testing::Test {
  protected:
    RecorderFixture() : recorder({&sink, &clock, &system}) {}

    RecordingSink sink;
    ManualClock clock;
    FakeSystem system;
    TempDir dir;
    VideoRecorder recorder;
};

using VideoStart = RecorderFixture;

TEST_F(VideoStart, NeedsMoreThanTwoGigabytesFree) {
    const std::string file = dir / "a.h264";
    system.free = 0x7FFFFFFF;
    EXPECT_FALSE(recorder.OpenEncoder(file, 64, 48, 0, 8, 30.0));
    EXPECT_FALSE(recorder.running());
    EXPECT_FALSE(std::filesystem::exists(file));
    EXPECT_EQ(system.lastDir, dir.path().string());

    system.free = 0x80000000;
    EXPECT_TRUE(recorder.OpenEncoder(file, 64, 48, 0, 8, 30.0));
    EXPECT_TRUE(recorder.running());
    recorder.Stop();
    EXPECT_TRUE(std::filesystem::exists(file));
}

TEST_F(VideoStart, RefusesBadGeometryAndAFileThatCannotBeMade) {
    EXPECT_FALSE(recorder.OpenEncoder(dir / "a.h264", 0, 48, 0, 8, 30.0));
    EXPECT_FALSE(recorder.OpenEncoder(dir / "a.h264", 64, 48, 0, 7, 30.0));
    EXPECT_FALSE(recorder.OpenEncoder(dir / "a.h264", 64, 48, 0, 8, 0.0));
    EXPECT_FALSE(recorder.OpenEncoder(dir / "no/such/folder/a.h264", 64, 48, 0, 8, 30.0));
    EXPECT_FALSE(recorder.running());
    EXPECT_TRUE(sink.posted().empty());
}

using VideoPush = RecorderFixture;

TEST_F(VideoPush, RefusesWhileNotRunningCompressedOrShort) {
    const auto frame = MonoFrame(64, 48, 0);
    EXPECT_FALSE(recorder.PushFrame(frame.data(), frame.size()));
    ASSERT_TRUE(recorder.OpenEncoder(dir / "a.h264", 64, 48, 0, 8, 30.0));
    recorder.setStopOnError(true);
    EXPECT_FALSE(recorder.PushFrame(frame.data(), frame.size() - 1));
    recorder.setBoardCompresses(true);
    EXPECT_FALSE(recorder.PushFrame(frame.data(), frame.size()));
    recorder.setBoardCompresses(false);
    recorder.push(frame.data(), frame.size(), true);  // a JPEG frame
    EXPECT_EQ(recorder.framesQueued(), 0u);
    EXPECT_TRUE(recorder.PushFrame(frame.data(), frame.size()));
    recorder.Stop();
    EXPECT_EQ(recorder.framesEncoded(), 1u);
    EXPECT_FALSE(recorder.wantsFrames());
}

TEST_F(VideoPush, PacingLetsAFrameThroughEveryRateMilliseconds) {
    ASSERT_TRUE(recorder.OpenEncoder(dir / "a.h264", 64, 48, 0, 8, 30.0));
    recorder.setStopOnError(false);
    const auto frame = MonoFrame(64, 48, 0);
    std::vector<int> accepted;
    // Offered every 10 ms for 100 ms: due = trunc(elapsed / 30).
    for (int t = 0; t <= 100; t += 10) {
        if (recorder.PushFrame(frame.data(), frame.size())) {
            accepted.push_back(t);
        }
        clock.advance(milliseconds(10));
    }
    EXPECT_EQ(accepted, (std::vector<int>{0, 30, 60, 90}));
    recorder.Stop();
    EXPECT_EQ(recorder.framesEncoded(), 4u);
}

TEST_F(VideoPush, StopOnErrorTakesEveryFrame) {
    ASSERT_TRUE(recorder.OpenEncoder(dir / "a.h264", 64, 48, 0, 8, 30.0));
    recorder.setStopOnError(true);
    const auto frame = MonoFrame(64, 48, 0);
    for (int i = 0; i < 10; ++i) {
        EXPECT_TRUE(recorder.PushFrame(frame.data(), frame.size()));
    }
    recorder.Stop();
    EXPECT_EQ(recorder.framesEncoded(), 10u);
}

TEST_F(VideoPush, MemoryGuardRefusesAboveNinetyPercentAndReportsOnce) {
    ASSERT_TRUE(recorder.OpenEncoder(dir / "a.h264", 64, 48, 0, 8, 30.0));
    recorder.setStopOnError(true);
    const auto frame = MonoFrame(64, 48, 0);
    // 3072 bytes of 3072000: 0.1 % on top of the load.
    system.total = 3072000;
    system.load = 90;  // trunc(90.1) = 90: still taken
    EXPECT_TRUE(recorder.PushFrame(frame.data(), frame.size()));
    system.total = 30720;  // 10 % on top: 100
    EXPECT_FALSE(recorder.PushFrame(frame.data(), frame.size()));
    EXPECT_EQ(recorder.result(), video::kOutOfMemory);
    system.total = uint64_t{16} << 30;
    system.load = 10;
    // Reported once; every further frame of this file is refused.
    EXPECT_FALSE(recorder.PushFrame(frame.data(), frame.size()));
    EXPECT_EQ(sink.of(msg::kVideoResult), (std::vector<test::Posted>{{msg::kVideoResult, 0, 1}}));
    recorder.Stop();
    // The frame taken before the guard tripped is in the file.
    EXPECT_EQ(recorder.framesEncoded(), 1u);
    EXPECT_EQ(Probe(dir / "a.h264").frames, 1);
    // The worker reports the file's result code when it ends.
    EXPECT_EQ(sink.of(msg::kVideoResult).back(), (test::Posted{msg::kVideoResult, 0, 1}));
}

using VideoFile = RecorderFixture;

TEST_F(VideoFile, MonoFramesReadBackAsGreyWithEveryFrame) {
    const std::string file = dir / "mono.h264";
    ASSERT_TRUE(recorder.OpenEncoder(file, 320, 240, 0, 8, 30.0));
    recorder.setStopOnError(true);
    for (int i = 0; i < 25; ++i) {
        const auto frame = MonoFrame(320, 240, i);
        ASSERT_TRUE(recorder.PushFrame(frame.data(), frame.size()));
    }
    recorder.Stop();
    EXPECT_EQ(recorder.result(), video::kSuccess);
    EXPECT_EQ(sink.of(msg::kVideoResult), (std::vector<test::Posted>{{msg::kVideoResult, 0, 0}}));
    const auto probed = Probe(file);
    EXPECT_EQ(probed.width, 320);
    EXPECT_EQ(probed.height, 240);
    EXPECT_TRUE(test::IsGreyPixFmt(probed.pixFmt)) << probed.pixFmt;
    EXPECT_EQ(probed.colorRange, "pc");  // full range: grey levels shown unchanged
    EXPECT_EQ(probed.frames, 25);
    EXPECT_EQ(test::SpsValue(file, "chroma_format_idc"), 0);
    EXPECT_EQ(test::SpsValue(file, "video_full_range_flag"), 1);
    EXPECT_EQ(int64_t(std::filesystem::file_size(file)), recorder.bytesWritten());
}

TEST_F(VideoFile, TwelveBitFramesAreShiftedByFourBeforeEncoding) {
    const std::string file = dir / "twelve.h264";
    ASSERT_TRUE(recorder.OpenEncoder(file, 64, 48, 0, 12, 30.0));
    recorder.setStopOnError(true);
    // Flat 12-bit frames: 0xA5F keeps 0xA5 after the shift (not 0x0A, not 0x5F).
    std::vector<uint16_t> frame(64 * 48, 0x0A5F);
    for (int i = 0; i < 3; ++i) {
        ASSERT_TRUE(recorder.PushFrame(frame.data(), frame.size() * 2));
    }
    recorder.Stop();
    const std::string decoded = test::DecodeVideo(file, "gray");
    ASSERT_EQ(decoded.size(), size_t(3 * 64 * 48));
    for (size_t i = 0; i < decoded.size(); i += 97) {
        EXPECT_NEAR(static_cast<uint8_t>(decoded[i]), 0xA5, 2) << "sample " << i;
    }
}

TEST_F(VideoFile, ColourFramesKeepTheirChannelOrder) {
    // Type 1 frames are B, G, R; type 3 frames R, G, B. Both carry a blue field.
    struct Case {
        int imageType;
        uint8_t pixel[4];
        int channels;
    };
    const Case cases[] = {{1, {200, 40, 10}, 3}, {3, {10, 40, 200}, 3}, {2, {200, 40, 10, 99}, 4}};
    for (const Case& c : cases) {
        const std::string file = dir / ("colour" + std::to_string(c.imageType) + ".h264");
        ASSERT_TRUE(recorder.OpenEncoder(file, 64, 48, c.imageType, 8, 30.0));
        recorder.setStopOnError(true);
        std::vector<uint8_t> frame(64 * 48 * c.channels);
        for (size_t i = 0; i < frame.size(); ++i) {
            frame[i] = c.pixel[i % c.channels];
        }
        ASSERT_TRUE(recorder.PushFrame(frame.data(), frame.size()));
        recorder.Stop();
        EXPECT_EQ(Probe(file).pixFmt, "gbrp") << c.imageType;
        EXPECT_EQ(test::SpsValue(file, "chroma_format_idc"), 3) << c.imageType;
        EXPECT_EQ(test::SpsValue(file, "profile_idc"), 244) << c.imageType;  // High 4:4:4
        const std::string rgb = test::DecodeVideo(file, "rgb24");
        ASSERT_EQ(rgb.size(), size_t(64 * 48 * 3));
        EXPECT_NEAR(static_cast<uint8_t>(rgb[0]), 10, 3) << c.imageType;
        EXPECT_NEAR(static_cast<uint8_t>(rgb[1]), 40, 3) << c.imageType;
        EXPECT_NEAR(static_cast<uint8_t>(rgb[2]), 200, 3) << c.imageType;
    }
}

TEST_F(VideoFile, StopEncodesEveryQueuedFrame) {
    const std::string file = dir / "drain.h264";
    ASSERT_TRUE(recorder.OpenEncoder(file, 320, 240, 0, 8, 30.0));
    recorder.setStopOnError(true);
    const auto frame = MonoFrame(320, 240, 1);
    for (int i = 0; i < 60; ++i) {
        ASSERT_TRUE(recorder.PushFrame(frame.data(), frame.size()));
    }
    recorder.Stop();  // most of them are still queued here
    EXPECT_EQ(recorder.queueCount(), 0u);
    EXPECT_EQ(recorder.framesEncoded(), 60u);
    EXPECT_EQ(Probe(file).frames, 60);
}

TEST_F(VideoFile, FullDiskEndsWithResultTwo) {
    ASSERT_TRUE(recorder.OpenEncoder("/dev/full", 320, 240, 0, 8, 30.0));
    recorder.setStopOnError(true);
    // Noise: enough output to pass the stream buffer within a few frames.
    cv::RNG rng(3);
    std::vector<uint8_t> frame(320 * 240);
    for (int i = 0; i < 300 && recorder.running(); ++i) {
        for (auto& v : frame) {
            v = static_cast<uint8_t>(rng.uniform(0, 256));
        }
        recorder.PushFrame(frame.data(), frame.size());
    }
    // The worker ends by itself: no Stop before the result arrives.
    ASSERT_TRUE(sink.waitFor(msg::kVideoResult));
    EXPECT_FALSE(recorder.running());
    recorder.Stop();
    EXPECT_EQ(recorder.result(), video::kWriteFailed);
    EXPECT_EQ(sink.of(msg::kVideoResult), (std::vector<test::Posted>{{msg::kVideoResult, 0, 2}}));
    struct stat st {};
    ASSERT_EQ(stat("/dev/full", &st), 0);
    EXPECT_TRUE(S_ISCHR(st.st_mode));
}

TEST_F(VideoFile, FullDiskFoundOnlyAtTheCloseIsStillResultTwo) {
    ASSERT_TRUE(recorder.OpenEncoder("/dev/full", 64, 48, 0, 8, 30.0));
    recorder.setStopOnError(true);
    const auto frame = MonoFrame(64, 48, 0);
    ASSERT_TRUE(recorder.PushFrame(frame.data(), frame.size()));
    recorder.Stop();  // the few bytes were still in the stream buffer
    EXPECT_EQ(sink.of(msg::kVideoResult), (std::vector<test::Posted>{{msg::kVideoResult, 0, 2}}));
}

TEST_F(VideoFile, FileLimitEndsTheFileAtAFrameBoundary) {
    const std::string file = dir / "limit.h264";
    // The first picture of 160 x 120 takes about 12 kB, the next ones 1 to 3 kB.
    recorder.setFileLimit(20000);
    ASSERT_TRUE(recorder.OpenEncoder(file, 160, 120, 0, 8, 30.0));
    recorder.setStopOnError(true);
    for (int i = 0; i < 200; ++i) {
        const auto frame = MonoFrame(160, 120, i);
        if (!recorder.PushFrame(frame.data(), frame.size())) {
            break;
        }
    }
    ASSERT_TRUE(sink.waitFor(msg::kVideoResult));
    EXPECT_EQ(sink.of(msg::kVideoResult)[0].lParam, video::kFileTooLarge);
    EXPECT_FALSE(recorder.running());
    const auto size = std::filesystem::file_size(file);
    EXPECT_LE(size, 20000u);
    EXPECT_GT(size, 12000u);
    EXPECT_EQ(int64_t(size), recorder.bytesWritten());
    // What was written decodes: the refused frame was not half written.
    EXPECT_EQ(Probe(file).frames, int(recorder.framesEncoded()));
    EXPECT_GT(recorder.framesEncoded(), 0u);
}

// Pushes from a callback thread while the user-interface thread stops the recording.
TEST_F(VideoFile, StopWhilePushingLosesNoAcceptedFrame) {
    const std::string file = dir / "race.h264";
    ASSERT_TRUE(recorder.OpenEncoder(file, 64, 48, 0, 8, 30.0));
    recorder.setStopOnError(true);
    std::atomic<int> accepted{0};
    std::atomic<bool> started{false};
    std::thread callback([&] {
        const auto frame = MonoFrame(64, 48, 0);
        for (int i = 0; i < 400; ++i) {
            if (recorder.PushFrame(frame.data(), frame.size())) {
                ++accepted;
            }
            started = true;
        }
    });
    while (!started) {
        std::this_thread::yield();
    }
    recorder.Stop();
    callback.join();
    EXPECT_EQ(recorder.framesEncoded(), uint64_t(accepted.load()));
    EXPECT_EQ(Probe(file).frames, accepted.load());
}

}  // namespace
}  // namespace lumetra
