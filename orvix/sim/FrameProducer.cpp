#include "FrameProducer.h"

namespace orvix::sim {

FrameProducer::FrameProducer(const ProducerSetup& setup, uint32_t slots)
    : generator_(setup.format, setup.pattern, setup.level, setup.defects),
      jpeg_(setup.jpeg),
      quality_(setup.jpegQuality),
      filled_(slots, false) {
    if (jpeg_) {
        raw_.resize(setup.format.frameBytes());
    }
}

OrvixBufferStatus FrameProducer::produce(uint64_t frameNumber, uint32_t slot, uint8_t* dst,
                                         uint64_t capacity) {
    OrvixBufferStatus status{};
    const FrameFormat& format = generator_.format();
    if (!jpeg_) {
        if (format.frameBytes() > capacity) {
            status.overflow = 1;
            return status;
        }
        if (generator_.stampsOnly() && slot < filled_.size() && filled_[slot]) {
            generator_.stamp(frameNumber, dst);
        } else {
            generator_.render(frameNumber, dst);
            if (slot < filled_.size()) {
                filled_[slot] = true;
            }
        }
        status.ready = 1;
        return status;
    }
    if (generator_.stampsOnly() && rawFilled_) {
        generator_.stamp(frameNumber, raw_.data());
    } else {
        generator_.render(frameNumber, raw_.data());
        rawFilled_ = true;
    }
    JpegResult r = encoder_.encode(raw_.data(), format, quality_, dst, capacity);
    if (!r.ok) {
        (r.overflow ? status.overflow : status.incomplete) = 1;
        return status;
    }
    status.ready = 1;
    status.compressedSize = r.size;
    return status;
}

}  // namespace orvix::sim
