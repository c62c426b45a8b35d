// Streaming on the manual clock: every frame, lost frame and signal edge comes when the test moves
// the clock, so the sequences below are exact. These tests run the board's own thread.
#include <gtest/gtest.h>

#include <atomic>
#include <cstring>
#include <functional>
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

// Records every frame event, with its thread, and plays the application's frame-ready handler:
// it reads buffers in ring order, as the grab engine does.
class Consumer {
  public:
    explicit Consumer(Board& board) : board_(board) {
        for (uint32_t e : {1u, 2u, 3u, 4u}) {
            EXPECT_TRUE(board_.registerCallback(e, &Consumer::onEvent, this).ok());
        }
    }

    static void onEvent(uint32_t event, void* context) {
        auto* self = static_cast<Consumer*>(context);
        test::EventRecorder::callback(event, &self->events);
        if (event != ORVIX_EVENT_FRAME_READY) {
            return;
        }
        if (self->slow) {
            // A consumer far slower than the camera (a whole ring takes 16 ms at 60 fps).
            std::this_thread::sleep_for(std::chrono::milliseconds(3));
        }
        std::lock_guard lock(self->mutex_);
        Board& b = self->board_;
        DeliveredFrame f{self->next_++ % test::got(b, ORVIX_BUFFER_COUNT), {}, {}};
        b.bufferStatus(f.buffer, f.status);
        void* address = nullptr;
        b.bufferAddress(f.buffer, address);
        const uint64_t size =
            f.status.compressedSize != 0 ? f.status.compressedSize : test::got(b, ORVIX_FRAME_SIZE);
        const auto* bytes = static_cast<const uint8_t*>(address);
        f.pixels.assign(bytes, bytes + size);
        self->frames_.push_back(std::move(f));
    }

    std::vector<DeliveredFrame> frames() const {
        std::lock_guard lock(mutex_);
        return frames_;
    }
    // A new grab starts again at buffer 0, as the application's handler does.
    void restart() {
        std::lock_guard lock(mutex_);
        next_ = 0;
    }

    test::EventRecorder events;
    std::atomic<bool> slow{false};

  private:
    Board& board_;
    mutable std::mutex mutex_;
    std::vector<DeliveredFrame> frames_;
    uint32_t next_ = 0;
};

class StreamingThreadTest : public ::testing::Test {
  protected:
    void open(const BoardConfig& config) {
        board_ = std::make_unique<Board>(config);
        ASSERT_TRUE(board_->streamer().setManualClock(true).ok());
        consumer_ = std::make_unique<Consumer>(*board_);
    }
    // A small board, changed by `adjust`.
    void openSmall(const std::function<void(BoardConfig&)>& adjust = {}) {
        BoardConfig c = test::smallBoard();
        if (adjust) {
            adjust(c);
        }
        open(c);
    }
    void openTriggered() {
        openSmall();
        ASSERT_TRUE(board_->setInfo(ORVIX_BOARD_TRIGGER_MODE, 1).ok());
    }

    std::vector<uint8_t> expectedFrame(uint64_t number) const {
        const BoardConfig& c = board_->config();
        const FrameFormat f = test::fmt(c.width, c.height, c.imageType, c.dataFormat, c.bayer);
        const uint32_t level = c.level.value_or(PatternGenerator::halfRange(f));
        return test::renderFrame(PatternGenerator(f, c.pattern, level, c.defects), number);
    }

    uint32_t info(uint32_t id) { return test::got(*board_, id); }
    Status advanceFrames(uint32_t n) { return board_->streamer().advanceFrames(n); }
    Status advanceTime(Nanos step) { return board_->streamer().advanceTime(step); }
    std::vector<uint32_t> events() const { return consumer_->events.events(); }
    size_t frameCount() const { return consumer_->frames().size(); }

    std::unique_ptr<Board> board_;
    std::unique_ptr<Consumer> consumer_;
};

