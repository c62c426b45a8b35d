#include "CallbackRegistry.h"

#include <cstdio>
#include <string>

namespace orvix::sim {
namespace {

constexpr uint32_t kPolarityMask = ORVIX_SIGNAL_RISING_EDGE | ORVIX_SIGNAL_FALLING_EDGE;

// The registry whose callback this thread is running, so that remove() from inside a callback
// does not wait for itself.
thread_local const CallbackRegistry* tFiring = nullptr;

}  // namespace

bool CallbackRegistry::isFrameEvent(uint32_t event) {
    return event >= ORVIX_EVENT_FRAME_READY && event <= ORVIX_EVENT_FRAME_START;
}

bool CallbackRegistry::isSignalEvent(uint32_t event) {
    uint32_t polarity = event & kPolarityMask;
    uint32_t base = event & ~kPolarityMask;
    bool onePolarity =
        polarity == ORVIX_SIGNAL_RISING_EDGE || polarity == ORVIX_SIGNAL_FALLING_EDGE;
    bool oneBase = base != 0 && base <= ORVIX_SIGNAL_INTEGRATION2 && (base & (base - 1)) == 0;
    return onePolarity && oneBase;
}

Status CallbackRegistry::add(uint32_t event, OrvixCallback function, void* context) {
    char hex[16];
    std::snprintf(hex, sizeof hex, "0x%X", event);
    if (!isValidEvent(event)) {
        return Status::fail(ORVIX_ERR_INVALID_ARGUMENT,
                            std::string("Register callback: unknown event ") + hex, event);
    }
    if (function == nullptr) {
        return Status::fail(ORVIX_ERR_INVALID_ARGUMENT,
                            std::string("Register callback: no function for event ") + hex, event);
    }
    std::lock_guard lock(mutex_);
    entries_[event] = Entry{function, context};
    return Status::success();
}

void CallbackRegistry::remove(uint32_t event) {
    std::unique_lock lock(mutex_);
    entries_.erase(event);
    if (tFiring != this) {
        idle_.wait(lock, [&] { return !busy_ || firing_ != event; });
    }
}

bool CallbackRegistry::isRegistered(uint32_t event) const {
    std::lock_guard lock(mutex_);
    return entries_.count(event) != 0;
}

uint32_t CallbackRegistry::watchedSignals() const {
    std::lock_guard lock(mutex_);
    uint32_t mask = 0;
    for (const auto& [event, entry] : entries_) {
        if (isSignalEvent(event)) {
            mask |= event & ~kPolarityMask;
        }
    }
    return mask;
}

bool CallbackRegistry::fire(uint32_t event) {
    Entry entry{};
    {
        std::lock_guard lock(mutex_);
        auto it = entries_.find(event);
        if (it == entries_.end()) {
            return false;
        }
        entry = it->second;
        firing_ = event;
        busy_ = true;
    }
    const CallbackRegistry* outer = tFiring;
    tFiring = this;
    entry.function(event, entry.context);
    tFiring = outer;
    {
        std::lock_guard lock(mutex_);
        busy_ = false;
        firing_ = 0;
    }
    idle_.notify_all();
    return true;
}

}  // namespace orvix::sim
