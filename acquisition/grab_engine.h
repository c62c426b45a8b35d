// The grab engine: moves frames from the board library's ring into the Frame image, and tells the
// front end when to redraw and refresh. Three pieces: the single shot (user-interface thread),
// the callbacks (board-library threads) and the display thread that paces redraws; a watch-dog
// thread polls the camera status while a continuous grab runs.
//
// The grab is one state under one lock (idle, single shot, starting, running, stopping); every
// enable rule and every refusal reads it. Commands run on the thread that owns the engine (the
// user-interface thread). No thread of the engine ever waits on that thread: the display thread
// and the watch-dog only post, and the watch-dog's stop is run by the owner when its post
// arrives.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <string_view>
#include <thread>

#include "acquisition/board_library.h"
#include "acquisition/frame_store.h"
#include "base/clock.h"
#include "base/messages.h"
#include "base/thread_annotations.h"
#include "imaging/frame_image.h"

namespace lumetra {

// A recording path that must see every frame: the image-sequence saver, the video recorder.
class FrameConsumer {
  public:
    virtual ~FrameConsumer() = default;
    // Whether the next frame must be delivered. Thread: board-library callback threads.
    virtual bool wantsFrames() const = 0;
    // Takes a copy of the buffer before returning. Thread: board-library callback threads.
    virtual void push(const void* address, size_t size, bool jpeg) = 0;
    // Ends recording and waits for the worker. Thread: any but the worker's.
    virtual void stop() = 0;
};

// Hooks for the pixel-capture tool: a condition the display thread checks, and the check it runs
// on every converted frame under the frame lock.
struct PixelCaptureHooks {
    std::function<bool()> conditionMet;
    std::function<void()> check;
};

enum class GrabState {
    kIdle,        // no grab; callbacks unregistered
    kSingleShot,  // a single shot under way
    kStarting,    // a continuous grab being started
    kRunning,     // a continuous grab running: callbacks, display thread, watch-dog
    kStopping,    // a stop (the user's or the watch-dog's) under way
};
std::string_view GrabStateName(GrabState state);

// Whether the camera signals are present in a status word: the answer the main frame gives the
// watch-dog, computed from the camera status alone.
bool CameraSignalPresent(int32_t status, bool coaxpress);

// Frame size of the board's current geometry: 0x10000073/0x10000074 as 64 bits, or 0x10000009
// when the first cannot be read. 0 when neither can.
uint64_t ReadFrameSize(BoardLibrary& lib, OrvixHandle handle);

struct GrabLinks {
    BoardLibrary* library = nullptr;
    MessageLog* log = nullptr;
    MessageSink* sink = nullptr;  // may be null
    Clock* clock = nullptr;       // null: the steady clock
    FrameImage* frame = nullptr;
    FrameStore* store = nullptr;
};

// What the callbacks, the display thread and the owner share. Written by the owner only while no
// callback is registered and no display thread runs (registration and thread start publish it),
// except the atomics and what the comments say.
struct GrabContext {
    GrabLinks links;
    OrvixHandle handle = ORVIX_INVALID_HANDLE;
    bool coaxpress = false;
    FrameConsumer* saver = nullptr;
    FrameConsumer* recorder = nullptr;
    const std::atomic<int>* lastPaintMs = nullptr;
    std::atomic<double> rate{0.0};  // frames per second, from the rate read-out

    // Display thread.
    std::atomic<bool> running{false};
    std::atomic<bool> threadFinished{true};
    std::atomic<bool> viewFrozen{false};
    std::atomic<int> overlayAlpha{0};
    int displayCounter = 0;
    int divisorProfiles = 4;  // 1127
    int divisorRoi = 2;       // 1136
    int divisorStatus = 2;    // 1124, 1126, 1141, 1129
    int analysisDivisor = 1;  // 1130

    // Frame-ready path (board-library thread).
    Clock::time_point lastDelivered{};
    double lastFrameTime = 0.0;
    std::atomic<uint32_t> frameCounter{0};
    std::atomic<bool> newFrame{false};
    std::atomic<uint32_t> framesDisplayed{0};  // frames converted into the Frame image
    // Frames counted but never shown: passed over by the 30 ms throttle, replaced in the store
    // before the display took them, or not convertible. Once a grab has ended, frameCounter =
    // framesDisplayed + framesSkipped.
    std::atomic<uint32_t> framesSkipped{0};
    // Events 4 and 2.
    std::atomic<bool> frameStartSeen{false};
    // Event 3.
    Clock::time_point lastLostNotice{};
    bool lostNoticed = false;
    std::atomic<uint32_t> lostEvents{0};

    // The pixel-capture hooks may change while a grab runs: the display thread takes its own
    // reference each turn. Thread: any.
    void setCapture(std::shared_ptr<const PixelCaptureHooks> hooks) EXCLUDES(captureMutex_);
    std::shared_ptr<const PixelCaptureHooks> capture() const EXCLUDES(captureMutex_);

    Clock& clock() const { return links.clock != nullptr ? *links.clock : SystemClock(); }
    void post(uint32_t message, intptr_t w = 0, intptr_t l = 0) const {
        if (links.sink != nullptr) {
            links.sink->post(message, w, l);
        }
    }

  private:
    mutable Mutex captureMutex_;
    std::shared_ptr<const PixelCaptureHooks> capture_ GUARDED_BY(captureMutex_);
};

// What a board-library callback is given: the grab context, the board, the next buffer to read.
struct CallbackContext {
    GrabContext* grab = nullptr;
    OrvixHandle handle = ORVIX_INVALID_HANDLE;
    uint32_t nextBuffer = 0;
};

// The callbacks as registered with the board library. Thread: board-library threads.
void OnFrameReady(uint32_t event, void* context);
void OnFrameStart(uint32_t event, void* context);
void OnFrameTimeout(uint32_t event, void* context);
void OnFrameLost(uint32_t event, void* context);

// The display thread's loop, one turn at a time so that tests can drive it. Thread: the display
// thread (or a test standing in for it).
class DisplayLoop {
  public:
    explicit DisplayLoop(GrabContext& grab) : grab_(grab) {}
    void Begin();
    // One turn; false when the loop must end.
    bool Turn();
    void End();

