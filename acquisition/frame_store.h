// The hand-off between the board library's threads and the display: one frame's bytes under a
// lock of its own. The lock order is the frame lock first, then this store's (see FrameImage).
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <mutex>
#include <vector>

#include <opencv2/core/mat.hpp>

#include "base/thread_annotations.h"
#include "imaging/frame_image.h"
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
    bool Resize(size_t capacity) EXCLUDES(mutex_);

    // Copies min(capacity, size) bytes unless a hold is active. Thread: any.
    void Put(const void* address, size_t size, bool jpeg) EXCLUDES(mutex_);

    size_t capacity() const EXCLUDES(mutex_);
    size_t size() const EXCLUDES(mutex_);
    bool full() const EXCLUDES(mutex_);
    bool jpeg() const EXCLUDES(mutex_);

    // Runs fn(bytes, size, jpeg) under the store's lock.
    template <typename Fn>
    void WithFrame(Fn&& fn) const EXCLUDES(mutex_) {
        MutexLock lock(mutex_);
        fn(static_cast<const uint8_t*>(block_), size_, jpeg_);
    }

    // While held, Put keeps the frame it has (the pixel-capture tool's hold).
    void setHold(bool hold) EXCLUDES(mutex_);

    // Puts the held frame into the raw image: JPEG data decompressed, anything else copied. A
    // JPEG frame's bytes are copied out under the store's lock and decoded with no lock held, so
    // that the board's callback never waits for a decode; the picture, or the plain bytes, then
    // go into the raw image under the frame lock, and `then` runs while that lock is still held
    // (the pixel-capture check). False when no frame is held or it cannot be decoded into that
    // image (the reason goes to the debug output only). The caller holds no lock.
    // Thread: one reader at a time (the display thread, or a single shot while none runs).
    bool Deliver(FrameImage& frame, const std::function<void()>& then = {}) EXCLUDES(mutex_);
    bool Deliver(ImageBuffer& raw, std::mutex& frameLock, const std::function<void()>& then = {})
        EXCLUDES(mutex_);

  private:
    bool CopyOut(std::vector<uint8_t>& jpegBytes, bool& jpeg) EXCLUDES(mutex_);

    BlockAllocator& allocator_;
    mutable Mutex mutex_;
    void* block_ GUARDED_BY(mutex_) = nullptr;
    size_t capacity_ GUARDED_BY(mutex_) = 0;
    size_t size_ GUARDED_BY(mutex_) = 0;
    bool jpeg_ GUARDED_BY(mutex_) = false;
    bool full_ GUARDED_BY(mutex_) = false;
    bool hold_ GUARDED_BY(mutex_) = false;

    // The reader's own: compressed bytes taken out of the store, and the decoded picture.
    std::vector<uint8_t> jpegBytes_;
    cv::Mat decoded_;
};

}  // namespace lumetra
