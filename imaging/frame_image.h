// The Frame image: the buffers that describe the current frame (raw as the board delivers it,
// colour after Bayer demosaicing, auxiliary for channel planes and luminance/chroma), the frame
// format they were made for, the display-shift flags and the frame lock that guards them.
#pragma once

#include <cstdint>
#include <functional>
#include <mutex>
#include <string_view>

#include "base/messages.h"
#include "imaging/image_buffer.h"

namespace lumetra {

// As the board parameters give it. bitsPerPixel counts all channels.
struct FrameFormat {
    int width = 1024;
    int height = 643;
    int bitsPerPixel = 24;
    int channels = 3;
    // The board sends a fourth "C" sample with 3-channel colour.
    bool rgbc = false;
};

// Bayer pattern values: 0 none, 1 "BGGR", 2 "RGGB", 3 "GBRG", 4 "GRBG".
struct BayerSettings {
    bool enabled = false;
    int pattern = 0;
};

inline constexpr std::string_view kBayerTooLargeText =
    "The image data is too large, disable bayer.\n";
// Frames of more bytes than this are never demosaiced.
inline constexpr uint64_t kMaxBayerFrameBytes = 0x7FFFFFFF;

// The OpenCV Bayer-to-BGR code for a pattern value, or -1 for 0 and unknown values. OpenCV names a
// pattern by the second row's second and third pixel, hence the apparent mismatch.
int BayerConversionCode(int pattern);

// The rectangle (x1, y1)-(x2, y2) of a width x height mosaic widened by 2 pixels on every side
// and clipped, its left and top made even so that it keeps the Bayer phase of the whole frame.
// Empty when nothing of it lies in the frame.
cv::Rect BayerRegion(int x1, int y1, int x2, int y2, int width, int height);

// True for the pixel bit counts of the 10- to 16-bit formats with 1, 3 or 4 channels.
bool IsHighBitPixelCount(int pixelBitCount);

// How a frame format is held in the raw image.
struct FrameLayout {
    uint64_t frameBytes = 0;  // (bitsPerPixel / 8) x height x width
    int channels = 0;         // 4 for RGBC data sent as 3 channels
    int depth = 0;            // 8 when a sample is exactly 8 bits, else 16
};
FrameLayout LayoutOf(const FrameFormat& format);

// Whether a frame of frameBytes gets a colour image. A frame too large for demosaicing switches
// Bayer conversion off (enabled flag and pattern cleared) and logs kBayerTooLargeText once.
bool KeepBayerFor(uint64_t frameBytes, BayerSettings& bayer, MessageLog& log);

class FrameImage {
  public:
    // Starts in the construction-time format (1024 x 643, 3 channels of 8 bits) with its raw image
    // made for it.
    explicit FrameImage(BlockAllocator& allocator = DefaultBlockAllocator());
    FrameImage(const FrameImage&) = delete;
    FrameImage& operator=(const FrameImage&) = delete;

    // (Re)creates the raw, colour and auxiliary images for format(): false when one of them
    // cannot be had. May turn Bayer off for frames too large for it. The caller holds the frame
    // lock if readers may be running.
    bool Allocate(int pixelBitCount, BayerSettings& bayer, MessageLog& log);

    // Demosaics the rectangle (x1, y1)-(x2, y2) of the raw image into the colour image, widened
    // by 2 pixels and aligned to the Bayer phase. In the channel display modes (5 to 8) runs
    // rebuildChannelImage instead, which rebuilds the channel planes from the whole frame. Takes
    // the frame lock: the caller must not hold it.
    void DemosaicRegion(int x1, int y1, int x2, int y2, const BayerSettings& bayer, int displayMode,
                        const std::function<void()>& rebuildChannelImage);

    const FrameFormat& format() const { return format_; }
    void setFormat(const FrameFormat& format) { format_ = format; }

    ImageBuffer& raw() { return raw_; }
    const ImageBuffer& raw() const { return raw_; }
    ImageBuffer& colour() { return colour_; }
    const ImageBuffer& colour() const { return colour_; }
    ImageBuffer& aux() { return aux_; }
    const ImageBuffer& aux() const { return aux_; }

    // Draw 16-bit samples as 8-bit, shifted right by shift().
    bool eightBitShift() const { return eightBitShift_; }
    int shift() const { return shift_; }
    void setEightBitShift(bool enabled, int shift) {
        eightBitShift_ = enabled;
        shift_ = shift;
    }
    // Spread 10- to 14-bit samples over 16 bits for display.
    bool highBit() const { return highBit_; }
    void setHighBit(bool highBit) { highBit_ = highBit; }

    // Frames put into the raw image since it was made or blanked: 0 means no frame is there and
    // the views show the background image. Under the frame lock.
    uint64_t frameCount() const { return frameCount_; }
    void countFrame() { ++frameCount_; }
    void clearFrameCount() { frameCount_ = 0; }

    // Held by whoever reads or writes the raw and colour images. Not recursive.
    //
    // The lock order, everywhere: this frame lock first, then the frame store's lock, then a
    // tool's own lock (an analysis engine's). None of them is held across a board-library call
    // that may block, a JPEG decode or a file write.
    std::mutex& frameLock() { return frameLock_; }

  private:
    FrameFormat format_;
    ImageBuffer raw_;
    ImageBuffer colour_;
    ImageBuffer aux_;
    bool eightBitShift_ = false;
    int shift_ = 0;
    bool highBit_ = false;
    uint64_t frameCount_ = 0;
    std::mutex frameLock_;
};

}  // namespace lumetra
