// The board's own thread and everything it paces: the grab (frames into the ring, events 4, 1, 2
// and 3), the input signals of the signal check, and the deterministic manual-clock mode.
//
// The thread starts with the first grab, watched signal or manual advance and lives until the
// streamer is destroyed. Callbacks run on it without any lock of the streamer held, so they may
// call back into the board (GetInfo, GetBufferStatusEx, ...).
//
// Thread: every public method from any thread, except that begin(), advanceFrames() and
// advanceTime() refuse to run on the board thread (from inside a callback), where they would wait
// for themselves. stop() from inside a callback stops without waiting for the current frame.
#pragma once

#include <condition_variable>
#include <cstdint>
#include <deque>
#include <memory>
#include <mutex>
#include <optional>
#include <thread>

#include "BufferRing.h"
#include "CallbackRegistry.h"
#include "Clock.h"
#include "FrameProducer.h"
#include "FrameSchedule.h"
#include "SignalBank.h"
#include "Status.h"

namespace orvix::sim {

struct GrabSetup {
    ProducerSetup producer;
    uint32_t bufferCount = 8;
    Period period;               // frame period
    uint32_t linesPerFrame = 0;  // line scan: the rate is reported in lines per second
    bool triggered = false;      // frames come from software triggers
    uint32_t framesPerTrigger = 1;
    Nanos triggerTimeout{0};    // single shot waiting for a trigger; 0: no limit
    uint32_t timeoutEvery = 0;  // every Nth frame starts but never completes
    Nanos signalLossAfter{0};   // continuous grabs lose the camera after this; 0: never
    uint32_t stopFailures = 0;  // stop() calls that fail before one succeeds
};

class Streamer {
  public:
    Streamer(BufferRing& ring, CallbackRegistry& callbacks,
             const std::array<uint32_t, kSignalCount>& signalRates);
    ~Streamer();
    Streamer(const Streamer&) = delete;
    Streamer& operator=(const Streamer&) = delete;

    // Ends any grab without further callbacks and joins the board thread; afterwards nothing
    // starts it again. Not from the board thread.
    void shutdown();
    bool isBoardThread() const;

    // Waits until a grab stopped from inside a callback has finished writing its last frame.
    // Call it before prepareRing() and begin(), without holding locks the callbacks may need.
    void quiesce();
    // Sizes the ring for `count` buffers of `bytes`. Refused while a grab runs.
    Status prepareRing(uint32_t count, uint64_t bytes);

    // Starts a grab of `frames` frames (0: until stopped) and returns at once; frames == 1 is a
    // single shot, to be finished with awaitSingleShot(). Fails with 13 while a grab runs, 40
    // while a single shot runs.
    Status begin(const GrabSetup& setup, uint32_t frames);
    // Waits until the single shot begun last has its frame in buffer 0 and its callbacks have
    // returned, or it failed (15 frame timeout or trigger timeout, 42 stopped meanwhile).
    Status awaitSingleShot();
    // 16 while configured stop failures remain; stopping an idle board succeeds.
    Status stop();
    // Software trigger: schedules the next frames of a triggered grab; ignored otherwise.
    void softwareTrigger();

    bool grabbing() const;
    // Whether the board thread is inside a frame's callbacks (of a running or ending grab).
    bool delivering() const;
    uint32_t lostFrames() const;
    // False once a continuous grab has run longer than its signal-loss time.
    bool cameraSignalPresent() const;
    // Frames per second over the last frames (lines per second for line scan); 0 when idle.
    double frameRate() const;

    // The registry's signal callbacks changed: start or stop the signal waves.
    void callbacksChanged();
    uint32_t signalCounter(int row) const;
    uint32_t counterControl() const;
    void setCounterControl(uint32_t control);

    // Deterministic mode: time stands still (starting at 0) until advanced. Refused during a grab.
    Status setManualClock(bool on);
    // The board's time jumps to each due frame, edge or fault (VirtualClock); off: real time.
    Status setVirtualClock(bool on);
    bool manualClock() const;
    // Produces exactly the next n frames (timed-out frames count), moving the clock to each one's
    // due time; returns after their callbacks have run.
    Status advanceFrames(uint32_t n);
    // Moves the clock and returns once everything due by then (frames, lost frames, signal edges)
    // has been delivered.
    Status advanceTime(Nanos step);
    Nanos now() const;

  private:
    enum class Outcome { Pending, Done, Failed };
    struct Grab {
        uint64_t id = 0;
        bool active = false;
        bool single = false;
        uint64_t limit = 0;
        GrabSetup setup;
        Nanos start{0};
        FrameSchedule schedule;
        std::unique_ptr<FrameProducer> producer;
        uint64_t nextFrame = 0;
        uint64_t delivered = 0;
        uint32_t stopFailuresLeft = 0;
        std::optional<Nanos> lossAt;
        Outcome outcome = Outcome::Pending;
        Status failure;
    };
    struct Work {
        enum Kind { None, Frame, Edge } kind = None;
        Nanos at{0};
        SignalEdge edge;
    };

    void run();
    Work nextWork() const;
    void deliverFrame(std::unique_lock<std::mutex>& lock);
    void deliverEdge(std::unique_lock<std::mutex>& lock, const SignalEdge& edge);
    void ensureThread();
    bool onBoardThread() const;
    // Wakes the thread and waits until it has delivered everything due at the current time.
    void settle(std::unique_lock<std::mutex>& lock);
    void endGrab(Outcome outcome, Status failure);
    // Switches to a clock; the caller holds mutex_ and no grab runs.
    Status useClock(const Clock* clock);

    BufferRing& ring_;
    CallbackRegistry& callbacks_;

    mutable std::mutex mutex_;
    std::condition_variable cv_;
    SteadyClock steady_;
    ManualClock manual_;
    VirtualClock virtual_;
    const Clock* clock_ = &steady_;
    SignalBank signals_;
    Grab grab_;
    uint64_t lastGrabId_ = 0;
    uint64_t busyGrab_ = 0;  // grab whose frame the thread is delivering, 0 when none
    uint32_t lost_ = 0;
    std::deque<Nanos> frameTimes_;
    uint64_t requestEpoch_ = 0;
    uint64_t idleEpoch_ = 0;
    bool quit_ = false;
    std::thread thread_;
    std::thread::id threadId_;
};

}  // namespace orvix::sim
