#include "imaging/frame_image.h"

#include <algorithm>

#include <opencv2/imgproc.hpp>

namespace lumetra {

int BayerConversionCode(int pattern) {
    switch (pattern) {
        case 1:  // BGGR
            return cv::COLOR_BayerRG2BGR;
        case 2:  // RGGB
            return cv::COLOR_BayerBG2BGR;
        case 3:  // GBRG
            return cv::COLOR_BayerGR2BGR;
        case 4:  // GRBG
            return cv::COLOR_BayerGB2BGR;
        default:
            return -1;
    }
}

cv::Rect BayerRegion(int x1, int y1, int x2, int y2, int width, int height) {
    // Even offsets keep the Bayer phase of the region that of the whole frame.
    int64_t left = std::max<int64_t>(0, int64_t{x1} - 2);
    left -= left % 2;
    int64_t top = std::max<int64_t>(0, int64_t{y1} - 2);
    top -= top % 2;
    const int64_t right = std::min<int64_t>(width, int64_t{x2} + 2);
    const int64_t bottom = std::min<int64_t>(height, int64_t{y2} + 2);
    if (right <= left || bottom <= top) {
        return {};
    }
    return {static_cast<int>(left), static_cast<int>(top), static_cast<int>(right - left),
            static_cast<int>(bottom - top)};
}

bool IsHighBitPixelCount(int pixelBitCount) {
    switch (pixelBitCount) {
        case 10:
        case 12:
        case 14:
        case 16:
        case 30:
        case 36:
        case 40:
        case 42:
        case 48:
        case 56:
        case 64:
            return true;
        default:
            return false;
    }
}

FrameLayout LayoutOf(const FrameFormat& format) {
    FrameLayout layout;
    const int64_t bytesPerPixel = format.bitsPerPixel / 8;
    layout.frameBytes = static_cast<uint64_t>(
        std::max<int64_t>(0, bytesPerPixel * format.height * int64_t{format.width}));
    layout.channels = format.channels;
    if (format.rgbc && format.channels == 3) {
        layout.channels = 4;
    }
    // A format without channels has no sample width; it fails at the raw image.
    const int bitsPerSample = layout.channels > 0 ? format.bitsPerPixel / layout.channels : 0;
    layout.depth = bitsPerSample == 8 ? 8 : 16;
    return layout;
}

bool KeepBayerFor(uint64_t frameBytes, BayerSettings& bayer, MessageLog& log) {
    if (!bayer.enabled || bayer.pattern == 0) {
        return false;
    }
    if (frameBytes > kMaxBayerFrameBytes) {
        bayer.enabled = false;
        bayer.pattern = 0;
        log.log(kBayerTooLargeText);
        return false;
    }
    return true;
}

FrameImage::FrameImage(BlockAllocator& allocator)
    : raw_(allocator), colour_(allocator), aux_(allocator) {
    raw_.Create(8, 3, format_.width, format_.height);
}

bool FrameImage::Allocate(int pixelBitCount, BayerSettings& bayer, MessageLog& log) {
    const FrameLayout layout = LayoutOf(format_);
    if (!raw_.TryCreate(layout.depth, layout.channels, format_.width, format_.height)) {
        return false;
    }
    // Decided on the frame's byte size before any colour block is asked for.
    if (KeepBayerFor(layout.frameBytes, bayer, log)) {
        if (!colour_.TryCreate(raw_.depth(), 3, raw_.width(), raw_.height())) {
            return false;
        }
    }
    // A mono frame one pixel wide or tall has no whole 2 x 2 cell: its plane is one pixel, which
    // the phase planes refuse to fill, rather than no image at all.
    const bool made =
        raw_.channels() > 1
            ? aux_.TryCreate(raw_.depth(), raw_.channels(), raw_.width(), raw_.height())
            : aux_.TryCreate(raw_.depth(), 1, std::max(1, raw_.width() / 2),
                             std::max(1, raw_.height() / 2));
    if (!made) {
        return false;
    }
    eightBitShift_ = false;
    shift_ = 0;
    highBit_ = IsHighBitPixelCount(pixelBitCount);
    frameCount_ = 0;
    return true;
}

void FrameImage::DemosaicRegion(int x1, int y1, int x2, int y2, const BayerSettings& bayer,
                                int displayMode, const std::function<void()>& rebuildChannelImage) {
    // Checked under the lock: the grab path may be reallocating the raw image.
    std::lock_guard lock(frameLock_);
    if (!raw_.hasImage() || !bayer.enabled || bayer.pattern == 0) {
        return;
    }
    if (displayMode >= 5 && displayMode <= 8) {
        if (rebuildChannelImage) {
            rebuildChannelImage();
        }
        return;
    }
    const cv::Rect region = BayerRegion(x1, y1, x2, y2, raw_.width(), raw_.height());
    if (region.empty()) {
        return;
    }
    raw_.SetRegion(region.x, region.y, region.width, region.height);
    colour_.SetRegion(region.x, region.y, region.width, region.height);
    ImageBuffer::ConvertColour(raw_, colour_, BayerConversionCode(bayer.pattern));
    raw_.SetRegion(0, 0, raw_.width(), raw_.height());
    colour_.SetRegion(0, 0, colour_.width(), colour_.height());
}

}  // namespace lumetra
