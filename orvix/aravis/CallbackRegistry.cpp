#include "CallbackRegistry.h"

#include <cstdio>
#include <string>

namespace orvix::aravis {
namespace {

// The event whose callback this thread is inside of, per registry, so that remove() from inside
// a callback does not wait for itself.
thread_local const CallbackRegistry* tRegistry = nullptr;
thread_local uint32_t tEvent = 0;

std::string hex(uint32_t v) {
    char text[16];
    std::snprintf(text, sizeof text, "0x%X", v);
    return text;
}

}  // namespace

Status CallbackRegistry::add(uint32_t event, OrvixCallback function, void* context) {
    if (!isFrameEvent(event)) {
        return Status::fail(ORVIX_ERR_INVALID_ARGUMENT,
                            "Register callback: event " + hex(event) +
                                " does not exist on a camera (it has no input signals to count)",
                            event);
    }
    if (function == nullptr) {
        return Status::fail(ORVIX_ERR_INVALID_ARGUMENT,
                            "Register callback: no function for event " + hex(event), event);
    }
    std::lock_guard lock(mutex_);
    entries_[event] = Entry{function, context};
    return Status::success();
}

Status CallbackRegistry::remove(uint32_t event) {
    if (!isFrameEvent(event)) {
        return Status::fail(ORVIX_ERR_INVALID_ARGUMENT,
                            "Unregister callback: unknown event " + hex(event), event);
    }
    std::unique_lock lock(mutex_);
    entries_.erase(event);
    const int own = tRegistry == this && tEvent == event ? 1 : 0;
    idle_.wait(lock, [&] { return running_[event] <= own; });
    return Status::success();
}

bool CallbackRegistry::isRegistered(uint32_t event) const {
    std::lock_guard lock(mutex_);
    return entries_.count(event) != 0;
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
        ++running_[event];
    }
    const CallbackRegistry* outerRegistry = tRegistry;
    const uint32_t outerEvent = tEvent;
    tRegistry = this;
    tEvent = event;
    entry.function(event, entry.context);
    tRegistry = outerRegistry;
    tEvent = outerEvent;
    {
        std::lock_guard lock(mutex_);
        --running_[event];
    }
    idle_.notify_all();
    return true;
}

}  // namespace orvix::aravis