  private:
    GrabContext& grab_;
    Clock::time_point lastProcessed_{};
    Clock::time_point lastStatusTick_{};
    bool overlayDrawn_ = false;
};

// The grab engine of one board document. Thread: the owner (the user-interface thread), except
// where a member says otherwise.
class GrabEngine {
  public:
    explicit GrabEngine(const GrabLinks& links);
    ~GrabEngine();
    GrabEngine(const GrabEngine&) = delete;
    GrabEngine& operator=(const GrabEngine&) = delete;

    GrabContext& context() { return grab_; }
    const GrabContext& context() const { return grab_; }

    // ---- State. Thread: any. ----
    GrabState state() const EXCLUDES(stateMutex_);
    bool idle() const { return state() == GrabState::kIdle; }
    // The continuous-grab-running flag of the commands and the status bar.
    bool continuousRunning() const { return state() == GrabState::kRunning; }
    // The single-shot-idle flag: false while a single shot is under way.
    bool singleShotIdle() const { return state() != GrabState::kSingleShot; }
    bool stopping() const { return state() == GrabState::kStopping; }
    // The number of the current (or last) continuous grab; the watch-dog's stop names it.
    uint64_t session() const EXCLUDES(stateMutex_);

    // ---- Wiring: only while idle; false (and nothing changed) otherwise. ----
    bool setConsumers(FrameConsumer* saver, FrameConsumer* recorder);
    bool setLastPaint(const std::atomic<int>* lastPaintMs);

    // ---- Commands. ----
    // A single shot, start to finish: idle -> single shot -> idle. False when the engine was not
    // idle: nothing is done.
    bool GrabOnce(OrvixHandle handle);

    enum class StartResult { kStarted, kNotIdle, kBoardRefused };
    // idle -> starting -> running: mode parameters, callbacks, OrvixStartGrab, display thread.
    // When the board refuses, the callbacks are unregistered again and the engine is idle.
    StartResult StartContinuous(OrvixHandle handle, bool coaxpress);

    enum class StopResult { kStopped, kBoardRefused, kAlreadyStopping, kBusy };
    // The user's stop: five tries, the texts, and every thread and recording ended. Runs from
    // idle too: a board left grabbing by a refused stop is stopped by the next one. kBoardRefused
    // when the board refused five times (torn down anyway); kAlreadyStopping while a stop is under
    // way; kBusy while a single shot or a start is (nothing done).
    StopResult StopGrab();
    // The watch-dog's stop, run by the owner when msg::kSignalLost arrives: only for the running
    // grab of that session. False for a stale notice.
    bool StopForSignalLoss(uint64_t session);
    // The main frame's destroy order, once the caller has stopped the board: the watch-dog, the
    // display thread, the callbacks and the recording paths end, and the engine is idle.
    void Shutdown();
    // Whether the last stop left the board grabbing (five refused tries).
    bool lastStopFailed() const { return lastStopFailed_; }

    // The watch-dog polls the camera status while a continuous grab runs.
    void StartWatchDog();
    void StopWatchDog();
    // One check of the watch-dog. Thread: the watch-dog (or a test standing in for it).
    void WatchDogCheck();

    // Registers the callbacks (events 1, 4, 2, 3) for a board; false when one fails. Unregister
    // undoes it (1, 4, 2, 3), frees the contexts and posts 1132: the board library runs none of
    // them once OrvixUnRegisterCallback has returned. Used by the start and stop sequences.
    bool Prepare(OrvixHandle handle, bool coaxpress);
    void Unregister();
    bool prepared() const { return prepared_; }

    // Read by the commands and the status bar. Thread: any.
    std::atomic<bool> watchDogFlag{false};
    std::atomic<bool> checking{false};
    std::atomic<bool> signalFault{false};
    std::atomic<int32_t> cameraStatus{0};
    std::atomic<int32_t> lastStatus{0};
    std::atomic<bool> jpegFlag{false};

  private:
    // Moves from one state to another; false (nothing changed) when the engine is elsewhere.
    bool Transition(GrabState from, GrabState to) EXCLUDES(stateMutex_);
    void SetState(GrabState to) EXCLUDES(stateMutex_);
    void StartDisplayThread();
    void StopDisplayThread();
    bool StopBoard();  // OrvixStopGrab up to five times, 10 ms apart
    void StopConsumers();
    void WatchDogLoop();

    GrabContext grab_;
    mutable Mutex stateMutex_;
    GrabState state_ GUARDED_BY(stateMutex_) = GrabState::kIdle;
    uint64_t session_ GUARDED_BY(stateMutex_) = 0;

    bool prepared_ = false;
    std::unique_ptr<CallbackContext> frameContext_;  // events 1 and 3
    std::unique_ptr<CallbackContext> startContext_;  // events 4 and 2
    std::unique_ptr<CallbackContext> spareContext_;  // created with them, never registered
    std::atomic<bool> lastStopFailed_{false};
    // The board the callbacks were last registered for. Unlike the context's handle it outlives
    // the unregistration, so that the stop after a refused one reaches the board still grabbing.
    OrvixHandle boardHandle_ = ORVIX_INVALID_HANDLE;
    std::thread displayThread_;
    std::thread watchDogThread_;
    Clock::time_point lastWatchDogCheck_{};  // the watch-dog thread's
};

}  // namespace lumetra
