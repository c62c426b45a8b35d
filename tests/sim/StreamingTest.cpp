// Streaming on the manual clock: every frame, lost frame and signal edge comes when the test moves
// the clock, so the sequences below are exact. These tests run the board's own thread.
#include <gtest/gtest.h>

#include <jpeglib.h>

#include <atomic>
#include <cstring>
#include <mutex>
#include <thread>

#include "Board.h"
#include "OrvixBoard.h"
#include "PatternGenerator.h"
#include "TestSupport.h"

namespace orvix::sim {
namespace {

using std::chrono::milliseconds;

struct DeliveredFrame {
    uint32_t buffer;
    OrvixBufferStatus status;
    std::vector<uint8_t> pixels;
};

// Plays the application's frame-ready handler: reads buffers in ring order, as the grab engine
// does.
class Consumer {
  public:
    explicit Consumer(Board& board) : board_(board) {}

    void attach() {
        for (uint32_t e : {1u, 2u, 3u, 4u}) {
            ASSERT_TRUE(board_.registerCallback(e, &Consumer::onEvent, this).ok());
        }
    }

    static void onEvent(uint32_t event, void* context) {
        auto* self = static_cast<Consumer*>(context);
        std::lock_guard lock(self->mutex_);
        self->events_.push_back(event);
        self->threads_.push_back(std::this_thread::get_id());
        if (event != ORVIX_EVENT_FRAME_READY) {
            return;
        }
        uint32_t count = 0;
        self->board_.getInfo(ORVIX_BUFFER_COUNT, count);
        DeliveredFrame f{self->next_ % count, {}, {}};
        ++self->next_;
        self->board_.bufferStatus(f.buffer, f.status);
        void* address = nullptr;
        self->board_.bufferAddress(f.buffer, address);
        uint32_t size = 0;
        self->board_.getInfo(ORVIX_FRAME_SIZE, size);
        if (self->board_.config().modelCode() == 10 && f.status.compressedSize != 0) {
            size = static_cast<uint32_t>(f.status.compressedSize);
        }
        const auto* bytes = static_cast<const uint8_t*>(address);
        f.pixels.assign(bytes, bytes + size);
        self->frames_.push_back(std::move(f));
    }

    std::vector<uint32_t> events() const {
        std::lock_guard lock(mutex_);
        return events_;
    }
    std::vector<DeliveredFrame> frames() const {
        std::lock_guard lock(mutex_);
        return frames_;
    }
    size_t count(uint32_t event) const {
        std::lock_guard lock(mutex_);
        return static_cast<size_t>(std::count(events_.begin(), events_.end(), event));
    }
    // A new grab starts again at buffer 0, as the application's handler does.
    void restart() {
        std::lock_guard lock(mutex_);
        next_ = 0;
    }
    std::vector<std::thread::id> threads() const {
        std::lock_guard lock(mutex_);
        return threads_;
    }

  private:
    Board& board_;
    mutable std::mutex mutex_;
    std::vector<uint32_t> events_;
    std::vector<std::thread::id> threads_;
    std::vector<DeliveredFrame> frames_;
    uint32_t next_ = 0;
};

class StreamingThreadTest : public ::testing::Test {
  protected:
    void open(const BoardConfig& config) {
        board_ = std::make_unique<Board>(config);
        ASSERT_TRUE(board_->streamer().setManualClock(true).ok());
        consumer_ = std::make_unique<Consumer>(*board_);
        consumer_->attach();
    }

    std::vector<uint8_t> expectedFrame(uint64_t number) const {
        FrameFormat f;
        f.width = board_->config().width;
        f.height = board_->config().height;
        f.imageType = board_->config().imageType;
        f.bits = board_->config().dataFormat;
        f.bayer = board_->config().bayer;
        PatternGenerator g(f, board_->config().pattern,
                           board_->config().level.value_or(PatternGenerator::halfRange(f)),
                           board_->config().defects);
        std::vector<uint8_t> out(f.frameBytes());
        g.render(number, out.data());
        return out;
    }

    uint32_t info(uint32_t id) {
        uint32_t v = 0;
        EXPECT_TRUE(board_->getInfo(id, v).ok()) << std::hex << id;
        return v;
    }

