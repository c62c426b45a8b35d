#include "imaging/image_buffer.h"

#include <algorithm>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <utility>

#include <opencv2/core.hpp>
#include <opencv2/imgproc.hpp>

#include "imaging/large_demosaic.h"

namespace lumetra {

// Callers pass OpenCV's own numbers around; the large path switches on them.
static_assert(cv::COLOR_BGR2RGB == 4);
static_assert(cv::COLOR_BayerBG2BGR == 46);
static_assert(cv::COLOR_BayerGB2BGR == 47);
static_assert(cv::COLOR_BayerRG2BGR == 48);
static_assert(cv::COLOR_BayerGR2BGR == 49);

namespace {

class MallocAllocator final : public BlockAllocator {
  public:
    void* allocate(std::size_t size) override { return std::malloc(size); }
    void free(void* block) override { std::free(block); }
};

// The shapes a header can describe. Rows are never padded, so a row must fit the int row step.
bool ValidShape(int depth, int channels, int width, int height) {
    if ((depth != 8 && depth != 16) || channels < 1 || channels > 4 || width < 1 || height < 1) {
        return false;
    }
    return int64_t{depth / 8} * channels * width <= INT_MAX;
}

bool IsBayerToBgr(int code) {
    return code == cv::COLOR_BayerBG2BGR || code == cv::COLOR_BayerGB2BGR ||
           code == cv::COLOR_BayerRG2BGR || code == cv::COLOR_BayerGR2BGR;
}

// Swaps the first and third sample of every 3-sample pixel of a whole block. src and dst may be
// the same block. Reads and writes stay inside [0, samples) of both.
template <typename T>
void SwapOuterSamples(const T* src, T* dst, uint64_t samples) {
    const uint64_t end = samples - samples % 3;
    for (uint64_t i = 0; i < end; i += 3) {
        const T first = src[i];
        const T middle = src[i + 1];
        const T third = src[i + 2];
        dst[i] = third;
        if (dst != src) {
            dst[i + 1] = middle;
        }
        dst[i + 2] = first;
    }
}

// Preconditions shared by both copy paths, so that they agree on what they refuse.
bool CanCopy(const ImageBuffer& src, const ImageBuffer& dst) {
    if (!src.hasImage() || !dst.hasImage() || src.depth() != dst.depth() ||
        src.region().size() != dst.region().size() || src.region().empty()) {
        return false;
    }
    if (src.channelOfInterest() != 0 || dst.channelOfInterest() != 0) {
        return (src.channelOfInterest() != 0 || src.channels() == 1) &&
               (dst.channelOfInterest() != 0 || dst.channels() == 1);
    }
    return src.channels() == dst.channels();
}

template <typename T>
void CopyChannel(const ImageBuffer& src, ImageBuffer& dst) {
    const cv::Rect sr = src.region();
    const cv::Rect dr = dst.region();
    const int sc = src.channelOfInterest() != 0 ? src.channelOfInterest() - 1 : 0;
    const int dc = dst.channelOfInterest() != 0 ? dst.channelOfInterest() - 1 : 0;
    const std::size_t srcStride = static_cast<std::size_t>(src.channels());
    const std::size_t dstStride = static_cast<std::size_t>(dst.channels());
    for (int r = 0; r < sr.height; ++r) {
        const T* s = reinterpret_cast<const T*>(src.data() + static_cast<std::size_t>(sr.y + r) *
                                                                 src.widthStep()) +
                     static_cast<std::size_t>(sr.x) * srcStride + sc;
        T* d = reinterpret_cast<T*>(dst.data() +
                                    static_cast<std::size_t>(dr.y + r) * dst.widthStep()) +
               static_cast<std::size_t>(dr.x) * dstStride + dc;
        for (int c = 0; c < sr.width; ++c) {
            d[c * dstStride] = s[c * srcStride];
        }
    }
}

}  // namespace

BlockAllocator& DefaultBlockAllocator() {
    static MallocAllocator allocator;
    return allocator;
}

ImageBuffer::ImageBuffer(BlockAllocator& allocator) : allocator_(&allocator) {}

ImageBuffer::~ImageBuffer() {
    Release();
}

ImageBuffer::ImageBuffer(ImageBuffer&& other) noexcept : allocator_(other.allocator_) {
    *this = std::move(other);
}

ImageBuffer& ImageBuffer::operator=(ImageBuffer&& other) noexcept {
    if (this == &other) {
        return *this;
    }
    Release();
    data_ = std::exchange(other.data_, nullptr);
    large_ = std::exchange(other.large_, false);
    size_ = std::exchange(other.size_, 0);
    width_ = std::exchange(other.width_, 0);
    height_ = std::exchange(other.height_, 0);
    depth_ = std::exchange(other.depth_, 0);
    channels_ = std::exchange(other.channels_, 0);
    widthStep_ = std::exchange(other.widthStep_, 0);
    header_ = std::exchange(other.header_, cv::Mat());
    block_ = std::exchange(other.block_, nullptr);
    roi_ = std::exchange(other.roi_, cv::Rect());
    coi_ = std::exchange(other.coi_, 0);
    allocator_ = other.allocator_;
    blockAllocator_ = std::exchange(other.blockAllocator_, nullptr);
    return *this;
}

uint64_t ImageBuffer::ByteSize(int depth, int channels, int width, int height) {
    if (depth < 0 || channels < 0 || width < 0 || height < 0) {
        return 0;
    }
    return uint64_t(depth / 8) * uint64_t(channels) * uint64_t(width) * uint64_t(height);
}

void ImageBuffer::Create(int depth, int channels, int width, int height) {
    CreateImpl(depth, channels, width, height, false);
}

bool ImageBuffer::TryCreate(int depth, int channels, int width, int height) {
    return CreateImpl(depth, channels, width, height, true);
}

bool ImageBuffer::CreateImpl(int depth, int channels, int width, int height, bool allocateFirst) {
    // No header can describe such a shape; deciding that before any block is taken saves
    // allocating one only to release it.
    if (!ValidShape(depth, channels, width, height)) {
        Release();
        return false;
    }
    const uint64_t size = ByteSize(depth, channels, width, height);
    if (size != size_) {
        if (allocateFirst) {
            void* block = allocator_->allocate(static_cast<std::size_t>(size));
            if (block == nullptr) {
                return false;
            }
            FreeBlock();
            block_ = block;
        } else {
            FreeBlock();
            block_ = allocator_->allocate(static_cast<std::size_t>(size));
        }
        if (block_ != nullptr) {
            blockAllocator_ = allocator_;
        }
    }
    if (block_ == nullptr) {
        Release();
        return false;
    }
    size_ = size;
    std::memset(block_, kFillByte, static_cast<std::size_t>(size));
    const int step = depth / 8 * width * channels;
    try {
        header_ = cv::Mat(height, width, CV_MAKETYPE(depth == 8 ? CV_8U : CV_16U, channels), block_,
                          static_cast<std::size_t>(step));
    } catch (const cv::Exception&) {
        Release();
        return false;
    }
    large_ = IsLargeSize(size);
    data_ = header_.data;
    width_ = header_.cols;
    height_ = header_.rows;
    depth_ = depth;
    channels_ = header_.channels();
    widthStep_ = static_cast<int>(header_.step[0]);
    roi_ = cv::Rect(0, 0, width_, height_);
    coi_ = 0;
    return true;
}

void ImageBuffer::FreeBlock() {
    if (block_ != nullptr) {
        blockAllocator_->free(block_);
    }
    block_ = nullptr;
    blockAllocator_ = nullptr;
}

void ImageBuffer::Release() {
    header_ = cv::Mat();
    FreeBlock();
    data_ = nullptr;
    large_ = false;
    size_ = 0;
    width_ = height_ = depth_ = channels_ = widthStep_ = 0;
    roi_ = cv::Rect();
    coi_ = 0;
}

cv::Mat ImageBuffer::view() const {
    if (header_.empty()) {
        return header_;
    }
    return header_(roi_);
}

void ImageBuffer::SetRegion(int x, int y, int width, int height) {
    if (!hasImage()) {
        return;
    }
    // Same acceptance as the image library's region setter: the region must start inside the
    // frame and reach into it; the rest is clipped.
    if (width < 0 || height < 0 || x >= width_ || y >= height_ ||
        int64_t{x} + width < (width > 0 ? 1 : 0) || int64_t{y} + height < (height > 0 ? 1 : 0)) {
        return;
    }
    const int64_t right = std::min<int64_t>(int64_t{x} + width, width_);
    const int64_t bottom = std::min<int64_t>(int64_t{y} + height, height_);
    const int left = std::max(x, 0);
    const int top = std::max(y, 0);
    roi_ = cv::Rect(left, top, static_cast<int>(right - left), static_cast<int>(bottom - top));
}

void ImageBuffer::ResetRegion() {
    if (hasImage()) {
        roi_ = cv::Rect(0, 0, width_, height_);
    }
}

void ImageBuffer::SetChannelOfInterest(int coi) {
    if (hasImage() && coi >= 0 && coi <= channels_) {
        coi_ = coi;
    }
}

std::array<double, 4> ImageBuffer::ReadPixel(int row, int column) const {
    std::array<double, 4> values{0.0, 0.0, 0.0, 0.0};
    if (data_ == nullptr || row < 0 || row >= height_ || column < 0 || column >= width_) {
        return values;
    }
    if (channels_ != 1 && channels_ != 3 && channels_ != 4) {
        return values;
    }
    const unsigned char* p = data_ + static_cast<std::size_t>(widthStep_) * row +
                             static_cast<std::size_t>(depth_ / 8) * channels_ * column;
    for (int i = 0; i < channels_; ++i) {
        if (depth_ == 8) {
            values[i] = p[i];
        } else {
            uint16_t sample;
            std::memcpy(&sample, p + 2 * i, sizeof sample);
            values[i] = sample;
        }
    }
    return values;
}

void ImageBuffer::Copy(const ImageBuffer& src, ImageBuffer& dst) {
    if (&src == &dst || !CanCopy(src, dst)) {
        return;
    }
    if (src.large_ || dst.large_) {
        CopyLarge(src, dst);
        return;
    }
    const cv::Mat s = src.view();
    cv::Mat d = dst.view();
    if (src.coi_ != 0 || dst.coi_ != 0) {
        const int pair[] = {std::max(src.coi_ - 1, 0), std::max(dst.coi_ - 1, 0)};
        cv::mixChannels(&s, 1, &d, 1, pair, 1);
    } else {
        s.copyTo(d);
    }
}

void ImageBuffer::CopyLarge(const ImageBuffer& src, ImageBuffer& dst) {
    if (&src == &dst || !CanCopy(src, dst)) {
        return;
    }
    if (src.coi_ != 0 || dst.coi_ != 0) {
        if (src.depth_ == 8) {
            CopyChannel<uint8_t>(src, dst);
        } else {
            CopyChannel<uint16_t>(src, dst);
        }
        return;
    }
    if (src.fullRegion() && dst.fullRegion()) {
        std::memcpy(dst.data_, src.data_, static_cast<std::size_t>(src.widthStep_) * src.height_);
        return;
    }
    const std::size_t pixelBytes = static_cast<std::size_t>(src.depth_ / 8) * src.channels_;
    const std::size_t rowBytes = pixelBytes * src.roi_.width;
    for (int r = 0; r < src.roi_.height; ++r) {
        const unsigned char* s = src.data_ +
                                 static_cast<std::size_t>(src.roi_.y + r) * src.widthStep_ +
                                 pixelBytes * src.roi_.x;
        unsigned char* d = dst.data_ + static_cast<std::size_t>(dst.roi_.y + r) * dst.widthStep_ +
                           pixelBytes * dst.roi_.x;
        std::memcpy(d, s, rowBytes);
    }
}

void ImageBuffer::ConvertColour(const ImageBuffer& src, ImageBuffer& dst, int code) {
    if (!src.hasImage() || !dst.hasImage()) {
        return;
    }
    if (src.large_ || dst.large_) {
        ConvertColourLarge(src, dst, code);
        return;
    }
    // A destination of the wrong size or type would make cvtColor allocate a fresh matrix: the
    // result then lands there and the buffer's block is left alone.
    cv::Mat out = dst.view();
    try {
        cv::cvtColor(src.view(), out, code, dst.channels_);
    } catch (const cv::Exception&) {
        // An unsupported code or layout changes nothing.
    }
}

void ImageBuffer::ConvertColourLarge(const ImageBuffer& src, ImageBuffer& dst, int code) {
    if (!src.hasImage() || !dst.hasImage() || src.depth_ != dst.depth_) {
        return;
    }
    if (IsBayerToBgr(code)) {
        const cv::Mat s = src.view();
        cv::Mat d = dst.view();
        if (src.depth_ == 8) {
            DemosaicLarge8(s, d, code);
        } else {
            DemosaicLarge16(s, d, code);
        }
        return;
    }
    if (code != cv::COLOR_BGR2RGB || src.channels_ != 3 || dst.channels_ != 3 ||
        src.size_ != dst.size_) {
        return;
    }
    // The whole block, whatever region is set. Pixel by pixel, so no access falls before the
    // destination or past the source.
    if (src.depth_ == 8) {
        SwapOuterSamples(src.data_, dst.data_, src.size_);
    } else {
        SwapOuterSamples(reinterpret_cast<const uint16_t*>(src.data_),
                         reinterpret_cast<uint16_t*>(dst.data_), src.size_ / 2);
    }
}

}  // namespace lumetra
