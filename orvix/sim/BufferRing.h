// The board's DMA-style ring: `count` buffers of one frame each, each with its status record.
// The board thread writes a buffer and then publishes its status; readers take the status under
// the ring's lock and read pixels through the address, as from real DMA memory.
// Thread: status and address queries from any thread; allocate() only while no grab runs;
// markWriting()/publish()/data() from the board thread during a grab.
#pragma once

#include <cstdint>
#include <cstdlib>
#include <memory>
#include <mutex>
#include <vector>

#include "OrvixBoard.h"
#include "Status.h"

namespace orvix::sim {

class BufferRing {
  public:
    // The ring refuses to exceed this in total; beyond it the host would thrash, not grab.
    static constexpr uint64_t kMaxTotalBytes = uint64_t{8} << 30;

    // Keeps the current buffers when count and size already match; else replaces them with
    // zeroed ones and clears every status record.
    Status allocate(uint32_t count, uint64_t bytesPerBuffer);
    // Marks every buffer not ready (a new grab starts from buffer 0).
    void resetStatuses();

    uint32_t count() const;
    uint64_t bufferBytes() const;

    Status address(uint32_t index, void*& address) const;
    Status status(uint32_t index, OrvixBufferStatus& status) const;

    uint8_t* data(uint32_t index) const;
    void markWriting(uint32_t index);
    void publish(uint32_t index, const OrvixBufferStatus& status);

  private:
    struct FreeDeleter {
        void operator()(uint8_t* p) const { std::free(p); }
    };
    using Block = std::unique_ptr<uint8_t, FreeDeleter>;

    Status checkIndex(uint32_t index) const;

    mutable std::mutex mutex_;
    uint64_t bytes_ = 0;
    std::vector<Block> buffers_;
    std::vector<OrvixBufferStatus> statuses_;
};

}  // namespace orvix::sim
