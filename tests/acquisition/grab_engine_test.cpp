#include "acquisition/grab_engine.h"

#include <gtest/gtest.h>

#include <atomic>
#include <functional>

#include "fake_board.h"

namespace lumetra::test {
namespace {

using std::chrono::milliseconds;

// A recorder stand-in: counts the frames it was given; its stops go into a call log when given one.
class CountingConsumer final : public FrameConsumer {
  public:
    CountingConsumer() = default;
    CountingConsumer(FakeBoardLibrary& lib, const char* name) : lib_(&lib), name_(name) {}
    bool wantsFrames() const override { return wants; }
    void push(const void* address, size_t size, bool jpeg) override {
        ++frames;
        lastSize = size;
        lastJpeg = jpeg;
        lastFirstByte = *static_cast<const uint8_t*>(address);
    }
    void stop() override {
        ++stops;
        if (lib_ != nullptr) {
            lib_->record(name_);
        }
    }
    bool wants = true;
    std::atomic<int> frames{0};
    std::atomic<int> stops{0};
    size_t lastSize = 0;
    bool lastJpeg = false;
    uint8_t lastFirstByte = 0;

  private:
    FakeBoardLibrary* lib_ = nullptr;
    const char* name_ = "";
};

struct GrabFixture : ::testing::Test {
    FakeBoardLibrary lib;
    RecordingLog log;
    RecordingSink sink;
    SleepLoggingClock clock{lib};
    FrameImage frame;
    FrameStore store;
    CountingConsumer recorder;
    std::unique_ptr<GrabEngine> engine;
    OrvixHandle h = 0;
    static constexpr int kW = 64, kH = 8;