TEST_F(StreamingThreadTest, ContinuousGrabDeliversExactFramesInRingOrder) {
    openSmall([](BoardConfig& c) { c.buffers = 4; });
    ASSERT_TRUE(board_->startGrab(0).ok());
    EXPECT_EQ(info(ORVIX_BOARD_STATE), 1u);
    EXPECT_TRUE(events().empty()) << "no frame before the clock moves";
    ASSERT_TRUE(advanceFrames(10).ok());

    std::vector<uint32_t> expected;
    for (int i = 0; i < 10; ++i) {
        expected.insert(expected.end(), {ORVIX_EVENT_FRAME_START, ORVIX_EVENT_FRAME_READY});
    }
    EXPECT_EQ(events(), expected);
    auto frames = consumer_->frames();
    ASSERT_EQ(frames.size(), 10u);
    for (uint32_t k = 0; k < 10; ++k) {
        SCOPED_TRACE(k);
        const OrvixBufferStatus& s = frames[k].status;
        EXPECT_EQ(frames[k].buffer, k % 4);
        EXPECT_EQ(s.ready, 1u);
        EXPECT_EQ(s.overflow, 0u);
        EXPECT_EQ(s.incomplete, 0u);
        EXPECT_EQ(s.frameNumber, k);
        EXPECT_DOUBLE_EQ(s.time,
                         static_cast<double>(Period::perSecond(60).times(k + 1).count()) / 1e9);
        EXPECT_EQ(frames[k].pixels, expectedFrame(k));
    }
    for (const test::RecordedEvent& e : consumer_->events.all()) {
        EXPECT_NE(e.thread, std::this_thread::get_id()) << "callbacks run on the board's thread";
    }
    EXPECT_EQ(info(ORVIX_FRAME_LOST), 0u);
    EXPECT_NEAR(board_->frameRate(), 60.0, 1e-3);
    ASSERT_TRUE(board_->stopGrab().ok());
    EXPECT_EQ(info(ORVIX_BOARD_STATE), 0u);
    EXPECT_EQ(board_->frameRate(), 0.0);
    EXPECT_EQ(advanceFrames(1).code, ORVIX_ERR_NOT_GRABBING);
}

// clock = virtual: time jumps to each frame as the last one is delivered, so even a consumer far
// slower than the camera loses nothing, and each frame carries its exact due time.
TEST_F(StreamingThreadTest, VirtualClockDeliversEveryFrameAtItsExactTime) {
    BoardConfig c = test::smallBoard();
    c.buffers = 4;
    c.virtualClock = true;
    board_ = std::make_unique<Board>(c);
    consumer_ = std::make_unique<Consumer>(*board_);
    consumer_->slow = true;
    ASSERT_TRUE(board_->startGrab(0).ok());
    while (frameCount() < 40) {
        std::this_thread::yield();
    }
    ASSERT_TRUE(board_->stopGrab().ok());
    EXPECT_EQ(info(ORVIX_FRAME_LOST), 0u);
    EXPECT_EQ(consumer_->events.count(ORVIX_EVENT_FRAME_LOST), 0u);
    const auto frames = consumer_->frames();
    for (uint32_t k = 0; k < 40; ++k) {
        SCOPED_TRACE(k);
        EXPECT_EQ(frames[k].status.frameNumber, k);
        EXPECT_DOUBLE_EQ(frames[k].status.time,
                         static_cast<double>(Period::perSecond(60).times(k + 1).count()) / 1e9);
    }
}

TEST_F(StreamingThreadTest, AConsumerAWholeRingBehindLosesTheOldestFrames) {
    openSmall([](BoardConfig& c) { c.buffers = 8; });
    ASSERT_TRUE(board_->startGrab(0).ok());
    // 20 frame periods pass before the board gets to deliver anything.
    ASSERT_TRUE(advanceTime(Period::perSecond(60).times(20)).ok());
    EXPECT_EQ(info(ORVIX_FRAME_LOST), 12u);
    EXPECT_EQ(consumer_->events.count(ORVIX_EVENT_FRAME_LOST), 12u);
    auto frames = consumer_->frames();
    ASSERT_EQ(frames.size(), 8u);
    for (uint32_t i = 0; i < 8; ++i) {
        EXPECT_EQ(frames[i].buffer, i) << "the survivors fill the ring from its start";
        EXPECT_EQ(frames[i].status.frameNumber, 12 + i);
        EXPECT_EQ(frames[i].pixels, expectedFrame(12 + i));
    }
    // Exactly a ring behind loses nothing.
    ASSERT_TRUE(
        advanceTime(Period::perSecond(60).times(28) - Period::perSecond(60).times(20)).ok());
    EXPECT_EQ(info(ORVIX_FRAME_LOST), 12u);
    EXPECT_EQ(frameCount(), 16u);
}

TEST_F(StreamingThreadTest, TimedOutFramesStartButNeverComplete) {
    openSmall([](BoardConfig& c) { c.timeoutEvery = 3; });
    ASSERT_TRUE(board_->startGrab(0).ok());
    ASSERT_TRUE(advanceFrames(6).ok());
    EXPECT_EQ(events(), (std::vector<uint32_t>{4, 1, 4, 1, 4, 2, 4, 1, 4, 1, 4, 2}));
    auto frames = consumer_->frames();
    ASSERT_EQ(frames.size(), 4u);
    const uint32_t numbers[] = {0, 1, 3, 4};
    for (uint32_t i = 0; i < 4; ++i) {
        EXPECT_EQ(frames[i].buffer, i) << "a timed-out frame takes no buffer";
        EXPECT_EQ(frames[i].status.frameNumber, numbers[i]);
    }
}

