// Frame bookkeeping of a grab, from the camera's frame ids and time stamps: how many frames were
// lost between two that arrived, the running frame number, and the frame rate.
// GigE Vision counts frames in 16 bits, 1 to 65535 and back to 1 (0 is never used); USB3 Vision
// and GigE Vision 2 extended ids count in 64 bits.
// Thread: a plain value; the owner serialises access.
#pragma once

#include <cstdint>
#include <deque>
#include <optional>

namespace orvix::aravis {

// How far the frame id `next` is ahead of `last` (negative: behind), 16-bit GigE Vision ids
// counted around their wrap.
int64_t frameIdDistance(uint64_t last, uint64_t next);

// Frames missing between the ids of two frames that arrived one after the other: 0 when `next`
// follows `last`; a repeated, late or restarted id counts none.
uint64_t framesLostBetween(uint64_t last, uint64_t next);

class FrameSequence {
  public:
    struct Step {
        uint64_t lost = 0;    // frames missing before this one
        uint32_t number = 0;  // running number since the grab started, lost frames counted
    };
    // A frame with this id arrived (in the order they come). An id a little behind the last one
    // (a late frame, or the stale id of a frame whose leader was lost) neither counts losses nor
    // moves the reference; one far behind is a restarted camera and starts counting anew.
    Step arrive(uint64_t frameId);

    // Frames per second over the last frames' time stamps (nanoseconds); 0 with fewer than two.
    void stamp(uint64_t timestampNs);
    double rate() const;

    uint64_t lostTotal() const { return lostTotal_; }

  private:
    std::optional<uint64_t> lastId_;
    uint64_t next_ = 0;
    uint64_t lostTotal_ = 0;
    std::deque<uint64_t> stamps_;
};

}  // namespace orvix::aravis
