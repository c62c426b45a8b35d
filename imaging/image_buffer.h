// One image: a pixel block owned by the buffer with a cv::Mat header bound to it (no copy), plus
// the region and channel of interest the header's users honour. Blocks of 2 GiB or more are
// "large": every copy and colour conversion has a hand-written path for them, kept from the days
// when the image library could not address such blocks.
//
// Thread: none of its own; the owner's lock (the Frame image's frame lock) guards every access.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

#include <opencv2/core/mat.hpp>

namespace lumetra {

// Where pixel blocks come from. The board document's allocation fallbacks and the tests swap it to
// see how the buffers behave when memory runs out.
class BlockAllocator {
  public:
    virtual ~BlockAllocator() = default;
    // nullptr when no block of that size can be had.
    virtual void* allocate(std::size_t size) = 0;
    virtual void free(void* block) = 0;
};

// The process-wide malloc/free allocator.
BlockAllocator& DefaultBlockAllocator();

class ImageBuffer {
  public:
    static constexpr uint64_t kLargeSize = uint64_t{1} << 31;
    // Every new block is filled with this byte, not zero.
    static constexpr unsigned char kFillByte = 3;

    explicit ImageBuffer(BlockAllocator& allocator = DefaultBlockAllocator());
    ~ImageBuffer();
    ImageBuffer(const ImageBuffer&) = delete;
    ImageBuffer& operator=(const ImageBuffer&) = delete;
    ImageBuffer(ImageBuffer&& other) noexcept;
    ImageBuffer& operator=(ImageBuffer&& other) noexcept;

    // (depth / 8) x channels x width x height in 64 bits; negative inputs give 0.
    static uint64_t ByteSize(int depth, int channels, int width, int height);
    static bool IsLargeSize(uint64_t size) { return size >= kLargeSize; }

    // depth 8 or 16, channels 1 to 4, width and height > 0. A block of the same byte size is kept
    // (and refilled); otherwise this form frees the old block before taking the new one, and when
    // none can be had the buffer ends empty.
    void Create(int depth, int channels, int width, int height);
    // Takes the new block before freeing the old one; when none can be had, returns false and
    // leaves the buffer as it was. A shape that no header can describe releases the buffer.
    bool TryCreate(int depth, int channels, int width, int height);
    // Frees the block and clears every field.
    void Release();

    // Region to region (equal region sizes, depth and channels), or one channel to one channel
    // when a channel of interest is set on either side (each side then needs a channel of interest
    // or a single channel). Mismatches and buffers without an image are ignored.
    static void Copy(const ImageBuffer& src, ImageBuffer& dst);
    // cv::cvtColor on the region views. For large buffers only the Bayer-to-BGR codes and
    // cv::COLOR_BGR2RGB are served; any other code is ignored.
    static void ConvertColour(const ImageBuffer& src, ImageBuffer& dst, int code);

    // The hand-written paths that Copy and ConvertColour take when either buffer is large. They
    // accept buffers of any size, so that they can be checked against OpenCV on small images.
    static void CopyLarge(const ImageBuffer& src, ImageBuffer& dst);
    static void ConvertColourLarge(const ImageBuffer& src, ImageBuffer& dst, int code);

    // Clipped to the frame; a region that does not meet the frame is ignored, as is any call on a
    // buffer without an image.
    void SetRegion(int x, int y, int width, int height);
    void ResetRegion();
    // 1-based; 0 selects none. Values outside 0..channels are ignored.
    void SetChannelOfInterest(int coi);

    // Samples of one pixel, from the whole frame: 1, 3 or 4 channels fill that many values; any
    // other count, a buffer without an image or a position outside it gives zeros.
    std::array<double, 4> ReadPixel(int row, int column) const;

    bool hasImage() const { return block_ != nullptr && !header_.empty(); }
    unsigned char* data() const { return data_; }
    bool large() const { return large_; }
    uint64_t size() const { return size_; }
    int width() const { return width_; }
    int height() const { return height_; }
    int depth() const { return depth_; }
    int channels() const { return channels_; }
    int widthStep() const { return widthStep_; }
    const void* block() const { return block_; }

    // The header over the whole block. It shares the block without owning it: it is valid until
    // the next Create or Release.
    cv::Mat mat() const { return header_; }
    // The header narrowed to the region of interest.
    cv::Mat view() const;
    cv::Rect region() const { return roi_; }
    int channelOfInterest() const { return coi_; }

    // New blocks come from this allocator; a block is always freed by the one that made it.
    BlockAllocator& allocator() const { return *allocator_; }
    void setAllocator(BlockAllocator& allocator) { allocator_ = &allocator; }

  private:
    bool CreateImpl(int depth, int channels, int width, int height, bool allocateFirst);
    void FreeBlock();
    bool fullRegion() const { return roi_ == cv::Rect(0, 0, width_, height_); }

    unsigned char* data_ = nullptr;
    bool large_ = false;
    uint64_t size_ = 0;
    int width_ = 0;
    int height_ = 0;
    int depth_ = 0;
    int channels_ = 0;
    int widthStep_ = 0;
    cv::Mat header_;
    void* block_ = nullptr;
    cv::Rect roi_;
    int coi_ = 0;
    BlockAllocator* allocator_;
    BlockAllocator* blockAllocator_ = nullptr;
};

}  // namespace lumetra