TEST_F(StreamingThreadTest, SingleShotReturnsWithTheFrameInBufferZero) {
    openSmall([](BoardConfig& c) { c.pattern = Pattern::Checker; });
    ASSERT_TRUE(board_->startGrab(1).ok());
    EXPECT_EQ(info(ORVIX_BOARD_STATE), 0u) << "a single shot is over when it returns";
    EXPECT_EQ(events(), (std::vector<uint32_t>{4, 1}));
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
    EXPECT_EQ(frameCount(), 2u);
}

TEST_F(StreamingThreadTest, SingleShotFailuresCarryTheirCodes) {
    for (uint32_t code : {40u, 42u, 77u}) {
        openSmall([code](BoardConfig& c) { c.singleShotError = code; });
        EXPECT_EQ(board_->startGrab(1).code, static_cast<int32_t>(code));
        EXPECT_EQ(info(ORVIX_BOARD_STATE), 0u);
        EXPECT_TRUE(board_->startGrab(0).ok()) << "continuous grabs are not affected";
        board_->stopGrab();
    }
    openSmall([](BoardConfig& c) { c.timeoutEvery = 1; });
    EXPECT_EQ(board_->startGrab(1).code, ORVIX_ERR_TIMEOUT);
    EXPECT_EQ(events(), (std::vector<uint32_t>{4, 2}));
}

TEST_F(StreamingThreadTest, ALimitedGrabEndsByItself) {
    openSmall();
    ASSERT_TRUE(board_->startGrab(3).ok());
    EXPECT_EQ(advanceFrames(5).code, ORVIX_ERR_NOT_GRABBING);
    EXPECT_EQ(frameCount(), 3u);
    EXPECT_EQ(info(ORVIX_BOARD_STATE), 0u);
}

TEST_F(StreamingThreadTest, GrabsRefuseToOverlapAndFrozenParametersWait) {
    openSmall();
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
    openSmall([](BoardConfig& c) { c.buffers = 2; });
    ASSERT_TRUE(board_->setInfo(ORVIX_IMAGE_TYPE, 1).ok());
    ASSERT_TRUE(board_->setInfo(ORVIX_DATA_FORMAT, 10).ok());
    ASSERT_TRUE(board_->setInfo(ORVIX_BUFFER_COUNT, 3).ok());
    ASSERT_TRUE(board_->startGrab(0).ok());
    ASSERT_TRUE(advanceFrames(3).ok());
    auto frames = consumer_->frames();
    ASSERT_EQ(frames.size(), 3u);
    EXPECT_EQ(frames[2].buffer, 2u);
    EXPECT_EQ(frames[2].pixels.size(), 64u * 48u * 3u * 2u);
    void* address = nullptr;
    EXPECT_EQ(board_->bufferAddress(3, address).code, ORVIX_ERR_INVALID_ARGUMENT);
}

TEST_F(StreamingThreadTest, StopFailuresLeaveTheGrabRunning) {
    openSmall([](BoardConfig& c) { c.stopFailures = 2; });
    ASSERT_TRUE(board_->startGrab(0).ok());
    EXPECT_EQ(board_->stopGrab().code, ORVIX_ERR_STOP_FAILED);
    EXPECT_EQ(board_->stopGrab().code, ORVIX_ERR_STOP_FAILED);
    EXPECT_EQ(info(ORVIX_BOARD_STATE), 1u);
    ASSERT_TRUE(advanceFrames(1).ok()) << "still delivering";
    EXPECT_TRUE(board_->stopGrab().ok());
    EXPECT_EQ(info(ORVIX_BOARD_STATE), 0u);
    EXPECT_TRUE(board_->stopGrab().ok()) << "stopping an idle board succeeds";
    // The failures come again with the next grab.
    ASSERT_TRUE(board_->startGrab(0).ok());
    EXPECT_EQ(board_->stopGrab().code, ORVIX_ERR_STOP_FAILED);
}

