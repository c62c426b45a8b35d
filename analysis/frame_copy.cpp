#include "analysis/frame_copy.h"

#include <cstring>

namespace lumetra {

int HistogramShift(int bitsPerPixel, int channels) {
    switch (bitsPerPixel) {
        case 10:
        case 30:
        case 40:
            return 2;
        case 12:
        case 36:
            return 4;
        case 14:
        case 42:
        case 56:
            return 6;
        case 16:
        case 64:
            return 8;
        case 48:
            return channels == 1 || channels == 3 ? 8 : 4;
        default:
            return 0;
    }
}

ValueScale ProfileScale(int bitsPerPixel, int channels) {
    switch (bitsPerPixel) {
        case 8:
        case 24:
        case 32:
            return {255, 0};
        case 10:
        case 30:
        case 40:
            return {1023, 2};
        case 12:
        case 36:
            return {4095, 4};
        case 14:
        case 42:
        case 56:
            return {16383, 6};
        case 16:
        case 64:
            return {65535, 8};
        case 48:
            return channels == 1 || channels == 3 ? ValueScale{65535, 4} : ValueScale{4095, 6};
        default:
            return {256, 0};
    }
}

FrameCopy::FrameCopy(BlockAllocator& allocator) : allocator_(&allocator) {}

FrameCopy::~FrameCopy() {
    if (block_ != nullptr) {
        allocator_->free(block_);
    }
}

bool FrameCopy::Reshape(int width, int height, int channels, int depth, int bitsPerPixel) {
    if (width < 0 || height < 0 || (channels != 1 && channels != 3 && channels != 4) ||
        (depth != 8 && depth != 16)) {
        return false;
    }
    const std::size_t stride = static_cast<std::size_t>(width) * channels * (depth / 8);
    const std::size_t size = stride * static_cast<std::size_t>(height);
    if (size != capacity_) {
        if (block_ != nullptr) {
            allocator_->free(block_);
            block_ = nullptr;
            capacity_ = 0;
        }
        if (size != 0) {
            block_ = static_cast<uint8_t*>(allocator_->allocate(size));
            if (block_ == nullptr) {
                width_ = height_ = 0;
                size_ = stride_ = 0;
                return false;
            }
            capacity_ = size;
        }
    }
    width_ = width;
    height_ = height;
    channels_ = channels;
    depth_ = depth;
    bitsPerPixel_ = bitsPerPixel;
    stride_ = stride;
    size_ = size;
    return true;
}

namespace {

bool fillFromMat(const cv::Mat& m, int bitsPerPixel, FrameCopy& copy) {
    const int depth = m.depth() == CV_8U ? 8 : 16;
    if (!copy.Reshape(m.cols, m.rows, m.channels(), depth, bitsPerPixel)) {
        return false;
    }
    const std::size_t rowBytes = copy.stride();
    if (m.isContinuous()) {
        std::memcpy(copy.data(), m.data, copy.size());
    } else {
        for (int y = 0; y < m.rows; ++y) {
            std::memcpy(copy.row(y), m.ptr(y), rowBytes);
        }
    }
    return true;
}

bool supported(const cv::Mat& m) {
    return (m.depth() == CV_8U || m.depth() == CV_16U) &&
           (m.channels() == 1 || m.channels() == 3 || m.channels() == 4) && m.dims == 2;
}

}  // namespace

bool FillFrameCopy(const ImageBuffer& source, int bitsPerPixel, FrameCopy& copy) {
    if (!source.hasImage()) {
        return copy.Reshape(0, 0, 1, 8, bitsPerPixel);
    }
    return fillFromMat(source.mat(), bitsPerPixel, copy);
}

bool FillFrameCopy(const cv::Mat& source, int bitsPerPixel, FrameCopy& copy) {
    if (source.empty()) {
        return copy.Reshape(0, 0, 1, 8, bitsPerPixel);
    }
    if (!supported(source)) {
        return false;
    }
    return fillFromMat(source, bitsPerPixel, copy);
}

std::shared_ptr<const FrameCopy> MakeFrameCopy(const cv::Mat& source, int bitsPerPixel) {
    auto copy = std::make_shared<FrameCopy>();
    if (!FillFrameCopy(source, bitsPerPixel, *copy)) {
        return nullptr;
    }
    return copy;
}

FramePool::FramePool(BlockAllocator& allocator)
    : allocator_(&allocator), spares_(std::make_shared<Spares>()) {}

std::unique_ptr<FrameCopy> FramePool::Take() {
    {
        std::lock_guard lock(spares_->mutex);
        if (!spares_->copies.empty()) {
            std::unique_ptr<FrameCopy> copy = std::move(spares_->copies.back());
            spares_->copies.pop_back();
            return copy;
        }
    }
    return std::make_unique<FrameCopy>(*allocator_);
}

std::shared_ptr<const FrameCopy> FramePool::Share(std::unique_ptr<FrameCopy> copy) {
    // The deleter holds the spares, not the pool: a reader may outlive the tool.
    std::shared_ptr<Spares> spares = spares_;
    return std::shared_ptr<const FrameCopy>(copy.release(), [spares](const FrameCopy* frame) {
        std::unique_ptr<FrameCopy> owned(const_cast<FrameCopy*>(frame));
        std::lock_guard lock(spares->mutex);
        // One spare is enough: the frame in use plus the one being filled.
        if (spares->copies.empty()) {
            spares->copies.push_back(std::move(owned));
        }
    });
}

std::size_t FramePool::spareCount() const {
    std::lock_guard lock(spares_->mutex);
    return spares_->copies.size();
}

bool FrameSlot::Fill(const ImageBuffer& source, int bitsPerPixel) {
    ++sequence_;
    // Let go of the current frame first, so that its block can be refilled when nobody reads it.
    frame_.reset();
    std::unique_ptr<FrameCopy> copy = pool_.Take();
    if (!FillFrameCopy(source, bitsPerPixel, *copy)) {
        return false;
    }
    frame_ = pool_.Share(std::move(copy));
    return true;
}

void FrameSlot::Put(std::shared_ptr<const FrameCopy> frame) {
    ++sequence_;
    frame_ = std::move(frame);
}

}  // namespace lumetra
