#include "acquisition/frame_store.h"

#include <algorithm>
#include <cstring>

#include "base/debug_output.h"
#include "imaging/jpeg_decoder.h"

namespace lumetra {

FrameStore::FrameStore(BlockAllocator& allocator) : allocator_(allocator) {}

FrameStore::~FrameStore() {
    MutexLock lock(mutex_);
    if (block_ != nullptr) {
        allocator_.free(block_);
    }
}

bool FrameStore::Resize(size_t capacity) {
    MutexLock lock(mutex_);
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
    MutexLock lock(mutex_);
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

size_t FrameStore::capacity() const {
    MutexLock lock(mutex_);
    return capacity_;
}

size_t FrameStore::size() const {
    MutexLock lock(mutex_);
    return size_;
}

bool FrameStore::full() const {
    MutexLock lock(mutex_);
    return full_;
}

bool FrameStore::jpeg() const {
    MutexLock lock(mutex_);
    return jpeg_;
}

void FrameStore::setHold(bool hold) {
    MutexLock lock(mutex_);
    hold_ = hold;
}

bool FrameStore::CopyOut(std::vector<uint8_t>& jpegBytes, bool& jpeg) {
    MutexLock lock(mutex_);
    if (!full_) {
        return false;
    }
    jpeg = jpeg_;
    if (jpeg_) {
        const auto* bytes = static_cast<const uint8_t*>(block_);
        jpegBytes.assign(bytes, bytes + size_);
    }
    return true;
}

bool FrameStore::Deliver(FrameImage& frame, const std::function<void()>& then) {
    // Counted under the frame lock: the views show the background until a frame is there.
    return Deliver(frame.raw(), frame.frameLock(), [&frame, &then] {
        frame.countFrame();
        if (then) {
            then();
        }
    });
}

bool FrameStore::Deliver(ImageBuffer& raw, std::mutex& frameLock,
                         const std::function<void()>& then) {
    bool jpeg = false;
    if (!CopyOut(jpegBytes_, jpeg)) {
        return false;
    }
    if (jpeg) {
        // The picture must fit the raw image exactly; a header that claims otherwise is refused
        // before the decoder allocates anything for it.
        JpegShape shape;
        {
            std::lock_guard frameGuard(frameLock);
            if (!raw.hasImage()) {
                return false;
            }
            if (raw.depth() != 8) {
                DebugOutput("jpeg decompress failure: the frame is not 8-bit");
                return false;
            }
            shape = {raw.width(), raw.height(), raw.channels()};
        }
        std::string error;
        if (!DecodeJpeg(jpegBytes_.data(), jpegBytes_.size(), decoded_, error, &shape)) {
            DebugOutput("jpeg decompress failure: " + error);
            return false;
        }
    }
    std::lock_guard frameGuard(frameLock);
    if (!raw.hasImage()) {
        return false;
    }
    if (jpeg) {
        // The frame's format can change only while no grab runs; checked again all the same.
        if (raw.depth() != 8 || decoded_.cols != raw.width() || decoded_.rows != raw.height() ||
            decoded_.channels() != raw.channels()) {
            DebugOutput("jpeg decompress failure: the picture does not fit the frame");
            return false;
        }
        cv::Mat target = raw.mat();
        decoded_.copyTo(target);
    } else {
        MutexLock lock(mutex_);
        // The store may have been emptied meanwhile only by a Resize, which runs with no grab.
        std::memcpy(raw.data(), block_, std::min<size_t>(size_, raw.size()));
    }
    if (then) {
        then();
    }
    return true;
}

}  // namespace lumetra
