// The callbacks registered on one board, keyed by event id: the frame events 1 to 4 and the
// input-signal events (a base 1, 2, 4 ... 128 plus exactly one polarity bit).
// Thread: add/remove/query from any thread; fire() from the board thread only. remove() waits
// until a call of that event in progress has returned (so the caller may free the context), except
// when it is called from inside a callback on the board thread.
#pragma once

#include <condition_variable>
#include <cstdint>
#include <map>
#include <mutex>

#include "OrvixBoard.h"
#include "Status.h"

namespace orvix::sim {

class CallbackRegistry {
  public:
    static bool isFrameEvent(uint32_t event);
    static bool isSignalEvent(uint32_t event);
    static bool isValidEvent(uint32_t event) { return isFrameEvent(event) || isSignalEvent(event); }

    Status add(uint32_t event, OrvixCallback function, void* context);
    void remove(uint32_t event);
    bool isRegistered(uint32_t event) const;
    // Bits 0..7: signal rows with a callback of either polarity.
    uint32_t watchedSignals() const;

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
    uint32_t firing_ = 0;  // event whose callback is running, 0 when none
    bool busy_ = false;
};

}  // namespace orvix::sim
