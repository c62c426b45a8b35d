// Writes one grab's frames into ring buffers: the pattern, and on JPEG boards the compressed
// frame instead of the raw one.
// Thread: the board thread only (one producer per grab).
#pragma once

#include <cstdint>
#include <memory>
#include <vector>

#include "JpegEncoder.h"
#include "OrvixBoard.h"
#include "PatternGenerator.h"

namespace orvix::sim {

struct ProducerSetup {
    FrameFormat format;
    Pattern pattern = Pattern::Bars;
    uint32_t level = 0;
    std::vector<Defect> defects;
    bool jpeg = false;
    int jpegQuality = 90;
};

class FrameProducer {
  public:
    FrameProducer(const ProducerSetup& setup, uint32_t slots);

    // Fills `dst` (a ring buffer of `capacity` bytes, index `slot`) with frame `frameNumber`;
    // returns the status fields it determines (ready, overflow, compressed size).
    OrvixBufferStatus produce(uint64_t frameNumber, uint32_t slot, uint8_t* dst, uint64_t capacity);

    const PatternGenerator& generator() const { return generator_; }

  private:
    PatternGenerator generator_;
    bool jpeg_;
    int quality_;
    std::vector<bool> filled_;  // static pattern: buffers already drawn once
    std::vector<uint8_t> raw_;  // JPEG boards draw here, then compress into the buffer
    bool rawFilled_ = false;
    JpegEncoder encoder_;
};

}  // namespace orvix::sim
