// One open simulated board: its parameters, registers, buffer ring, callbacks and streaming,
// behind the operations of the board-library ABI (as Status results; the ABI layer turns them
// into return values and the last-error record).
// Thread: every method from any thread. Lock order: the board's mutex (parameters), then the
// streamer's; no lock is held while the streamer waits for its thread.
#pragma once

#include <cstdint>
#include <memory>
#include <mutex>
#include <string>

#include "BoardConfig.h"
#include "BufferRing.h"
#include "CallbackRegistry.h"
#include "ParameterStore.h"
#include "RegisterSpace.h"
#include "Status.h"
#include "Streamer.h"

namespace orvix::sim {

class Board {
  public:
    explicit Board(BoardConfig config);
    ~Board();
    Board(const Board&) = delete;
    Board& operator=(const Board&) = delete;

    const BoardConfig& config() const { return config_; }

    Status getInfo(uint32_t id, uint32_t& value);
    Status setInfo(uint32_t id, uint32_t value);

    Status registerCallback(uint32_t event, OrvixCallback function, void* context);
    Status unregisterCallback(uint32_t event);

    // frameCount 1 blocks until the frame is in buffer 0 (or failed); 0 runs until stopped.
    Status startGrab(uint32_t frameCount);
    Status stopGrab();
    Status bufferAddress(uint32_t index, void*& address);
    Status bufferStatus(uint32_t index, OrvixBufferStatus& status);
    int32_t cameraStatus() const;
    double frameRate() const;

    Status loadConfiguration(const std::string& path);
    Status saveConfiguration(const std::string& path);

    Status readRegister(uint32_t address, uint32_t& value);
    Status writeRegister(uint32_t address, uint32_t value);

    Streamer& streamer() { return *streamer_; }

  private:
    GrabSetup grabSetup() const;
    // Buffers are sized for the current frame before anyone looks at them.
    Status ensureRing();

    const BoardConfig config_;
    mutable std::mutex mutex_;  // guards params_
    ParameterStore params_;
    RegisterSpace registers_;
    BufferRing ring_;
    CallbackRegistry callbacks_;
    std::unique_ptr<Streamer> streamer_;  // last: its thread uses the ring and the callbacks
};

}  // namespace orvix::sim