TEST_F(StreamingThreadTest, TheCameraSignalIsLostAfterTheConfiguredTime) {
    openSmall([](BoardConfig& c) { c.signalLossAfterMs = 100; });
    EXPECT_EQ(board_->cameraStatus(), 0x7);
    ASSERT_TRUE(board_->startGrab(0).ok());
    ASSERT_TRUE(advanceTime(milliseconds(99)).ok());
    EXPECT_EQ(board_->cameraStatus(), 0x7);
    ASSERT_TRUE(advanceTime(milliseconds(1)).ok());
    EXPECT_EQ(board_->cameraStatus(), 0);
    // Frames due before 100 ms (at 16.7, 33.3, 50, 66.7 and 83.3 ms) came; none after.
    EXPECT_EQ(frameCount(), 5u);
    ASSERT_TRUE(advanceTime(milliseconds(2000)).ok());
    EXPECT_EQ(frameCount(), 5u);
    EXPECT_EQ(advanceFrames(1).code, ORVIX_ERR_REFUSED);
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
    ASSERT_TRUE(advanceTime(milliseconds(10)).ok());
    EXPECT_EQ(board_->cameraStatus(), 0);
}

TEST_F(StreamingThreadTest, LineScanIsPacedByTheLineRateAndReportsLines) {
    openSmall([](BoardConfig& c) {
        c.height = 100;
        c.scanType = 1;
        c.lineRate = 5000;  // 100 lines: 50 frames per second
    });
    ASSERT_TRUE(board_->startGrab(0).ok());
    ASSERT_TRUE(advanceTime(milliseconds(100)).ok());
    EXPECT_EQ(frameCount(), 5u);
    EXPECT_NEAR(board_->frameRate(), 5000.0, 1e-6);
}

TEST_F(StreamingThreadTest, TriggerModeWaitsForSoftwareTriggers) {
    openTriggered();
    ASSERT_TRUE(board_->setInfo(ORVIX_BOARD_TRIGGER_FRAME_COUNT, 3).ok());
    ASSERT_TRUE(board_->startGrab(0).ok());
    ASSERT_TRUE(advanceTime(milliseconds(1000)).ok());
    EXPECT_EQ(frameCount(), 0u);
    EXPECT_EQ(advanceFrames(1).code, ORVIX_ERR_REFUSED);

    ASSERT_TRUE(board_->setInfo(ORVIX_SOFTWARE_TRIGGER_FIRE, 1).ok());
    ASSERT_TRUE(advanceTime(Nanos{0}).ok());
    EXPECT_EQ(frameCount(), 1u) << "the first frame comes with the trigger";
    ASSERT_TRUE(advanceFrames(2).ok());
    EXPECT_EQ(frameCount(), 3u);
    EXPECT_EQ(advanceFrames(1).code, ORVIX_ERR_REFUSED) << "burst over";
    EXPECT_EQ(info(ORVIX_SOFTWARE_TRIGGER_FIRE), 0u);
    EXPECT_EQ(board_->setInfo(ORVIX_SOFTWARE_TRIGGER_FIRE, 2).code, ORVIX_ERR_OUT_OF_RANGE);
    EXPECT_DOUBLE_EQ(consumer_->frames()[0].status.time, 1.0);
}

// Waits (without sleeping) until the board reports a running grab.
void waitGrabbing(Board& board) {
    uint32_t state = 0;
    while (board.getInfo(ORVIX_BOARD_STATE, state).ok() && state == 0) {
        std::this_thread::yield();
    }
}

TEST_F(StreamingThreadTest, TriggeredSingleShotCompletesOnTheTrigger) {
    openTriggered();
    std::thread trigger([&] {
        waitGrabbing(*board_);
        board_->setInfo(ORVIX_SOFTWARE_TRIGGER_FIRE, 1);
    });
    Status s = board_->startGrab(1);
    trigger.join();
    EXPECT_TRUE(s.ok()) << s.text;
    EXPECT_EQ(frameCount(), 1u);
}

TEST_F(StreamingThreadTest, TriggeredSingleShotTimesOutOnTheBoardClock) {
    openTriggered();
    ASSERT_TRUE(board_->setInfo(ORVIX_EXTERNAL_TRIGGER_TIMEOUT, 250).ok());
    std::thread clock([&] {
        waitGrabbing(*board_);
        advanceTime(milliseconds(249));
        advanceTime(milliseconds(1));
    });
    Status s = board_->startGrab(1);
    clock.join();
    EXPECT_EQ(s.code, ORVIX_ERR_TIMEOUT);
    EXPECT_EQ(frameCount(), 0u);
    EXPECT_EQ(info(ORVIX_BOARD_STATE), 0u);
}

