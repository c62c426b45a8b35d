// The callbacks registered on one camera, for the frame events 1 to 4. Cameras have no input
// signals to count, so the signal events of the board are refused.
// Thread: add/remove from any thread; fire() from the thread that delivers a grab's events.
// remove() returns once no call of that event is running, except for a call the calling thread
// is itself inside of (a callback unregistering itself).
#pragma once

#include <condition_variable>
#include <cstdint>
#include <map>
#include <mutex>

#include "OrvixBoard.h"
#include "Status.h"

namespace orvix::aravis {

class CallbackRegistry {
  public:
    static bool isFrameEvent(uint32_t event) {
        return event >= ORVIX_EVENT_FRAME_READY && event <= ORVIX_EVENT_FRAME_START;
    }

    Status add(uint32_t event, OrvixCallback function, void* context);
    Status remove(uint32_t event);
    bool isRegistered(uint32_t event) const;

    // Calls the callback of `event`, if any, without holding the lock. Returns whether it ran.
    bool fire(uint32_t event);

  private:
    struct Entry {
        OrvixCallback function;
        void* context;
    };

    mutable std::mutex mutex_;
    std::condition_variable idle_;
    std::map<uint32_t, Entry> entries_;
    std::map<uint32_t, int> running_;  // calls in progress by event
};

}  // namespace orvix::aravis
