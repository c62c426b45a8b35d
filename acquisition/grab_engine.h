// The grab engine: moves frames from the board library's ring into the Frame image, and tells the
// front end when to redraw and refresh. Three pieces: the single shot (user-interface thread),
// the callbacks (board-library threads) and the display thread that paces redraws.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <thread>

#include "acquisition/board_library.h"
#include "acquisition/frame_store.h"
#include "base/clock.h"
#include "base/messages.h"
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

// The main frame's answer to a sent 1129: 1 when the camera signals are present.
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

// Shared by the callbacks, the display thread and the user-interface thread. Fields written by
// one thread and read by others are atomics.
struct GrabContext {
    GrabLinks links;
    OrvixHandle handle = ORVIX_INVALID_HANDLE;
    bool coaxpress = false;
    FrameConsumer* saver = nullptr;
    FrameConsumer* recorder = nullptr;
    const std::atomic<int>* lastPaintMs = nullptr;
    std::atomic<double> rate{0.0};  // frames per second, from the rate read-out
    PixelCaptureHooks capture;

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
    // Events 4 and 2.
    std::atomic<bool> frameStartSeen{false};
    // Event 3.
    Clock::time_point lastLostNotice{};
    bool lostNoticed = false;
    std::atomic<uint32_t> lostEvents{0};

    Clock& clock() const { return links.clock != nullptr ? *links.clock : SystemClock(); }
    void post(uint32_t message, intptr_t w = 0, intptr_t l = 0) const {
        if (links.sink != nullptr) {
            links.sink->post(message, w, l);
        }
    }
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

// The display thread's loop, one turn at a time so that tests can drive it.
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

// The grab engine of one board document. Thread: the user-interface thread, except where a
// member says otherwise.
class GrabEngine {
  public:
    explicit GrabEngine(const GrabLinks& links);
    ~GrabEngine();
    GrabEngine(const GrabEngine&) = delete;
    GrabEngine& operator=(const GrabEngine&) = delete;

    GrabContext& context() { return grab_; }
    const GrabContext& context() const { return grab_; }

    void setConsumers(FrameConsumer* saver, FrameConsumer* recorder);
    void setLastPaint(const std::atomic<int>* lastPaintMs) { grab_.lastPaintMs = lastPaintMs; }

    // Registers the callbacks (events 1, 4, 2, 3) for a board; false when one fails.
    bool Prepare(OrvixHandle handle, bool coaxpress);
    // Unregisters them (1, 4, 2, 3), frees the contexts and posts 1132.
    void Unregister();
    bool prepared() const { return prepared_; }

    // A single shot, start to finish; always returns 1.
    int GrabOnce(OrvixHandle handle);

    // The board side of a continuous start: mode parameters, callbacks, OrvixStartGrab, display
    // thread. False when the board refused to start (the callbacks are unregistered again).
    bool StartContinuous(OrvixHandle handle, bool coaxpress);

    void StartDisplayThread();
    void StopDisplayThread();

    // The user's stop: five tries, the texts, and every thread and recording ended.
    int StopGrab();
    // Whether a stop (the user's or the watch-dog's) is under way.
    bool stopping() const { return stopping_; }
    // Whether the last stop left the board grabbing (five refused tries).
    bool lastStopFailed() const { return lastStopFailed_; }

    // The watch-dog polls the camera status while a continuous grab runs.
    void StartWatchDog();
    void StopWatchDog();
    // One check of the watch-dog, for tests and for the thread.
    void WatchDogCheck();

    // State the commands and the status bar read.
    std::atomic<bool> grabIdle{true};   // no single shot under way
    std::atomic<bool> grabbing{false};  // continuous grab running
    std::atomic<bool> watchDogFlag{false};
    std::atomic<bool> checking{false};
    std::atomic<bool> signalFault{false};
    std::atomic<int32_t> cameraStatus{0};
    std::atomic<int32_t> lastStatus{0};
    std::atomic<bool> jpegFlag{false};

  private:
    bool StopBoard();  // OrvixStopGrab up to five times, 10 ms apart
    void StopConsumers();
    void WatchDogLoop();
    void WatchDogStop();

    GrabContext grab_;
    bool prepared_ = false;
    std::unique_ptr<CallbackContext> frameContext_;  // events 1 and 3
    std::unique_ptr<CallbackContext> startContext_;  // events 4 and 2
    std::unique_ptr<CallbackContext> spareContext_;  // created with them, never registered
    std::mutex grabOnceMutex_;
    std::mutex stopMutex_;  // one stop at a time: the user's or the watch-dog's
    std::atomic<bool> stopping_{false};
    std::atomic<bool> lastStopFailed_{false};
    std::thread displayThread_;
    std::thread watchDogThread_;
    std::atomic<bool> watchDogFinished_{true};
    Clock::time_point lastWatchDogCheck_{};
};

}  // namespace lumetra
