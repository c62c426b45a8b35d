// The buffer ring and one grab's delivery.
//
// Ring: `count` slots, each holding the buffer of the frame last handed out there, as a board's
// DMA ring holds its frames, plus as many spare buffers that the stream fills meanwhile. When a
// frame arrives it takes the next slot, and the buffer it replaces goes back to the stream: a
// frame stays readable until `count` frames later, and a consumer may fall `count` frames behind
// before frames are lost. Slots and spares are Aravis buffers: the stream writes the pixels once
// and nobody copies them.
//
// Acquisition: the stream's thread only notes each frame's start and end; a delivery thread of
// its own turns them into the board's events in order: 4 at a frame's start, then per frame 3
// for each frame lost before it (frame-id gaps), 2 when it timed out, and 1 with the frame in the
// next slot and its status (incomplete, timed-out or wrong-sized frames carry a fault flag).
// Thread: Ring from any thread; Acquisition's public methods from the grab's owner, except
// lost(), rate(), silentFor() and onDeliveryThread() (any thread).
#pragma once

#include <arv.h>

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "CallbackRegistry.h"
#include "FrameSequence.h"
#include "OrvixBoard.h"
#include "Status.h"

namespace orvix::aravis {

class Ring {
  public:
    Ring() = default;
    ~Ring();
    Ring(const Ring&) = delete;
    Ring& operator=(const Ring&) = delete;

    // `count` slots and `count` spares of `bytes` each; kept when both already match. Every
    // status is cleared either way: a grab starts from slot 0. Only while no stream holds them.
    void allocate(uint32_t count, size_t bytes);
    uint32_t count() const;
    size_t bufferBytes() const;
    // The buffers not in a slot, for a new stream.
    std::vector<ArvBuffer*> spares() const;

    Status address(uint32_t index, void*& address) const;
    Status status(uint32_t index, OrvixBufferStatus& status) const;
    // Puts a filled buffer in a slot; returns the buffer it replaced.
    ArvBuffer* place(uint32_t index, ArvBuffer* buffer, const OrvixBufferStatus& status);

  private:
    struct Slot {
        ArvBuffer* buffer = nullptr;
        OrvixBufferStatus status{};
    };
    mutable std::mutex mutex_;
    size_t bytes_ = 0;
    std::vector<ArvBuffer*> pool_;  // one reference each, held for the ring's life
    std::vector<Slot> slots_;
};

struct GrabSetup {
    uint32_t width = 0;
    uint32_t height = 0;
    uint32_t pfnc = 0;
    uint64_t frameBytes = 0;
    bool swapRedBlue = false;
    bool single = false;
    bool triggered = false;
    // A free-running grab without a frame for this long has lost its camera.
    std::chrono::nanoseconds silenceLimit{std::chrono::seconds(2)};
};

class Acquisition {
  public:
    using SteadyTime = std::chrono::steady_clock::time_point;
    enum class Outcome { kPending, kDone, kFailed, kAborted };

    Acquisition(Ring& ring, CallbackRegistry& callbacks, const GrabSetup& setup);
    ~Acquisition();  // ends the delivery thread; never call it on that thread
    Acquisition(const Acquisition&) = delete;
    Acquisition& operator=(const Acquisition&) = delete;

    // The stream's callback; user data is the Acquisition. Runs on the stream's thread.
    static void onStream(void* self, ArvStreamCallbackType type, ArvBuffer* buffer);

    // Hands the spare buffers to the stream (borrowed: the owner keeps it alive until after
    // join()) and starts the delivery thread.
    void start(ArvStream* stream);
    // No event is delivered once this has returned on the delivery thread, or once join() has
    // returned on any other.
    void requestStop();
    void join();
    bool onDeliveryThread() const;

    // Single shot: waits for its frame (or its failure, or an abort) until the deadline.
    Outcome awaitFirst(SteadyTime deadline, const std::atomic<bool>& linkLost);
    void abort();
    std::string failure() const;

    const GrabSetup& setup() const { return setup_; }
    uint32_t lost() const;
    double rate() const;
    // Time since the last frame arrived (since start before the first).
    std::chrono::nanoseconds silentFor() const;

  private:
    enum class Note { kStart, kDone };
    void run();
    // Takes the buffer the stream just finished; `lock` is held on entry and exit.
    void deliver(std::unique_lock<std::mutex>& lock, ArvBuffer* buffer);
    void giveBack(ArvBuffer* buffer);

    Ring& ring_;
    CallbackRegistry& callbacks_;
    const GrabSetup setup_;
    ArvStream* stream_ = nullptr;

    mutable std::mutex mutex_;
    std::condition_variable cv_;
    std::deque<Note> notes_;
    bool stop_ = false;
    bool aborted_ = false;
    Outcome outcome_ = Outcome::kPending;
    std::string failure_;
    uint64_t delivered_ = 0;
    FrameSequence sequence_;
    SteadyTime startedAt_{};
    SteadyTime lastFrameAt_{};
    int64_t startRealTimeUs_ = 0;
    std::thread thread_;
};

}  // namespace orvix::aravis
