#include "BufferRing.h"

#include <cstring>
#include <string>

namespace orvix::sim {
namespace {
constexpr size_t kAlignment = 64;
}

Status BufferRing::allocate(uint32_t count, uint64_t bytesPerBuffer) {
    std::lock_guard lock(mutex_);
    if (count == buffers_.size() && bytesPerBuffer == bytes_) {
        return Status::success();
    }
    if (count == 0 || bytesPerBuffer == 0 || bytesPerBuffer > kMaxTotalBytes / count) {
        return Status::fail(ORVIX_ERR_REFUSED, "Cannot allocate " + std::to_string(count) +
                                                   " buffers of " + std::to_string(bytesPerBuffer) +
                                                   " bytes");
    }
    buffers_.clear();
    statuses_.clear();
    bytes_ = 0;
    uint64_t rounded = (bytesPerBuffer + kAlignment - 1) / kAlignment * kAlignment;
    std::vector<Block> fresh;
    for (uint32_t i = 0; i < count; ++i) {
        auto* p = static_cast<uint8_t*>(std::aligned_alloc(kAlignment, rounded));
        if (p == nullptr) {
            return Status::fail(ORVIX_ERR_REFUSED, "Out of memory for the buffer ring (" +
                                                       std::to_string(count) + " x " +
                                                       std::to_string(bytesPerBuffer) + " bytes)");
        }
        std::memset(p, 0, rounded);
        fresh.emplace_back(p);
    }
    buffers_ = std::move(fresh);
    statuses_.assign(count, OrvixBufferStatus{});
    bytes_ = bytesPerBuffer;
    return Status::success();
}

void BufferRing::resetStatuses() {
    std::lock_guard lock(mutex_);
    std::fill(statuses_.begin(), statuses_.end(), OrvixBufferStatus{});
}

uint32_t BufferRing::count() const {
    std::lock_guard lock(mutex_);
    return static_cast<uint32_t>(buffers_.size());
}

uint64_t BufferRing::bufferBytes() const {
    std::lock_guard lock(mutex_);
    return bytes_;
}

Status BufferRing::checkIndex(uint32_t index) const {
    if (index >= buffers_.size()) {
        return Status::fail(ORVIX_ERR_INVALID_ARGUMENT,
                            "Buffer index " + std::to_string(index) + " is outside the ring of " +
                                std::to_string(buffers_.size()) + " buffers",
                            index);
    }
    return Status::success();
}

Status BufferRing::address(uint32_t index, void*& address) const {
    std::lock_guard lock(mutex_);
    Status s = checkIndex(index);
    if (s.ok()) {
        address = buffers_[index].get();
    }
    return s;
}

Status BufferRing::status(uint32_t index, OrvixBufferStatus& status) const {
    std::lock_guard lock(mutex_);
    Status s = checkIndex(index);
    if (s.ok()) {
        status = statuses_[index];
    }
    return s;
}

uint8_t* BufferRing::data(uint32_t index) const {
    std::lock_guard lock(mutex_);
    return index < buffers_.size() ? buffers_[index].get() : nullptr;
}

void BufferRing::markWriting(uint32_t index) {
    std::lock_guard lock(mutex_);
    if (index < statuses_.size()) {
        statuses_[index] = OrvixBufferStatus{};
    }
}

void BufferRing::publish(uint32_t index, const OrvixBufferStatus& status) {
    std::lock_guard lock(mutex_);
    if (index < statuses_.size()) {
        statuses_[index] = status;
    }
}

}  // namespace orvix::sim
