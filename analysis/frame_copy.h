// The analysis tools' private frame copies and the bit-depth tables they share.
//
// A tool copies the Frame image under the frame lock and its own lock, then lets its workers read
// the copy without any lock. Copies are shared read-only (std::shared_ptr<const FrameCopy>): a
// worker keeps the frame it started on even when the next one arrives, and the block goes back to
// the tool's pool when the last reader lets go, so blocks are reallocated only when the size
// changes.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>
#include <vector>

#include <opencv2/core/mat.hpp>

#include "imaging/image_buffer.h"

namespace lumetra {

// Right shift that brings a sample to 8 bits, by total bits per pixel: 8, 24, 32 give 0; 10, 30,
// 40 give 2; 12, 36 give 4; 14, 42, 56 give 6; 16, 64 give 8; 48 gives 8 for 1 or 3 channels
// and 4 otherwise; anything else 0.
int HistogramShift(int bitsPerPixel, int channels);

// The line-profile table: the value limit and the shift the "Adaptive" mode applies. The 48-bit
// rows pair limits and shifts crosswise, and the fallback limit is 256: both as the panes have
// always drawn them.
struct ValueScale {
    int limit = 256;
    int shift = 0;
};
ValueScale ProfileScale(int bitsPerPixel, int channels);

// One frame as an analysis tool holds it: rows unpadded, samples of 8 bits or 16-bit
// little-endian words, channels interleaved in the frame's order (0 blue, 1 green, 2 red, 3 clear;
// a mono frame has channel 0 only).
class FrameCopy {
  public:
    explicit FrameCopy(BlockAllocator& allocator = DefaultBlockAllocator());
    ~FrameCopy();
    FrameCopy(const FrameCopy&) = delete;
    FrameCopy& operator=(const FrameCopy&) = delete;

    // Sets the geometry and makes room for it; the block is kept when the byte size is unchanged.
    // False when no block can be had (the copy is then empty). width or height 0 gives an empty
    // frame, which is valid.
    bool Reshape(int width, int height, int channels, int depth, int bitsPerPixel);

    int width() const { return width_; }
    int height() const { return height_; }
    int channels() const { return channels_; }
    int depth() const { return depth_; }  // 8 or 16
    int bitsPerPixel() const { return bitsPerPixel_; }
    int shift() const { return HistogramShift(bitsPerPixel_, channels_); }
    std::size_t stride() const { return stride_; }
    std::size_t size() const { return size_; }
    bool empty() const { return width_ == 0 || height_ == 0; }

    uint8_t* data() { return block_; }
    const uint8_t* data() const { return block_; }
    const uint8_t* row(int y) const { return block_ + stride_ * static_cast<std::size_t>(y); }
    uint8_t* row(int y) { return block_ + stride_ * static_cast<std::size_t>(y); }
    // No bounds check: callers clamp.
    uint32_t sample(int x, int y, int c) const {
        const std::size_t i = static_cast<std::size_t>(x) * channels_ + c;
        return depth_ == 8 ? row(y)[i] : reinterpret_cast<const uint16_t*>(row(y))[i];
    }

  private:
    BlockAllocator* allocator_;
    uint8_t* block_ = nullptr;
    std::size_t size_ = 0;
    std::size_t capacity_ = 0;
    std::size_t stride_ = 0;
    int width_ = 0;
    int height_ = 0;
    int channels_ = 0;
    int depth_ = 8;
    int bitsPerPixel_ = 8;
};

// Copies the whole image (its region of interest is ignored). A buffer without an image gives an
// empty frame. False when the copy's block cannot be had.
bool FillFrameCopy(const ImageBuffer& source, int bitsPerPixel, FrameCopy& copy);
// The same from a matrix of CV_8U or CV_16U with 1, 3 or 4 channels.
bool FillFrameCopy(const cv::Mat& source, int bitsPerPixel, FrameCopy& copy);
// A shared copy of a matrix, for callers that have no pool (files, tests, benchmarks); null when
// no memory can be had or the matrix has another type.
std::shared_ptr<const FrameCopy> MakeFrameCopy(const cv::Mat& source, int bitsPerPixel);

// Blocks for frame copies. Take() hands out a returned copy when one waits; a copy given to
// Share() comes back when its last reader lets go. Thread: any.
class FramePool {
  public:
    explicit FramePool(BlockAllocator& allocator = DefaultBlockAllocator());

    std::unique_ptr<FrameCopy> Take();
    std::shared_ptr<const FrameCopy> Share(std::unique_ptr<FrameCopy> copy);
    // Copies waiting to be reused.
    std::size_t spareCount() const;

  private:
    struct Spares {
        std::mutex mutex;
        std::vector<std::unique_ptr<FrameCopy>> copies;
    };
    BlockAllocator* allocator_;
    std::shared_ptr<Spares> spares_;
};

// The frame a tool's workers read: the latest copy and its number (1 for the first frame). Thread:
// guarded by the owning tool's lock.
class FrameSlot {
  public:
    explicit FrameSlot(BlockAllocator& allocator = DefaultBlockAllocator()) : pool_(allocator) {}

    // Copies source into a pooled block and makes it the current frame. On failure the slot has
    // no frame, so the workers compute nothing for it; the number still advances.
    bool Fill(const ImageBuffer& source, int bitsPerPixel);
    void Put(std::shared_ptr<const FrameCopy> frame);

    const std::shared_ptr<const FrameCopy>& frame() const { return frame_; }
    uint64_t sequence() const { return sequence_; }
    FramePool& pool() { return pool_; }

  private:
    FramePool pool_;
    std::shared_ptr<const FrameCopy> frame_;
    uint64_t sequence_ = 0;
};

}  // namespace lumetra