TEST_F(StreamingThreadTest, StoppingAWaitingSingleShotAbortsIt) {
    openTriggered();
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
    openSmall();
    StopInside ctx{board_.get(), 0, {}};
    auto onFrame = [](uint32_t, void* c) {
        auto* self = static_cast<StopInside*>(c);
        if (++self->frames == 3) {
            self->stop = self->board->stopGrab();
        }
    };
    ASSERT_TRUE(board_->registerCallback(ORVIX_EVENT_FRAME_READY, onFrame, &ctx).ok());
    ASSERT_TRUE(board_->startGrab(0).ok());
    EXPECT_EQ(advanceFrames(5).code, ORVIX_ERR_NOT_GRABBING);
    EXPECT_TRUE(ctx.stop.ok());
    EXPECT_EQ(ctx.frames, 3);
    ASSERT_TRUE(board_->startGrab(0).ok()) << "a new grab starts after a stop from a callback";
    ASSERT_TRUE(advanceFrames(1).ok());
}

TEST_F(StreamingThreadTest, SignalsEdgeOnlyWhileWatchedAndTheCountersAgree) {
    openSmall([](BoardConfig& c) {
        c.signalRates = {};
        c.signalRates[1] = 100;   // General Input 1
        c.signalRates[3] = 1000;  // Shaft Encoder A
    });
    test::EventRecorder rising, falling, encoder;
    const uint32_t input1Rising = ORVIX_SIGNAL_GENERAL_INPUT1 | ORVIX_SIGNAL_RISING_EDGE;
    const uint32_t input1Falling = ORVIX_SIGNAL_GENERAL_INPUT1 | ORVIX_SIGNAL_FALLING_EDGE;
    const uint32_t encoderRising = ORVIX_SIGNAL_SHAFT_ENCODER_A | ORVIX_SIGNAL_RISING_EDGE;
    auto watch = [&](uint32_t event, test::EventRecorder& r) {
        ASSERT_TRUE(board_->registerCallback(event, test::EventRecorder::callback, &r).ok());
    };

    ASSERT_TRUE(advanceTime(milliseconds(100)).ok());
    ASSERT_TRUE(board_->setInfo(ORVIX_SIGNAL_COUNTER_CONTROL, 0).ok());
    watch(input1Rising, rising);
    watch(encoderRising, encoder);
    ASSERT_TRUE(advanceTime(milliseconds(1000)).ok());
    EXPECT_EQ(rising.count(input1Rising), 100u);
    EXPECT_EQ(encoder.count(encoderRising), 1000u);
    EXPECT_EQ(info(ORVIX_SIGNAL_COUNTER_BASE + 1), 100u);
    EXPECT_EQ(info(ORVIX_SIGNAL_COUNTER_BASE + 3), 1000u);
    EXPECT_EQ(info(ORVIX_SIGNAL_COUNTER_BASE + 2), 0u) << "an unwatched signal stays silent";

    watch(input1Falling, falling);
    ASSERT_TRUE(board_->setInfo(ORVIX_SIGNAL_COUNTER_CONTROL, 1).ok());
    ASSERT_TRUE(advanceTime(milliseconds(100)).ok());
    EXPECT_EQ(falling.count(input1Falling), 10u);
    EXPECT_EQ(rising.count(input1Rising), 110u);
    EXPECT_EQ(info(ORVIX_SIGNAL_COUNTER_BASE + 1), 100u) << "held";
    EXPECT_EQ(info(ORVIX_SIGNAL_COUNTER_CONTROL), 1u);

    ASSERT_TRUE(board_->setInfo(ORVIX_SIGNAL_COUNTER_CONTROL, 0).ok());
    EXPECT_EQ(info(ORVIX_SIGNAL_COUNTER_BASE + 1), 0u) << "0 clears";
    for (uint32_t event : {input1Rising, input1Falling, encoderRising}) {
        ASSERT_TRUE(board_->unregisterCallback(event).ok());
    }
    ASSERT_TRUE(advanceTime(milliseconds(1000)).ok());
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
    test::DecodedJpeg d = test::decodeJpeg(jpeg.data(), jpeg.size(), false);
    EXPECT_EQ(d.width, 64u);
    EXPECT_EQ(d.height, 48u);
    EXPECT_EQ(d.components, 1);

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
    EXPECT_EQ(advanceFrames(1).code, ORVIX_ERR_REFUSED);
    EXPECT_EQ(advanceTime(milliseconds(1)).code, ORVIX_ERR_REFUSED);
    ASSERT_TRUE(board_->streamer().setManualClock(true).ok());
    EXPECT_EQ(board_->streamer().now(), Nanos{0});
    EXPECT_EQ(advanceFrames(1).code, ORVIX_ERR_NOT_GRABBING);
    ASSERT_TRUE(advanceTime(milliseconds(5)).ok());
    EXPECT_EQ(board_->streamer().now(), Nanos{milliseconds(5)});
}

}  // namespace
}  // namespace orvix::sim
