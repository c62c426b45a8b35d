// The hand-off between the board library's threads and the display: one frame's bytes under a
// lock of its own.
#pragma once

#include <cstddef>
#include <cstdint>
#include <mutex>

#include "imaging/image_buffer.h"

namespace lumetra {

class FrameStore {
  public:
    explicit FrameStore(BlockAllocator& allocator = DefaultBlockAllocator());
    ~FrameStore();
    FrameStore(const FrameStore&) = delete;
    FrameStore& operator=(const FrameStore&) = delete;

    // Sizes the block for one frame; false (and the old block kept) when memory cannot be had.
    // Thread: user-interface, with no grab running.
    bool Resize(size_t capacity);

    // Copies min(capacity, size) bytes unless a hold is active. Thread: any.
    void Put(const void* address, size_t size, bool jpeg);

    size_t capacity() const { return capacity_; }
    size_t size() const;
    bool full() const;
    bool jpeg() const;

    // Runs fn(bytes, size, jpeg) under the store's lock.
    template <typename Fn>
    void WithFrame(Fn&& fn) const {
        std::lock_guard lock(mutex_);
        fn(static_cast<const uint8_t*>(block_), size_, jpeg_);
    }

    // While held, Put keeps the frame it has (the pixel-capture tool's hold).
    void setHold(bool hold);

    // Writes the held frame into the raw image: JPEG data decompressed, anything else copied.
    // False when no frame is held or it cannot be decoded into that image (the reason goes to
    // the debug output only). The caller holds the frame lock. Thread: any.
    bool ConvertInto(ImageBuffer& raw) const;

  private:
    BlockAllocator& allocator_;
    mutable std::mutex mutex_;
    void* block_ = nullptr;
    size_t capacity_ = 0;
    size_t size_ = 0;
    bool jpeg_ = false;
    bool full_ = false;
    bool hold_ = false;
};

}  // namespace lumetra