    void SetUp() override {
        FakeBoard b;
        b.values = {{ORVIX_FRAME_SIZE_HIGH, 0},
                    {ORVIX_FRAME_SIZE_LOW, kW * kH},
                    {ORVIX_FRAME_SIZE, kW * kH}};
        lib.boards.push_back(b);
        h = lib.Open(2, 0);
        lib.makeRing(4, kW * kH);
        frame.setFormat({kW, kH, 8, 1, false});
        BayerSettings bayer;
        ASSERT_TRUE(frame.Allocate(8, bayer, log));
        ASSERT_TRUE(store.Resize(kW * kH));
        engine = std::make_unique<GrabEngine>(GrabLinks{&lib, &log, &sink, &clock, &frame, &store});
        lib.calls.clear();
    }
    GrabContext& grab() { return engine->context(); }
    void record() { engine->setConsumers(nullptr, &recorder); }
    // Fires frames 1 ms apart; returns how many reached the display.
    int fireFrames(int n) {
        int copies = 0;
        for (int f = 0; f < n; ++f) {
            lib.fire(ORVIX_EVENT_FRAME_READY);
            copies += grab().newFrame.exchange(false) ? 1 : 0;
            clock.advance(milliseconds(1));
        }
        return copies;
    }
};

TEST_F(GrabFixture, CallbacksAreRegisteredAndUnregisteredInTheirOrders) {
    ASSERT_TRUE(engine->Prepare(h, false));
    EXPECT_EQ(lib.idsOf("RegisterCallback"), (std::vector<uint32_t>{1, 4, 2, 3}));
    engine->Unregister();
    EXPECT_EQ(lib.idsOf("UnRegisterCallback"), (std::vector<uint32_t>{1, 4, 2, 3}));
    EXPECT_TRUE(lib.callbacks.empty());
    EXPECT_EQ(sink.count(msg::kStatusTimer), 1u);
    EXPECT_EQ(grab().handle, ORVIX_INVALID_HANDLE);
}

TEST_F(GrabFixture, FastCameraCountsEveryFrameAndThrottlesTheDisplayCopy) {
    engine->Prepare(h, false);
    // More than 30 ms must pass between two copies: one every 31 frames.
    EXPECT_EQ(fireFrames(1000), 1 + 999 / 31);
    EXPECT_EQ(grab().frameCounter, 1000u);
}

TEST_F(GrabFixture, RecordingReceivesEveryFrameAtAThousandFramesPerSecond) {
    CountingConsumer saver;
    saver.wants = false;  // a sequence saver that has all it asked for
    engine->setConsumers(&saver, &recorder);
    engine->Prepare(h, false);
    EXPECT_EQ(fireFrames(1000), 1 + 999 / 31) << "recording must not slow the display";
    EXPECT_EQ(recorder.frames, 1000);
    EXPECT_EQ(saver.frames, 0);
    EXPECT_EQ(grab().frameCounter, 1000u);
    EXPECT_EQ(recorder.lastSize, size_t{kW * kH});
}

TEST_F(GrabFixture, BufferIndexWrapsWithTheRingAndFaultyBuffersAreSkipped) {
    record();
    engine->Prepare(h, false);
    lib.statuses[1].overflow = 1;
    lib.statuses[2].incomplete = 1;
    lib.statuses[3].ready = 0;
    fireFrames(7);
    EXPECT_EQ(lib.idsOf("GetBufferStatusEx"), (std::vector<uint32_t>{0, 1, 2, 3, 0, 1, 2}));
    EXPECT_EQ(recorder.frames, 2) << "only buffer 0, twice";
    EXPECT_EQ(recorder.lastFirstByte, 1);
    EXPECT_EQ(grab().frameCounter, 7u);
}

TEST_F(GrabFixture, CoaXPressCallbackReadsThe32BitSizeAndIgnoresJpeg) {
    record();
    lib.board(h).values[ORVIX_JPEG_COMPRESS_ENABLE] = 1;
    lib.board(h).values[ORVIX_FRAME_SIZE] = 300;
    lib.statuses[0].compressedSize = 77;
    engine->Prepare(h, true);
    lib.fire(ORVIX_EVENT_FRAME_READY);
    EXPECT_EQ(recorder.lastSize, 300u);
    EXPECT_FALSE(recorder.lastJpeg);
    for (const FakeCall& c : lib.callsNamed("GetInfo")) {
        EXPECT_NE(c.id, uint32_t{ORVIX_FRAME_SIZE_HIGH});
        EXPECT_NE(c.id, uint32_t{ORVIX_JPEG_COMPRESS_ENABLE});
    }

    // The CameraLink path takes the compressed size and flags the data as JPEG.
    engine->Unregister();
    engine->Prepare(h, false);
    lib.fire(ORVIX_EVENT_FRAME_READY);
    EXPECT_EQ(recorder.lastSize, 77u);
    EXPECT_TRUE(recorder.lastJpeg);
}

TEST_F(GrabFixture, FrameSizeFallsBackToThe32BitParameter) {
    EXPECT_EQ(ReadFrameSize(lib, h), uint64_t{kW * kH});
    lib.board(h).values[ORVIX_FRAME_SIZE_HIGH] = 1;
    EXPECT_EQ(ReadFrameSize(lib, h), (uint64_t{1} << 32) + kW * kH);
    lib.board(h).failGet.insert(ORVIX_FRAME_SIZE_HIGH);
    lib.board(h).values[ORVIX_FRAME_SIZE] = 1234;
    EXPECT_EQ(ReadFrameSize(lib, h), 1234u);
    lib.board(h).values[ORVIX_FRAME_SIZE] = 0xFFFFFFFF;  // negative as a signed size
    EXPECT_EQ(ReadFrameSize(lib, h), 0u);
}

TEST_F(GrabFixture, TimeoutIsPostedOnlyAfterAFrameStart) {
    engine->Prepare(h, false);
    lib.fire(ORVIX_EVENT_FRAME_TIMEOUT);
    EXPECT_EQ(sink.count(msg::kGrabTimeout), 0u);
    lib.fire(ORVIX_EVENT_FRAME_START);
    lib.fire(ORVIX_EVENT_FRAME_TIMEOUT);
    lib.fire(ORVIX_EVENT_FRAME_TIMEOUT);
    EXPECT_EQ(sink.count(msg::kGrabTimeout), 1u);
}

TEST_F(GrabFixture, LostFramesAreNoticedAtMostEvery100Ms) {
    engine->Prepare(h, false);
    for (int i = 0; i < 10; ++i) {
        lib.fire(ORVIX_EVENT_FRAME_LOST);
        clock.advance(milliseconds(20));
    }
    // At 0 ms, then the first one more than 100 ms later (120 ms).
    EXPECT_EQ(sink.count(msg::kFrameLost, 1, 0), 2u);
    EXPECT_EQ(grab().lostEvents, 10u);
}

// ---- display thread ----

struct DisplayFixture : GrabFixture {
    std::atomic<int> paintMs{0};
    std::unique_ptr<DisplayLoop> loop;
    void SetUp() override {
        GrabFixture::SetUp();
        engine->setLastPaint(&paintMs);
        grab().running = true;
        store.Put(lib.ring[0].data(), kW * kH, false);
        loop = std::make_unique<DisplayLoop>(grab());
        loop->Begin();
        sink.clear();
    }
    // A frame arrives and the loop takes it.
    void frameTurn() {
        grab().newFrame = true;
        ASSERT_TRUE(loop->Turn());
    }
};

TEST_F(DisplayFixture, SleepFollowsThePaintTimeWithinLimits) {
    const struct {
        int paint, sleep;
    } cases[] = {{0, 35}, {20, 35}, {40, 50}, {101, 126}, {1199, 1498}, {5000, 1500}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.paint);
        paintMs = c.paint;
        const auto before = clock.now();
        frameTurn();
        EXPECT_EQ(clock.now() - before, milliseconds(c.sleep));
    }
}

TEST_F(DisplayFixture, SlowCameraRefreshesEverythingOnEveryFrame) {
    for (int f = 0; f < 4; ++f) {
        SCOPED_TRACE(f);
        sink.clear();
        clock.advance(milliseconds(500));  // 2 frames per second
        frameTurn();
        EXPECT_EQ(grab().displayCounter, 0);
        for (uint32_t m :
             {msg::kPaint, msg::kFrameArrived, msg::kProfiles, msg::kRoiRefresh, msg::kMarker}) {
            EXPECT_EQ(sink.count(m), 1u) << m;
        }
        EXPECT_EQ(sink.count(msg::kRate, 0, 1), 1u);
        EXPECT_EQ(sink.count(msg::kFrameLost, 0, 0), 1u);
        EXPECT_EQ(sink.count(msg::kCameraStatus, 0, 2), 1u);
    }
}

TEST_F(DisplayFixture, FastStreamUsesTheDivisors) {
    for (int f = 0; f < 8; ++f) {
        frameTurn();  // back to back: only the 35 ms sleep passes between frames
    }
    EXPECT_EQ(grab().displayCounter, 8);
    EXPECT_EQ(sink.count(msg::kPaint), 8u);
    EXPECT_EQ(sink.count(msg::kProfiles), 2u);    // counters 4 and 8
    EXPECT_EQ(sink.count(msg::kRoiRefresh), 4u);  // 2, 4, 6, 8
    EXPECT_EQ(sink.count(msg::kRate, 0, 1), 4u);
    EXPECT_EQ(sink.count(msg::kFrameArrived), 4u);  // rate 0: divisor 2
    EXPECT_EQ(grab().analysisDivisor, 2);
    // The order within one turn.
    sink.clear();
    frameTurn();
    frameTurn();                   // counter 10
    std::vector<uint32_t> second;  // the first message is the previous turn's paint
    for (const auto& x : sink.messages()) {
        second.push_back(x.msg);
    }
    second.erase(second.begin());
    EXPECT_EQ(second,
              (std::vector<uint32_t>{msg::kPaint, msg::kFrameArrived, msg::kRoiRefresh, msg::kRate,
                                     msg::kMarker, msg::kFrameLost, msg::kCameraStatus}));
}

TEST_F(DisplayFixture, AnalysisDivisorFollowsRateAndPaintTime) {
    grab().rate = 100.0;
    paintMs = 40;  // 1.5 x 40 = 60: 100 x 1000 / 60 + 2 = 1668.67
    frameTurn();
    EXPECT_EQ(grab().analysisDivisor, 1668);
    paintMs = 10;  // 15 is below 35
    grab().rate = 7.0;
    frameTurn();
    EXPECT_EQ(grab().analysisDivisor, 202);
}

TEST_F(DisplayFixture, CounterWrapsAt1000) {
    grab().displayCounter = 998;
    frameTurn();
    EXPECT_EQ(grab().displayCounter, 999);
    frameTurn();
    EXPECT_EQ(grab().displayCounter, 0);
}

TEST_F(DisplayFixture, IdleTurnsPostTheStatusEvery500Ms) {
    for (int i = 0; i < 120; ++i) {
        ASSERT_TRUE(loop->Turn());  // no frame: 10 ms each
    }
    // 1200 ms: ticks once past 500 ms, again past 1000 ms.
    EXPECT_EQ(sink.count(msg::kRate, 0, 0), 2u);
    EXPECT_EQ(sink.count(msg::kPaint), 0u);
}

TEST_F(DisplayFixture, ConversionFillsTheFrameImageAndFrozenViewsAreNotRepainted) {
    frame.raw().mat().setTo(0);
    grab().viewFrozen = true;
    frameTurn();
    EXPECT_EQ(frame.raw().data()[0], 1) << "buffer 0 holds ones";
    EXPECT_EQ(grab().framesDisplayed, 1u);
    EXPECT_EQ(sink.count(msg::kPaint), 0u);
}

TEST_F(DisplayFixture, CaptureConditionStopsTheLoop) {
    auto hooks = std::make_shared<PixelCaptureHooks>();
    hooks->conditionMet = [] { return true; };
    grab().setCapture(hooks);
    grab().newFrame = true;
    EXPECT_FALSE(loop->Turn());
    EXPECT_EQ(sink.count(msg::kStopGrab), 1u);
}

TEST_F(DisplayFixture, EndPostsTheFinalRefresh) {
    grab().threadFinished = false;
    loop->End();
    EXPECT_TRUE(grab().threadFinished);
    EXPECT_EQ(sink.count(msg::kRate, 0, 2), 1u);
    for (uint32_t m : {msg::kPaint, msg::kFrameArrived, msg::kProfiles, msg::kRoiRefresh,
                       msg::kMarker, msg::kFrameLost}) {
        EXPECT_EQ(sink.count(m), 1u) << m;
    }
}

// ---- single shot ----

TEST_F(GrabFixture, SingleShotCopiesBufferZeroAndPostsInOrder) {
    lib.board(h).values[ORVIX_JPEG_COMPRESS_ENABLE] = 0;
    frame.raw().mat().setTo(0);
    EXPECT_TRUE(engine->GrabOnce(h));
    EXPECT_EQ(log.lines(), (std::vector<std::string>{"Start Grab", "Grab (1 Shot) completed\n"}));
    EXPECT_EQ(frame.raw().data()[0], 1);
    EXPECT_EQ(frame.raw().data()[kW * kH - 1], 1);
    EXPECT_EQ(grab().framesDisplayed, 1u);
    EXPECT_EQ(grab().frameCounter, 1u);
    EXPECT_TRUE(engine->idle());
    std::vector<RecordingSink::Message> expected = {
        {msg::kPaint, 0, 0},      {msg::kProfiles, 0, 0},   {msg::kFrameArrived, 0, 0},
        {msg::kRoiRefresh, 0, 0}, {msg::kMarker, 0, 0},     {msg::kFramesGrabbed, 0, 0},
        {msg::kRate, 0, 2},       {msg::kStatusTimer, 0, 0}};
    EXPECT_EQ(sink.messages(), expected);
    // Single-frame mode is set before the start, which asks for one frame.
    EXPECT_EQ(lib.callsNamed("SetInfo").at(0), (FakeCall{"SetInfo", ORVIX_GRAB_CONTINUOUS, 0}));
    EXPECT_EQ(lib.callsNamed("StartGrab")[0].value, 1u);
}

TEST_F(GrabFixture, SingleShotFailuresChooseTheirText) {
    const struct {
        int32_t code;
        const char* text;
    } cases[] = {
        {ORVIX_ERR_SINGLE_SHOT_RUNNING, "Grab(once) process is running.Please wait..."},
        {ORVIX_ERR_GRAB_ABORTED, "Grab Abort!"},
        {ORVIX_ERR_TIMEOUT, "Grab (1 Shot) fail. Please check the paramter and board signal\n"}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.code);
        log.clear();
        sink.clear();
        lib.startGrabError = c.code;
        lib.cameraStatus = 5;
        EXPECT_TRUE(engine->GrabOnce(h));
        EXPECT_EQ(log.lines(), (std::vector<std::string>{"Start Grab", c.text}));
        EXPECT_EQ(sink.messages(), (std::vector<RecordingSink::Message>{
                                       {msg::kCameraStatus, 0, 1}, {msg::kStatusTimer, 0, 0}}));
        EXPECT_EQ(engine->cameraStatus, 5);
        EXPECT_EQ(grab().frameCounter, 0u);
        EXPECT_TRUE(engine->idle());
    }
}

