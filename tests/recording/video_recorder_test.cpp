// The H.264 recorder: its numbers, its start checks, its refusals and pacing, and the files it
// writes, read back with ffprobe and ffmpeg.
#include "recording/video_recorder.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <fstream>
#include <opencv2/core.hpp>
#include <thread>

#include "recording/video_controller.h"
#include "recording/video_encoder_params.h"
#include "test_support.h"

namespace lumetra {
namespace {

using std::chrono::milliseconds;
using test::MonoFrame;
using test::Posted;
using test::Probe;

TEST(VideoNumbers, BitRateAndEncoderParameters) {
    EXPECT_EQ(VideoBitRate(640, 30.0), 2560);
    EXPECT_EQ(VideoBitRate(1920, 30.0), 7680);
    // Truncated twice: 1920 x 4000 x 29.97 / 30 = 7672320, then / 1000.
    EXPECT_EQ(VideoBitRate(1920, 29.97), 7672);
    // 100 x 4000 x 1 / 30 = 13333.3 -> 13333 -> 13.
    EXPECT_EQ(VideoBitRate(100, 1.0), 13);
    EXPECT_EQ(VideoBitRate(640, 15.0), 1280);

    x264_param_t p{};
    ASSERT_TRUE(SetVideoEncoderParams(p, 640, 480, 0, 30.0));
    EXPECT_EQ(
        std::tie(p.rc.i_rc_method, p.rc.i_bitrate, p.rc.i_vbv_max_bitrate, p.rc.i_vbv_buffer_size),
        std::tuple(X264_RC_ABR, 2560, 5120, 2560));
    EXPECT_EQ(std::tie(p.i_fps_num, p.i_csp, p.vui.b_fullrange, p.b_repeat_headers, p.i_threads),
              std::tuple(30u, X264_CSP_I400, 1, 1, X264_THREADS_AUTO));

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
    const uint16_t in[] = {0x0FFF, 0x0A5F, 0x0010, 0x000F, 0x0000, 0xFFFF, 0x8000};
    std::vector<uint8_t> out(7);
    ShiftTo8Bits(in, out.data(), 5, 12 - 8);
    ShiftTo8Bits(in + 5, out.data() + 5, 2, 8);
    EXPECT_EQ(out, (std::vector<uint8_t>{0xFF, 0xA5, 0x01, 0x00, 0x00, 0xFF, 0x80}));
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

TEST(VideoFileNames, FirstCallKeepsThePathLaterOnesNumberAndSkipExistingFiles) {
    test::TempDir dir;
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

    test::RecordingSink sink;
    ManualClock clock;
    test::FakeSystem system;
    test::TempDir dir;
    VideoRecorder recorder;
};

using VideoStart = RecorderFixture;

TEST_F(VideoStart, RefusesBadInputAndNeedsMoreThanTwoGigabytesFree) {
    const std::string file = dir / "a.h264";
    EXPECT_FALSE(recorder.OpenEncoder(file, 0, 48, 0, 8, 30.0));
    EXPECT_FALSE(recorder.OpenEncoder(file, 64, 48, 0, 7, 30.0));
    EXPECT_FALSE(recorder.OpenEncoder(file, 64, 48, 0, 8, 0.0));
    EXPECT_FALSE(recorder.OpenEncoder(dir / "no/such/folder/a.h264", 64, 48, 0, 8, 30.0));
    system.free = 0x7FFFFFFF;
    EXPECT_FALSE(recorder.OpenEncoder(file, 64, 48, 0, 8, 30.0));
    EXPECT_EQ(system.lastDir, dir.path().string());
    EXPECT_FALSE(recorder.running());
    EXPECT_FALSE(std::filesystem::exists(file));
    EXPECT_TRUE(sink.posted().empty());

    system.free = 0x80000000;
    EXPECT_TRUE(recorder.OpenEncoder(file, 64, 48, 0, 8, 30.0));
    EXPECT_TRUE(recorder.running());
    recorder.Stop();
    EXPECT_TRUE(std::filesystem::exists(file));
}

using VideoPush = RecorderFixture;

TEST_F(VideoPush, RefusesWhileNotRunningCompressedOrShortAndStopOnErrorTakesEveryFrame) {
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
    // Stop on error paces nothing: every frame is taken while the clock stands still.
    for (int i = 0; i < 10; ++i) {
        EXPECT_TRUE(recorder.PushFrame(frame.data(), frame.size()));
    }
    recorder.Stop();
    EXPECT_EQ(recorder.framesEncoded(), 10u);
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
    EXPECT_EQ(sink.of(msg::kVideoResult), (std::vector<Posted>{{msg::kVideoResult, 0, 1}}));
    recorder.Stop();
    // The frame taken before the guard tripped is in the file.
    EXPECT_EQ(recorder.framesEncoded(), 1u);
    EXPECT_EQ(Probe(dir / "a.h264").frames, 1);
    // The worker reports the file's result code when it ends.
    EXPECT_EQ(sink.of(msg::kVideoResult).back(), (Posted{msg::kVideoResult, 0, 1}));
}

using VideoFile = RecorderFixture;

TEST_F(VideoFile, MonoFramesReadBackAsGreyWithEveryQueuedFrame) {
    const std::string file = dir / "mono.h264";
    std::vector<std::vector<uint8_t>> frames;
    for (int i = 0; i < 60; ++i) {
        frames.push_back(MonoFrame(320, 240, i));
    }
    ASSERT_TRUE(recorder.OpenEncoder(file, 320, 240, 0, 8, 30.0));
    recorder.setStopOnError(true);
    for (const auto& frame : frames) {
        ASSERT_TRUE(recorder.PushFrame(frame.data(), frame.size()));
    }
    recorder.Stop();  // most of them are still queued here
    EXPECT_EQ(recorder.queueCount(), 0u);
    EXPECT_EQ(recorder.framesEncoded(), 60u);
    EXPECT_EQ(recorder.result(), video::kSuccess);
    EXPECT_EQ(sink.of(msg::kVideoResult), (std::vector<Posted>{{msg::kVideoResult, 0, 0}}));
    const auto probed = Probe(file);
    EXPECT_EQ(std::tie(probed.width, probed.height, probed.frames), std::tuple(320, 240, 60));
    EXPECT_TRUE(test::IsGreyPixFmt(probed.pixFmt)) << probed.pixFmt;
    EXPECT_EQ(probed.colorRange, "pc");  // full range: grey levels shown unchanged
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
        SCOPED_TRACE(c.imageType);
        const std::string file = dir / ("colour" + std::to_string(c.imageType) + ".h264");
        ASSERT_TRUE(recorder.OpenEncoder(file, 64, 48, c.imageType, 8, 30.0));
        recorder.setStopOnError(true);
        std::vector<uint8_t> frame(64 * 48 * c.channels);
        for (size_t i = 0; i < frame.size(); ++i) {
            frame[i] = c.pixel[i % c.channels];
        }
        ASSERT_TRUE(recorder.PushFrame(frame.data(), frame.size()));
        recorder.Stop();
        EXPECT_EQ(Probe(file).pixFmt, "gbrp");
        EXPECT_EQ(test::SpsValue(file, "chroma_format_idc"), 3);
        EXPECT_EQ(test::SpsValue(file, "profile_idc"), 244);  // High 4:4:4
        const std::string rgb = test::DecodeVideo(file, "rgb24");
        ASSERT_EQ(rgb.size(), size_t(64 * 48 * 3));
        EXPECT_NEAR(static_cast<uint8_t>(rgb[0]), 10, 3);
        EXPECT_NEAR(static_cast<uint8_t>(rgb[1]), 40, 3);
        EXPECT_NEAR(static_cast<uint8_t>(rgb[2]), 200, 3);
    }
}

TEST_F(VideoFile, FullDiskEndsWithResultTwo) {
    // One small frame stays in the stream buffer: the full disk shows only at the close.
    ASSERT_TRUE(recorder.OpenEncoder("/dev/full", 64, 48, 0, 8, 30.0));
    recorder.setStopOnError(true);
    const auto small = MonoFrame(64, 48, 0);
    ASSERT_TRUE(recorder.PushFrame(small.data(), small.size()));
    recorder.Stop();
    EXPECT_EQ(sink.of(msg::kVideoResult), (std::vector<Posted>{{msg::kVideoResult, 0, 2}}));

    // Noise: enough output to pass the stream buffer within a few frames.
    ASSERT_TRUE(recorder.OpenEncoder("/dev/full", 320, 240, 0, 8, 30.0));
    cv::RNG rng(3);
    std::vector<uint8_t> frame(320 * 240);
    for (int i = 0; i < 300 && recorder.running(); ++i) {
        for (auto& v : frame) {
            v = static_cast<uint8_t>(rng.uniform(0, 256));
        }
        recorder.PushFrame(frame.data(), frame.size());
    }
    // The worker ends by itself: no Stop before the result arrives.
    ASSERT_TRUE(sink.waitFor(msg::kVideoResult, 2));
    EXPECT_FALSE(recorder.running());
    recorder.Stop();
    EXPECT_EQ(recorder.result(), video::kWriteFailed);
    EXPECT_EQ(sink.of(msg::kVideoResult), (std::vector<Posted>(2, {msg::kVideoResult, 0, 2})));
    struct stat st {};
    ASSERT_EQ(stat("/dev/full", &st), 0);
    EXPECT_TRUE(S_ISCHR(st.st_mode));
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