    std::unique_ptr<Board> board_;
    std::unique_ptr<Consumer> consumer_;
};

TEST_F(StreamingThreadTest, ContinuousGrabDeliversExactFramesInRingOrder) {
    BoardConfig c = test::smallBoard();
    c.buffers = 4;
    open(c);
    ASSERT_TRUE(board_->startGrab(0).ok());
    EXPECT_EQ(info(ORVIX_BOARD_STATE), 1u);
    EXPECT_TRUE(consumer_->events().empty()) << "no frame before the clock moves";
    ASSERT_TRUE(board_->streamer().advanceFrames(10).ok());

    std::vector<uint32_t> expected;
    for (int i = 0; i < 10; ++i) {
        expected.push_back(ORVIX_EVENT_FRAME_START);
        expected.push_back(ORVIX_EVENT_FRAME_READY);
    }
    EXPECT_EQ(consumer_->events(), expected);
    auto frames = consumer_->frames();
    ASSERT_EQ(frames.size(), 10u);
    for (uint32_t k = 0; k < 10; ++k) {
        const DeliveredFrame& f = frames[k];
        EXPECT_EQ(f.buffer, k % 4);
        EXPECT_EQ(f.status.ready, 1u);
        EXPECT_EQ(f.status.overflow, 0u);
        EXPECT_EQ(f.status.incomplete, 0u);
        EXPECT_EQ(f.status.frameNumber, k);
        EXPECT_DOUBLE_EQ(f.status.time,
                         static_cast<double>(Period::perSecond(60).times(k + 1).count()) / 1e9);
        EXPECT_EQ(f.pixels, expectedFrame(k)) << "frame " << k;
    }
    for (std::thread::id t : consumer_->threads()) {
        EXPECT_NE(t, std::this_thread::get_id()) << "callbacks run on the board's own thread";
    }
    EXPECT_EQ(info(ORVIX_FRAME_LOST), 0u);
    double rate = board_->frameRate();
    EXPECT_NEAR(rate, 60.0, 1e-3);
    ASSERT_TRUE(board_->stopGrab().ok());
    EXPECT_EQ(info(ORVIX_BOARD_STATE), 0u);
    EXPECT_EQ(board_->frameRate(), 0.0);
    EXPECT_EQ(board_->streamer().advanceFrames(1).code, ORVIX_ERR_NOT_GRABBING);
}

TEST_F(StreamingThreadTest, AConsumerAWholeRingBehindLosesTheOldestFrames) {
    BoardConfig c = test::smallBoard();
    c.buffers = 8;
    open(c);
    ASSERT_TRUE(board_->startGrab(0).ok());
    // 20 frame periods pass before the board gets to deliver anything.
    ASSERT_TRUE(board_->streamer().advanceTime(Period::perSecond(60).times(20)).ok());
    EXPECT_EQ(info(ORVIX_FRAME_LOST), 12u);
    EXPECT_EQ(consumer_->count(ORVIX_EVENT_FRAME_LOST), 12u);
    auto frames = consumer_->frames();
    ASSERT_EQ(frames.size(), 8u);
    for (uint32_t i = 0; i < 8; ++i) {
        EXPECT_EQ(frames[i].buffer, i) << "the survivors fill the ring from its start";
        EXPECT_EQ(frames[i].status.frameNumber, 12 + i);
        EXPECT_EQ(frames[i].pixels, expectedFrame(12 + i));
    }
    // Exactly a ring behind loses nothing.
    ASSERT_TRUE(board_->streamer()
                    .advanceTime(Period::perSecond(60).times(28) - Period::perSecond(60).times(20))
                    .ok());
    EXPECT_EQ(info(ORVIX_FRAME_LOST), 12u);
    EXPECT_EQ(consumer_->frames().size(), 16u);
}

TEST_F(StreamingThreadTest, TimedOutFramesStartButNeverComplete) {
    BoardConfig c = test::smallBoard();
    c.timeoutEvery = 3;
    open(c);
    ASSERT_TRUE(board_->startGrab(0).ok());
    ASSERT_TRUE(board_->streamer().advanceFrames(6).ok());
    EXPECT_EQ(consumer_->events(), (std::vector<uint32_t>{4, 1, 4, 1, 4, 2, 4, 1, 4, 1, 4, 2}));
    auto frames = consumer_->frames();
    ASSERT_EQ(frames.size(), 4u);
    const uint32_t numbers[] = {0, 1, 3, 4};
    for (uint32_t i = 0; i < 4; ++i) {
        EXPECT_EQ(frames[i].buffer, i) << "a timed-out frame takes no buffer";
        EXPECT_EQ(frames[i].status.frameNumber, numbers[i]);
    }
}

TEST_F(StreamingThreadTest, SingleShotReturnsWithTheFrameInBufferZero) {
    BoardConfig c = test::smallBoard();
    c.pattern = Pattern::Checker;
    open(c);
    ASSERT_TRUE(board_->startGrab(1).ok());
    EXPECT_EQ(info(ORVIX_BOARD_STATE), 0u) << "a single shot is over when it returns";
    EXPECT_EQ(consumer_->events(), (std::vector<uint32_t>{4, 1}));
    OrvixBufferStatus s{};
    ASSERT_TRUE(board_->bufferStatus(0, s).ok());
    EXPECT_EQ(s.ready, 1u);
    EXPECT_EQ(s.frameNumber, 0u);
    void* address = nullptr;
    ASSERT_TRUE(board_->bufferAddress(0, address).ok());
    auto expected = expectedFrame(0);
    EXPECT_EQ(std::memcmp(address, expected.data(), expected.size()), 0);
    // Each single shot starts over in buffer 0.
    ASSERT_TRUE(board_->startGrab(1).ok());
    ASSERT_TRUE(board_->bufferStatus(0, s).ok());
    EXPECT_EQ(s.frameNumber, 0u);
    EXPECT_EQ(consumer_->frames().size(), 2u);
}

TEST_F(StreamingThreadTest, SingleShotFailuresCarryTheirCodes) {
    for (uint32_t code : {40u, 42u, 77u}) {
        BoardConfig c = test::smallBoard();
        c.singleShotError = code;
        open(c);
        Status s = board_->startGrab(1);
        EXPECT_EQ(s.code, static_cast<int32_t>(code));
        EXPECT_EQ(info(ORVIX_BOARD_STATE), 0u);
        EXPECT_TRUE(board_->startGrab(0).ok()) << "continuous grabs are not affected";
        board_->stopGrab();
    }
    BoardConfig c = test::smallBoard();
    c.timeoutEvery = 1;
    open(c);
    EXPECT_EQ(board_->startGrab(1).code, ORVIX_ERR_TIMEOUT);
    EXPECT_EQ(consumer_->events(), (std::vector<uint32_t>{4, 2}));
}

TEST_F(StreamingThreadTest, ALimitedGrabEndsByItself) {
    open(test::smallBoard());
    ASSERT_TRUE(board_->startGrab(3).ok());
    EXPECT_EQ(board_->streamer().advanceFrames(5).code, ORVIX_ERR_NOT_GRABBING);
    EXPECT_EQ(consumer_->frames().size(), 3u);
    EXPECT_EQ(info(ORVIX_BOARD_STATE), 0u);
}

TEST_F(StreamingThreadTest, GrabsRefuseToOverlapAndFrozenParametersWait) {
    open(test::smallBoard());
    ASSERT_TRUE(board_->startGrab(0).ok());
    EXPECT_EQ(board_->startGrab(0).code, ORVIX_ERR_GRAB_RUNNING);
    EXPECT_EQ(board_->startGrab(1).code, ORVIX_ERR_GRAB_RUNNING);
    EXPECT_EQ(board_->setInfo(ORVIX_IMAGE_WIDTH, 32).code, ORVIX_ERR_GRAB_RUNNING);
    EXPECT_EQ(board_->setInfo(ORVIX_DATA_FORMAT, 12).code, ORVIX_ERR_GRAB_RUNNING);
    EXPECT_EQ(board_->setInfo(ORVIX_BUFFER_COUNT, 2).code, ORVIX_ERR_GRAB_RUNNING);
    EXPECT_TRUE(board_->setInfo(ORVIX_STROBE_PARAM1, 5).ok()) << "other parameters stay writable";
    EXPECT_EQ(info(ORVIX_IMAGE_WIDTH), 64u);
    test::TempDir dir;
    ASSERT_TRUE(board_->saveConfiguration(dir.file("a.vlcf")).ok());
    EXPECT_EQ(board_->loadConfiguration(dir.file("a.vlcf")).code, ORVIX_ERR_GRAB_RUNNING);
    EXPECT_EQ(board_->streamer().setManualClock(false).code, ORVIX_ERR_GRAB_RUNNING);
    ASSERT_TRUE(board_->stopGrab().ok());
    EXPECT_TRUE(board_->setInfo(ORVIX_IMAGE_WIDTH, 32).ok());
}

TEST_F(StreamingThreadTest, ANewGeometryResizesTheRing) {
    BoardConfig c = test::smallBoard(64, 48);
    c.buffers = 2;
    open(c);
    ASSERT_TRUE(board_->setInfo(ORVIX_IMAGE_TYPE, 1).ok());
    ASSERT_TRUE(board_->setInfo(ORVIX_DATA_FORMAT, 10).ok());
    ASSERT_TRUE(board_->setInfo(ORVIX_BUFFER_COUNT, 3).ok());
    ASSERT_TRUE(board_->startGrab(0).ok());
    ASSERT_TRUE(board_->streamer().advanceFrames(3).ok());
    auto frames = consumer_->frames();
    ASSERT_EQ(frames.size(), 3u);
    EXPECT_EQ(frames[2].buffer, 2u);
    EXPECT_EQ(frames[2].pixels.size(), 64u * 48u * 3u * 2u);
    void* address = nullptr;
    EXPECT_EQ(board_->bufferAddress(3, address).code, ORVIX_ERR_INVALID_ARGUMENT);
}

TEST_F(StreamingThreadTest, StopFailuresLeaveTheGrabRunning) {
    BoardConfig c = test::smallBoard();
    c.stopFailures = 2;
    open(c);
    ASSERT_TRUE(board_->startGrab(0).ok());
    EXPECT_EQ(board_->stopGrab().code, ORVIX_ERR_STOP_FAILED);
    EXPECT_EQ(board_->stopGrab().code, ORVIX_ERR_STOP_FAILED);
    EXPECT_EQ(info(ORVIX_BOARD_STATE), 1u);
    ASSERT_TRUE(board_->streamer().advanceFrames(1).ok()) << "still delivering";
    EXPECT_TRUE(board_->stopGrab().ok());
    EXPECT_EQ(info(ORVIX_BOARD_STATE), 0u);
    EXPECT_TRUE(board_->stopGrab().ok()) << "stopping an idle board succeeds";
    // The failures come again with the next grab.
    ASSERT_TRUE(board_->startGrab(0).ok());
    EXPECT_EQ(board_->stopGrab().code, ORVIX_ERR_STOP_FAILED);
}

TEST_F(StreamingThreadTest, TheCameraSignalIsLostAfterTheConfiguredTime) {
    BoardConfig c = test::smallBoard();
    c.signalLossAfterMs = 100;
    open(c);
    EXPECT_EQ(board_->cameraStatus(), 0x7);
    ASSERT_TRUE(board_->startGrab(0).ok());
    ASSERT_TRUE(board_->streamer().advanceTime(milliseconds(99)).ok());
    EXPECT_EQ(board_->cameraStatus(), 0x7);
    ASSERT_TRUE(board_->streamer().advanceTime(milliseconds(1)).ok());
    EXPECT_EQ(board_->cameraStatus(), 0);
    // Frames due before 100 ms (at 16.7, 33.3, 50, 66.7 and 83.3 ms) came; none after.
    EXPECT_EQ(consumer_->frames().size(), 5u);
    ASSERT_TRUE(board_->streamer().advanceTime(milliseconds(2000)).ok());
    EXPECT_EQ(consumer_->frames().size(), 5u);
    EXPECT_EQ(board_->streamer().advanceFrames(1).code, ORVIX_ERR_REFUSED);
    EXPECT_EQ(board_->frameRate(), 0.0) << "a silent stream shows no rate";
    ASSERT_TRUE(board_->stopGrab().ok());
    EXPECT_EQ(board_->cameraStatus(), 0x7);
}

TEST_F(StreamingThreadTest, CoaXPressStatusShowsLinkAndSpeed) {
    BoardConfig c = defaultBoard(1);
    c.width = 32;
    c.height = 8;
    c.cxpSpeed = 3;
    c.signalLossAfterMs = 10;
    open(c);
    EXPECT_EQ(board_->cameraStatus(), 0x13);
    ASSERT_TRUE(board_->startGrab(0).ok());
    ASSERT_TRUE(board_->streamer().advanceTime(milliseconds(10)).ok());
    EXPECT_EQ(board_->cameraStatus(), 0);
}

TEST_F(StreamingThreadTest, LineScanIsPacedByTheLineRateAndReportsLines) {
    BoardConfig c = test::smallBoard(64, 100);
    c.scanType = 1;
    c.lineRate = 5000;  // 100 lines: 50 frames per second
    open(c);
    ASSERT_TRUE(board_->startGrab(0).ok());
    ASSERT_TRUE(board_->streamer().advanceTime(milliseconds(100)).ok());
    EXPECT_EQ(consumer_->frames().size(), 5u);
    EXPECT_NEAR(board_->frameRate(), 5000.0, 1e-6);
}

TEST_F(StreamingThreadTest, TriggerModeWaitsForSoftwareTriggers) {
    open(test::smallBoard());
    ASSERT_TRUE(board_->setInfo(ORVIX_BOARD_TRIGGER_MODE, 1).ok());
    ASSERT_TRUE(board_->setInfo(ORVIX_BOARD_TRIGGER_FRAME_COUNT, 3).ok());
    ASSERT_TRUE(board_->startGrab(0).ok());
    ASSERT_TRUE(board_->streamer().advanceTime(milliseconds(1000)).ok());
    EXPECT_TRUE(consumer_->frames().empty());
    EXPECT_EQ(board_->streamer().advanceFrames(1).code, ORVIX_ERR_REFUSED);

    ASSERT_TRUE(board_->setInfo(ORVIX_SOFTWARE_TRIGGER_FIRE, 1).ok());
    ASSERT_TRUE(board_->streamer().advanceTime(Nanos{0}).ok());
    EXPECT_EQ(consumer_->frames().size(), 1u) << "the first frame comes with the trigger";
    ASSERT_TRUE(board_->streamer().advanceFrames(2).ok());
    EXPECT_EQ(consumer_->frames().size(), 3u);
    EXPECT_EQ(board_->streamer().advanceFrames(1).code, ORVIX_ERR_REFUSED) << "burst over";
    EXPECT_EQ(info(ORVIX_SOFTWARE_TRIGGER_FIRE), 0u);
    EXPECT_EQ(board_->setInfo(ORVIX_SOFTWARE_TRIGGER_FIRE, 2).code, ORVIX_ERR_OUT_OF_RANGE);
    auto frames = consumer_->frames();
    EXPECT_DOUBLE_EQ(frames[0].status.time, 1.0);
}

// Waits (without sleeping) until the board reports a running grab.
void waitGrabbing(Board& board) {
    uint32_t state = 0;
    while (board.getInfo(ORVIX_BOARD_STATE, state).ok() && state == 0) {
        std::this_thread::yield();
    }
}

TEST_F(StreamingThreadTest, TriggeredSingleShotCompletesOnTheTrigger) {
    open(test::smallBoard());
    ASSERT_TRUE(board_->setInfo(ORVIX_BOARD_TRIGGER_MODE, 1).ok());
    std::thread trigger([&] {
        waitGrabbing(*board_);
        board_->setInfo(ORVIX_SOFTWARE_TRIGGER_FIRE, 1);
    });
    Status s = board_->startGrab(1);
    trigger.join();
    EXPECT_TRUE(s.ok()) << s.text;
    EXPECT_EQ(consumer_->frames().size(), 1u);
}

TEST_F(StreamingThreadTest, TriggeredSingleShotTimesOutOnTheBoardClock) {
    open(test::smallBoard());
    ASSERT_TRUE(board_->setInfo(ORVIX_BOARD_TRIGGER_MODE, 1).ok());
    ASSERT_TRUE(board_->setInfo(ORVIX_EXTERNAL_TRIGGER_TIMEOUT, 250).ok());
    std::thread clock([&] {
        waitGrabbing(*board_);
        board_->streamer().advanceTime(milliseconds(249));
        board_->streamer().advanceTime(milliseconds(1));
    });
    Status s = board_->startGrab(1);
    clock.join();
    EXPECT_EQ(s.code, ORVIX_ERR_TIMEOUT);
    EXPECT_TRUE(consumer_->frames().empty());
    EXPECT_EQ(info(ORVIX_BOARD_STATE), 0u);
}

TEST_F(StreamingThreadTest, StoppingAWaitingSingleShotAbortsIt) {
    open(test::smallBoard());
    ASSERT_TRUE(board_->setInfo(ORVIX_BOARD_TRIGGER_MODE, 1).ok());
    ASSERT_TRUE(board_->setInfo(ORVIX_EXTERNAL_TRIGGER_TIMEOUT, 0).ok());
    std::atomic<int32_t> secondStart{0};
    std::thread stopper([&] {
        waitGrabbing(*board_);
        secondStart = board_->startGrab(1).code;
        board_->stopGrab();
    });
    Status s = board_->startGrab(1);
    stopper.join();
    EXPECT_EQ(secondStart, ORVIX_ERR_SINGLE_SHOT_RUNNING);
    EXPECT_EQ(s.code, ORVIX_ERR_GRAB_ABORTED);
}

struct StopInside {
    Board* board;
    int frames = 0;
    Status stop;
};

TEST_F(StreamingThreadTest, ACallbackMayStopTheGrab) {
    open(test::smallBoard());
    StopInside ctx{board_.get(), 0, {}};
    ASSERT_TRUE(board_
                    ->registerCallback(
                        ORVIX_EVENT_FRAME_READY,
                        [](uint32_t, void* c) {
                            auto* self = static_cast<StopInside*>(c);
                            if (++self->frames == 3) {
                                self->stop = self->board->stopGrab();
                            }
                        },
                        &ctx)
                    .ok());
    ASSERT_TRUE(board_->startGrab(0).ok());
    EXPECT_EQ(board_->streamer().advanceFrames(5).code, ORVIX_ERR_NOT_GRABBING);
    EXPECT_TRUE(ctx.stop.ok());
    EXPECT_EQ(ctx.frames, 3);
    ASSERT_TRUE(board_->startGrab(0).ok()) << "a new grab starts after a stop from a callback";
    ASSERT_TRUE(board_->streamer().advanceFrames(1).ok());
}

TEST_F(StreamingThreadTest, SignalsEdgeOnlyWhileWatchedAndTheCountersAgree) {
    BoardConfig c = test::smallBoard();
    c.signalRates = {};
    c.signalRates[1] = 100;   // General Input 1
    c.signalRates[3] = 1000;  // Shaft Encoder A
    open(c);
    test::EventRecorder rising, falling, encoder;
    const uint32_t input1Rising = ORVIX_SIGNAL_GENERAL_INPUT1 | ORVIX_SIGNAL_RISING_EDGE;
    const uint32_t input1Falling = ORVIX_SIGNAL_GENERAL_INPUT1 | ORVIX_SIGNAL_FALLING_EDGE;
    const uint32_t encoderRising = ORVIX_SIGNAL_SHAFT_ENCODER_A | ORVIX_SIGNAL_RISING_EDGE;

    ASSERT_TRUE(board_->streamer().advanceTime(milliseconds(100)).ok());
    ASSERT_TRUE(board_->setInfo(ORVIX_SIGNAL_COUNTER_CONTROL, 0).ok());
    ASSERT_TRUE(
        board_->registerCallback(input1Rising, test::EventRecorder::callback, &rising).ok());
    ASSERT_TRUE(
        board_->registerCallback(encoderRising, test::EventRecorder::callback, &encoder).ok());
    ASSERT_TRUE(board_->streamer().advanceTime(milliseconds(1000)).ok());
    EXPECT_EQ(rising.count(input1Rising), 100u);
    EXPECT_EQ(encoder.count(encoderRising), 1000u);
    EXPECT_EQ(info(ORVIX_SIGNAL_COUNTER_BASE + 1), 100u);
    EXPECT_EQ(info(ORVIX_SIGNAL_COUNTER_BASE + 3), 1000u);
    EXPECT_EQ(info(ORVIX_SIGNAL_COUNTER_BASE + 2), 0u) << "an unwatched signal stays silent";

    ASSERT_TRUE(
        board_->registerCallback(input1Falling, test::EventRecorder::callback, &falling).ok());
    ASSERT_TRUE(board_->setInfo(ORVIX_SIGNAL_COUNTER_CONTROL, 1).ok());
    ASSERT_TRUE(board_->streamer().advanceTime(milliseconds(100)).ok());
    EXPECT_EQ(falling.count(input1Falling), 10u);
    EXPECT_EQ(rising.count(input1Rising), 110u);
    EXPECT_EQ(info(ORVIX_SIGNAL_COUNTER_BASE + 1), 100u) << "held";
    EXPECT_EQ(info(ORVIX_SIGNAL_COUNTER_CONTROL), 1u);

    ASSERT_TRUE(board_->setInfo(ORVIX_SIGNAL_COUNTER_CONTROL, 0).ok());
    EXPECT_EQ(info(ORVIX_SIGNAL_COUNTER_BASE + 1), 0u) << "0 clears";
    ASSERT_TRUE(board_->unregisterCallback(input1Rising).ok());
    ASSERT_TRUE(board_->unregisterCallback(input1Falling).ok());
    ASSERT_TRUE(board_->unregisterCallback(encoderRising).ok());
    ASSERT_TRUE(board_->streamer().advanceTime(milliseconds(1000)).ok());
    EXPECT_EQ(rising.count(input1Rising), 110u);
    EXPECT_EQ(info(ORVIX_SIGNAL_COUNTER_BASE + 1), 0u);
    EXPECT_EQ(board_->setInfo(ORVIX_SIGNAL_COUNTER_BASE + 1, 0).code, ORVIX_ERR_REFUSED);
    EXPECT_EQ(board_->setInfo(ORVIX_FRAME_LOST, 0).code, ORVIX_ERR_REFUSED);
}

TEST_F(StreamingThreadTest, ModelTenBoardsDeliverJpegFrames) {
    BoardConfig c = defaultBoard(1);
    c.width = 64;
    c.height = 48;
    c.dataFormat = 8;
    c.pattern = Pattern::Gradient;
    open(c);
    ASSERT_TRUE(board_->setInfo(ORVIX_JPEG_COMPRESS_ENABLE, 1).ok());
    ASSERT_TRUE(board_->setInfo(ORVIX_JPEG_COMPRESS_QUALITY, 95).ok());
    ASSERT_TRUE(board_->startGrab(1).ok());
    auto frames = consumer_->frames();
    ASSERT_EQ(frames.size(), 1u);
    const OrvixBufferStatus& s = frames[0].status;
    EXPECT_EQ(s.ready, 1u);
    ASSERT_GT(s.compressedSize, 0u);
    EXPECT_LT(s.compressedSize, 64u * 48u);
    const auto& jpeg = frames[0].pixels;
    ASSERT_EQ(jpeg.size(), s.compressedSize);
    EXPECT_EQ(jpeg[0], 0xFF);
    EXPECT_EQ(jpeg[1], 0xD8);
    EXPECT_EQ(jpeg[jpeg.size() - 2], 0xFF);
    EXPECT_EQ(jpeg[jpeg.size() - 1], 0xD9);

    jpeg_decompress_struct cinfo{};
    jpeg_error_mgr err{};
    cinfo.err = jpeg_std_error(&err);
    jpeg_create_decompress(&cinfo);
    jpeg_mem_src(&cinfo, jpeg.data(), static_cast<unsigned long>(jpeg.size()));
    ASSERT_EQ(jpeg_read_header(&cinfo, TRUE), JPEG_HEADER_OK);
    EXPECT_EQ(cinfo.image_width, 64u);
    EXPECT_EQ(cinfo.image_height, 48u);
    EXPECT_EQ(cinfo.num_components, 1);
    jpeg_destroy_decompress(&cinfo);

    // Without compression the same board delivers raw frames with no compressed size.
    ASSERT_TRUE(board_->setInfo(ORVIX_JPEG_COMPRESS_ENABLE, 0).ok());
    consumer_->restart();
    ASSERT_TRUE(board_->startGrab(1).ok());
    frames = consumer_->frames();
    EXPECT_EQ(frames[1].status.compressedSize, 0u);
    EXPECT_EQ(frames[1].pixels, expectedFrame(0));
}

TEST_F(StreamingThreadTest, TheManualClockIsOnlyMovedWhenOn) {
    board_ = std::make_unique<Board>(test::smallBoard());
    EXPECT_EQ(board_->streamer().advanceFrames(1).code, ORVIX_ERR_REFUSED);
    EXPECT_EQ(board_->streamer().advanceTime(milliseconds(1)).code, ORVIX_ERR_REFUSED);
    ASSERT_TRUE(board_->streamer().setManualClock(true).ok());
    EXPECT_EQ(board_->streamer().now(), Nanos{0});
    EXPECT_EQ(board_->streamer().advanceFrames(1).code, ORVIX_ERR_NOT_GRABBING);
    ASSERT_TRUE(board_->streamer().advanceTime(milliseconds(5)).ok());
    EXPECT_EQ(board_->streamer().now(), Nanos{milliseconds(5)});
}

}  // namespace
}  // namespace orvix::sim