// ---- stop and watch-dog ----

TEST_F(GrabFixture, StopRetriesFiveTimes) {
    engine->Prepare(h, false);
    lib.stopFailures = 4;
    EXPECT_EQ(engine->StopGrab(), GrabEngine::StopResult::kStopped);
    EXPECT_EQ(lib.callsNamed("StopGrab").size(), 5u);
    EXPECT_EQ(log.lines(), std::vector<std::string>{"Grab Stop\n"});
    EXPECT_FALSE(engine->lastStopFailed());

    engine->Prepare(h, false);
    lib.calls.clear();
    log.clear();
    lib.stopFailures = 5;
    EXPECT_EQ(engine->StopGrab(), GrabEngine::StopResult::kBoardRefused);
    EXPECT_EQ(lib.callsNamed("StopGrab").size(), 5u);
    EXPECT_EQ(log.lines(), std::vector<std::string>{
                               "Grab Stop fail.Please click the 'Grab Stop' Button again\n"});
    EXPECT_TRUE(engine->lastStopFailed());
    // Torn down anyway.
    EXPECT_TRUE(lib.callbacks.empty());
    EXPECT_TRUE(engine->idle());
}

TEST_F(GrabFixture, StoppingTwiceIsHarmless) {
    record();
    engine->Prepare(h, false);
    engine->StopGrab();
    engine->StopGrab();
    EXPECT_EQ(lib.callsNamed("UnRegisterCallback").size(), 4u);
    EXPECT_EQ(recorder.stops, 2);
}

