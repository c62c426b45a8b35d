#include "acquisition/frame_store.h"

#include <algorithm>
#include <cstring>

#include "base/debug_output.h"
#include "imaging/jpeg_decoder.h"

namespace lumetra {

FrameStore::FrameStore(BlockAllocator& allocator) : allocator_(allocator) {}

FrameStore::~FrameStore() {
    if (block_ != nullptr) {
        allocator_.free(block_);
    }
}

bool FrameStore::Resize(size_t capacity) {
    std::lock_guard lock(mutex_);
    if (capacity == capacity_ && block_ != nullptr) {
        return true;
    }
    void* block = allocator_.allocate(std::max<size_t>(capacity, 1));
    if (block == nullptr) {
        return false;
    }
    if (block_ != nullptr) {
        allocator_.free(block_);
    }
    block_ = block;
    capacity_ = capacity;
    size_ = 0;
    full_ = false;
    jpeg_ = false;
    return true;
}

void FrameStore::Put(const void* address, size_t size, bool jpeg) {
    std::lock_guard lock(mutex_);
    if (hold_) {
        return;
    }
    const size_t n = std::min(capacity_, size);
    if (n != 0) {
        std::memcpy(block_, address, n);
    }
    size_ = n;
    jpeg_ = jpeg;
    full_ = true;
}

size_t FrameStore::size() const {
    std::lock_guard lock(mutex_);
    return size_;
}

bool FrameStore::full() const {
    std::lock_guard lock(mutex_);
    return full_;
}

bool FrameStore::jpeg() const {
    std::lock_guard lock(mutex_);
    return jpeg_;
}

void FrameStore::setHold(bool hold) {
    std::lock_guard lock(mutex_);
    hold_ = hold;
}

bool FrameStore::ConvertInto(ImageBuffer& raw) const {
    std::lock_guard lock(mutex_);
    if (!full_ || !raw.hasImage()) {
        return false;
    }
    if (jpeg_) {
        // The picture must fit the raw image exactly; failures reach the debug output only.
        cv::Mat decoded;
        std::string error;
        if (!DecodeJpeg(static_cast<const uint8_t*>(block_), size_, decoded, error)) {
            DebugOutput("jpeg decompress failure: " + error);
            return false;
        }
        if (raw.depth() != 8 || decoded.cols != raw.width() || decoded.rows != raw.height() ||
            decoded.channels() != raw.channels()) {
            DebugOutput("jpeg decompress failure: the picture does not fit the frame");
            return false;
        }
        cv::Mat target = raw.mat();
        decoded.copyTo(target);
        return true;
    }
    std::memcpy(raw.data(), block_, std::min<size_t>(size_, raw.size()));
    return true;
}

}  // namespace lumetra