TEST_F(GrabFixture, WatchDogKeepsGoingWhileTheSignalIsConfirmed) {
    engine->Prepare(h, false);
    lib.cameraStatus = 7;
    clock.advance(milliseconds(300));
    engine->WatchDogCheck();
    EXPECT_TRUE(engine->checking);
    EXPECT_EQ(engine->lastStatus, 7);
    EXPECT_EQ(sink.count(msg::kCameraStatus, 0, 1), 1u);
    // Within 200 ms of the last check nothing is read.
    lib.calls.clear();
    clock.advance(milliseconds(200));
    engine->WatchDogCheck();
    EXPECT_FALSE(engine->checking);
    EXPECT_TRUE(lib.callsNamed("GetCameraStatus").empty());
    // A status that cannot be read clears the error and asks nothing.
    lib.cameraStatusError = ORVIX_ERR_TIMEOUT;
    clock.advance(milliseconds(1));
    engine->WatchDogCheck();
    EXPECT_EQ(sink.count(msg::kCameraStatus, 0, 1), 1u);
    EXPECT_EQ(lib.callsNamed("GetLastError").back().value, 1u);
    EXPECT_TRUE(log.lines().empty());
}

// The watch-dog only posts; the owner runs the stop when the post arrives, for that grab alone.
TEST_F(GrabFixture, WatchDogPostsTheStopAndTheOwnerRunsIt) {
    record();
    ASSERT_EQ(engine->StartContinuous(h, false), GrabEngine::StartResult::kStarted);
    const uint64_t session = engine->session();
    lib.cameraStatus = 0;
    clock.advance(milliseconds(300));
    engine->WatchDogCheck();
    EXPECT_EQ(sink.count(msg::kSignalLost, static_cast<intptr_t>(session), 0), 1u);
    EXPECT_FALSE(engine->watchDogFlag) << "the watch-dog's loop ends";
    EXPECT_TRUE(engine->continuousRunning()) << "nothing stopped on the watch-dog's thread";
    EXPECT_TRUE(lib.callsNamed("StopGrab").empty());

    EXPECT_FALSE(engine->StopForSignalLoss(session + 1)) << "another grab's notice";
    ASSERT_TRUE(engine->StopForSignalLoss(session));
    EXPECT_EQ(log.lines().back(), "Board signal abnormal.Grab Stop\n");
    EXPECT_TRUE(engine->idle());
    EXPECT_TRUE(lib.callbacks.empty());
    EXPECT_EQ(recorder.stops, 1);
    EXPECT_FALSE(grab().running);
    EXPECT_EQ(lib.callsNamed("StopGrab").size(), 1u);
    EXPECT_FALSE(engine->StopForSignalLoss(session)) << "a late duplicate";
    EXPECT_EQ(recorder.stops, 1);
}

// Each command moves the state only from where it may; a refused one changes nothing.
TEST_F(GrabFixture, CommandsOutsideTheirStatesAreRefused) {
    // A consumer whose stop runs commands while the engine is stopping.
    struct Reentrant final : FrameConsumer {
        bool wantsFrames() const override { return false; }
        void push(const void*, size_t, bool) override {}
        void stop() override {
            state = engine->state();
            once = engine->GrabOnce(h);
            start = engine->StartContinuous(h, false);
            stopAgain = engine->StopGrab();
        }
        GrabEngine* engine = nullptr;
        OrvixHandle h = 0;
        GrabState state = GrabState::kIdle;
        bool once = true;
        GrabEngine::StartResult start = GrabEngine::StartResult::kStarted;
        GrabEngine::StopResult stopAgain = GrabEngine::StopResult::kStopped;
    } reentrant;
    reentrant.engine = engine.get();
    reentrant.h = h;
    ASSERT_TRUE(engine->setConsumers(&reentrant, nullptr));

    ASSERT_EQ(engine->StartContinuous(h, false), GrabEngine::StartResult::kStarted);
    EXPECT_FALSE(engine->setConsumers(nullptr, nullptr)) << "wiring changes only while idle";
    std::atomic<int> paint{0};
    EXPECT_FALSE(engine->setLastPaint(&paint));
    lib.calls.clear();
    EXPECT_FALSE(engine->GrabOnce(h)) << "a single shot while running";
    EXPECT_EQ(engine->StartContinuous(h, false), GrabEngine::StartResult::kNotIdle);
    EXPECT_TRUE(lib.calls.empty()) << "a refused command touches no board";

    EXPECT_EQ(engine->StopGrab(), GrabEngine::StopResult::kStopped);
    EXPECT_EQ(reentrant.state, GrabState::kStopping);
    EXPECT_FALSE(reentrant.once) << "grab while stopping";
    EXPECT_EQ(reentrant.start, GrabEngine::StartResult::kNotIdle);
    EXPECT_EQ(reentrant.stopAgain, GrabEngine::StopResult::kAlreadyStopping);
    EXPECT_TRUE(engine->idle());

    // Stop while idle is the user's way out of a board left grabbing: the whole stop runs.
    lib.calls.clear();
    log.clear();
    reentrant.engine = nullptr;
    ASSERT_TRUE(engine->setConsumers(nullptr, nullptr));
    EXPECT_EQ(engine->StopGrab(), GrabEngine::StopResult::kStopped);
    EXPECT_EQ(lib.callsNamed("StopGrab").size(), 1u);
    EXPECT_EQ(log.lines(), std::vector<std::string>{"Grab Stop\n"});
    EXPECT_EQ(GrabStateName(engine->state()), "idle");
}

// Every value the start and stop sequences write and every wait they make, in order. The clock
// logs the test thread's sleeps into the same list as the library calls.
TEST_F(GrabFixture, StartAndStopSequencesWriteAndWaitInOrder) {
    using C = FakeCall;
    const C sleep10{"sleep", 0, 10};
    const std::vector<C> unregister = {{"UnRegisterCallback", 1},
                                       {"UnRegisterCallback", 4},
                                       {"UnRegisterCallback", 2},
                                       {"UnRegisterCallback", 3}};
    auto join = [](std::initializer_list<std::vector<C>> parts) {
        std::vector<C> all;
        for (const auto& p : parts) {
            all.insert(all.end(), p.begin(), p.end());
        }
        return all;
    };
    CountingConsumer saver(lib, "saver.stop");
    CountingConsumer recorder(lib, "recorder.stop");
    engine->setConsumers(&saver, &recorder);
    auto start = [&] {
        ASSERT_EQ(engine->StartContinuous(h, false), GrabEngine::StartResult::kStarted);
        lib.calls.clear();
    };
    const struct {
        const char* name;
        std::function<void()> setUp;
        std::function<void()> act;
        std::vector<C> expected;
    } cases[] = {
        {"continuous start",
         [] {},
         [&] { ASSERT_EQ(engine->StartContinuous(h, false), GrabEngine::StartResult::kStarted); },
         {{"sleep", 0, 30},
          {"SetInfo", ORVIX_ACQUISITION_MODE, 2},
          {"RegisterCallback", 1},
          {"RegisterCallback", 4},
          {"RegisterCallback", 2},
          {"RegisterCallback", 3},
          {"SetInfo", ORVIX_GRAB_CONTINUOUS, 1},
          {"GetInfo", ORVIX_JPEG_COMPRESS_ENABLE},
          {"StartGrab", 0, 0}}},
        {"user stop", start, [&] { engine->StopGrab(); },
         join({{{"sleep", 0, 300}, {"StopGrab"}, sleep10},
               unregister,
               {{"saver.stop"}, {"recorder.stop"}}})},
        {"user stop, two refusals",
         [&] {
             start();
             lib.stopFailures = 2;
         },
         [&] { engine->StopGrab(); },
         join({{{"sleep", 0, 300},
                {"StopGrab"},
                sleep10,
                {"StopGrab"},
                sleep10,
                {"StopGrab"},
                sleep10},
               unregister,
               {{"saver.stop"}, {"recorder.stop"}}})},
        {"watch-dog stop",
         [&] {
             start();
             lib.cameraStatus = 0;
             clock.advance(milliseconds(300));
         },
         [&] {
             engine->WatchDogCheck();
             engine->StopForSignalLoss(engine->session());
         },
         join({{{"GetCameraStatus"}, {"GetLastError", 0, 0}, {"StopGrab"}, sleep10},
               {{"saver.stop"}, {"recorder.stop"}},
               unregister,
               {{"GetLastError", 0, 1}}})},
        {"single shot",
         [] {},
         [&] { engine->GrabOnce(h); },
         {{"GetLastError", 0, 1},
          {"SetInfo", ORVIX_GRAB_CONTINUOUS, 0},
          {"GetInfo", ORVIX_JPEG_COMPRESS_ENABLE},
          {"StartGrab", 0, 1},
          {"GetInfo", ORVIX_FRAME_SIZE_HIGH},
          {"GetInfo", ORVIX_FRAME_SIZE_LOW},
          {"GetBufferStatusEx", 0},
          {"GetBufferAddress", 0}}},
        {"failed single shot",
         [&] { lib.startGrabError = ORVIX_ERR_GRAB_ABORTED; },
         [&] { engine->GrabOnce(h); },
         {{"GetLastError", 0, 1},
          {"SetInfo", ORVIX_GRAB_CONTINUOUS, 0},
          {"GetInfo", ORVIX_JPEG_COMPRESS_ENABLE},
          {"StartGrab", 0, 1},
          {"GetLastError", 0, 1},
          {"GetCameraStatus"}}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        c.setUp();
        lib.calls.clear();
        c.act();
        EXPECT_EQ(lib.calls, c.expected);
        engine->StopGrab();
        lib.startGrabError = 0;
        lib.stopFailures = 0;
        lib.lastError = ORVIX_ERR_NONE;
        lib.cameraStatus = 7;
    }
}

TEST(CameraSignal, PresentOnlyWithEveryCameraLinkBitOrTheCoaXPressLink) {
    EXPECT_TRUE(CameraSignalPresent(0x7, false));
    EXPECT_FALSE(CameraSignalPresent(0x3, false));
    EXPECT_FALSE(CameraSignalPresent(-1, false));
    EXPECT_TRUE(CameraSignalPresent(0x13, true));
    EXPECT_FALSE(CameraSignalPresent(0x03, true));
}

// ---- threads ----

TEST_F(GrabFixture, ContinuousGrabRunsTheDisplayThreadUntilStopped) {
    record();
    ASSERT_EQ(engine->StartContinuous(h, false), GrabEngine::StartResult::kStarted);
    EXPECT_EQ(lib.callsNamed("StartGrab")[0].value, 0u);
    // The board's thread delivers frames while the display thread runs.
    std::thread board([&] {
        for (int f = 0; f < 200; ++f) {
            lib.fire(ORVIX_EVENT_FRAME_READY);
        }
    });
    board.join();
    EXPECT_EQ(engine->StopGrab(), GrabEngine::StopResult::kStopped);
    EXPECT_EQ(recorder.frames, 200);
    EXPECT_EQ(grab().frameCounter, 200u);
    EXPECT_TRUE(grab().threadFinished);
    EXPECT_EQ(sink.count(msg::kRate, 1, 0), 1u) << "display thread stopped";
    EXPECT_EQ(log.lines(), std::vector<std::string>{"Grab Stop\n"});
}

TEST_F(GrabFixture, RefusedStartLeavesNoThread) {
    lib.startGrabError = ORVIX_ERR_GRAB_RUNNING;
    EXPECT_EQ(engine->StartContinuous(h, false), GrabEngine::StartResult::kBoardRefused);
    EXPECT_TRUE(lib.callbacks.empty());
    EXPECT_TRUE(engine->idle());
    EXPECT_FALSE(grab().running);
    EXPECT_FALSE(engine->continuousRunning());
}

}  // namespace
}  // namespace lumetra::test
